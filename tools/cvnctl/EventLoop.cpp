#include "EventLoop.hpp"

#include <csignal>

namespace cvnctl {

EventLoop::EventLoop(bool ctrlCEnds)
    : work_(boost::asio::make_work_guard(context_)),
      inbox_(context_.get_executor()),
      ctrlCEnds_(ctrlCEnds),
      diversion_([inbox = inbox_, this](int signal) {
        inbox.post([this, signal] { onSignal(signal); });
      }) {}

EventLoop::~EventLoop() {
  inbox_.close();
  monitor_.reset();
}

void EventLoop::onSignal(int signal) {
  if (signal == SIGINT && ctrlCEnds_) {
    finish(ExitStatus::success);
    return;
  }
  if (!status_) signal_ = signal;
  finish(signalStatus(signal));
}

void EventLoop::onFinish(std::function<void()> cleanup) {
  cleanups_.push_back(std::move(cleanup));
}

void EventLoop::finish(ExitStatus status) {
  if (status_) return;
  status_ = status;
  inbox_.close();
  // A cleanup may add another one; run them by index.
  for (std::size_t i = 0; i < cleanups_.size(); ++i) {
    auto cleanup = std::move(cleanups_[i]);
    if (cleanup) cleanup();
  }
  cleanups_.clear();
  work_.reset();
}

void EventLoop::watchDaemon(std::function<void()> onLost) {
  monitor_.reset();
  monitor_.emplace(inbox_, std::move(onLost));
}

void EventLoop::followTerminalSize(std::function<void()> onResize) {
  if (resize_) return;
  onResize_ = std::move(onResize);
  resize_.emplace(context_, SIGWINCH);
  onFinish([this] { resize_->cancel(); });
  awaitResize();
}

void EventLoop::awaitResize() {
  resize_->async_wait([this](const boost::system::error_code& error, int) {
    if (error || finished()) return;
    onResize_();
    awaitResize();
  });
}

ExitStatus EventLoop::run() {
  context_.run();
  return status_.value_or(ExitStatus::success);
}

}  // namespace cvnctl
