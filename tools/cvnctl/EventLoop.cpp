#include "EventLoop.hpp"

#include <csignal>

namespace cvnctl {

EventLoop::EventLoop()
    : work_(boost::asio::make_work_guard(context_)),
      signals_(context_, SIGINT, SIGTERM),
      inbox_(context_.get_executor()) {}

EventLoop::~EventLoop() {
  inbox_.close();
  monitor_.reset();
}

void EventLoop::onFinish(std::function<void()> cleanup) {
  cleanups_.push_back(std::move(cleanup));
}

void EventLoop::finish(ExitStatus status) {
  if (status_) return;
  status_ = status;
  inbox_.close();
  boost::system::error_code ignored;
  signals_.cancel(ignored);
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

ExitStatus EventLoop::run() {
  if (!status_) {
    signals_.async_wait([this](const boost::system::error_code& error, int /*signal*/) {
      if (!error) finish(ExitStatus::success);
    });
  }
  context_.run();
  return status_.value_or(ExitStatus::success);
}

}  // namespace cvnctl
