#include "ipc/detail/Runtime.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/post.hpp>

#include <future>

namespace corvane::ipc::detail {

SerialQueue::SerialQueue() : thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  stop();
}

bool SerialQueue::post(std::move_only_function<void()>& task) {
  {
    const std::lock_guard queue(mutex_);
    if (stopping_) return false;
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
  return true;
}

void SerialQueue::stop() {
  {
    const std::lock_guard queue(mutex_);
    if (stopped_) return;
    stopping_ = true;
    stopped_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

bool SerialQueue::onQueueThread() const noexcept {
  return std::this_thread::get_id() == thread_.get_id();
}

void SerialQueue::run() {
  for (;;) {
    std::move_only_function<void()> task;
    {
      std::unique_lock queue(mutex_);
      wake_.wait(queue, [this] { return stopping_ || !tasks_.empty(); });
      // Stopping still drains the queue: it holds handlers owed to callers.
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    try {
      task();
    } catch (const std::exception& e) {
      LogCategory::tether().fault("Connection callback threw: {}", e.what());
    } catch (...) {
      LogCategory::tether().fault("Connection callback threw a non-standard exception");
    }
  }
}

Runtime::Runtime() : work_(boost::asio::make_work_guard(io_)) {
  std::promise<std::thread::id> started;
  auto id = started.get_future();
  ioThread_ = std::thread([this, &started] {
    started.set_value(std::this_thread::get_id());
    io_.run();
  });
  ioThreadId_ = id.get();
}

Runtime::~Runtime() {
  stop();
}

void Runtime::deliver(std::move_only_function<void()> task) {
  if (!delivery_.post(task)) task();
}

bool Runtime::runOnIo(std::move_only_function<void()> task) {
  {
    const std::lock_guard stopping(stopMutex_);
    if (stopped_) return false;
  }
  if (onIoThread()) {
    task();
    return true;
  }
  std::promise<void> done;
  auto finished = done.get_future();
  boost::asio::post(io_, [&task, &done] {
    task();
    done.set_value();
  });
  // The I/O thread never waits on user code, so this wait is bounded by the task itself. If the
  // context stops before running it, the handler is destroyed and the promise is broken.
  try {
    finished.get();
  } catch (const std::future_error&) {
    return false;
  }
  return true;
}

bool Runtime::onIoThread() const noexcept {
  return std::this_thread::get_id() == ioThreadId_;
}

void Runtime::stop() {
  {
    const std::lock_guard stopping(stopMutex_);
    if (stopped_) return;
    stopped_ = true;
  }
  work_.reset();
  io_.stop();
  if (ioThread_.joinable()) ioThread_.join();
  // The owner closed every socket before stopping, so what is left are completions of cancelled
  // waits; they hold their channel or listener and would leak unless run. With the I/O thread
  // gone this thread is the only one touching the context.
  io_.restart();
  io_.poll();
  delivery_.stop();
}

void SyncSlot::complete(std::optional<Bytes> reply, std::optional<CallError> error) {
  {
    const std::lock_guard outcome(mutex_);
    if (done_) return;
    reply_ = std::move(reply);
    error_ = std::move(error);
    done_ = true;
  }
  ready_.notify_one();
}

std::pair<std::optional<Bytes>, std::optional<CallError>> SyncSlot::wait() {
  std::unique_lock outcome(mutex_);
  ready_.wait(outcome, [this] { return done_; });
  return {std::move(reply_), std::move(error_)};
}

void failOutgoing(Runtime& runtime, Outgoing& outgoing, CallError error) {
  if (outgoing.sync) {
    outgoing.sync->complete(std::nullopt, std::move(error));
    return;
  }
  if (!outgoing.onError || !*outgoing.onError) return;
  runtime.deliver([handler = outgoing.onError, error = std::move(error)] { (*handler)(error); });
}

void failOutgoingHere(Outgoing& outgoing, CallError error) {
  if (outgoing.sync) {
    outgoing.sync->complete(std::nullopt, std::move(error));
    return;
  }
  if (outgoing.onError && *outgoing.onError) {
    runUserCode("error handler", [&] { (*outgoing.onError)(error); });
  }
}

void runUserCode(std::string_view what, const std::function<void()>& code) noexcept {
  try {
    code();
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Connection {} threw: {}", what, e.what());
  } catch (...) {
    LogCategory::tether().fault("Connection {} threw a non-standard exception", what);
  }
}

}  // namespace corvane::ipc::detail
