#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <functional>
#include <memory>
#include <mutex>

namespace cvnctl {

/// A way into the event loop from the library's threads: `post` runs a function on the loop
/// while the inbox is open and drops it once it is closed, so that a late callback (a reply, an
/// interruption) never touches a loop that has finished. Copies share one inbox.
class Inbox {
 public:
  explicit Inbox(const boost::asio::io_context::executor_type& executor)
      : state_(std::make_shared<State>(executor)) {}

  /// Runs `function` on the loop, unless the inbox is closed. Any thread.
  void post(std::function<void()> function) const {
    const std::lock_guard lock(state_->mutex);
    if (!state_->open) return;
    boost::asio::post(state_->executor, [state = state_, function = std::move(function)] {
      // Closed in the meantime: the loop is finishing and wants nothing more.
      if (state->isOpen()) function();
    });
  }

  /// Drops everything posted from now on. Any thread; idempotent.
  void close() const {
    const std::lock_guard lock(state_->mutex);
    state_->open = false;
  }

 private:
  struct State {
    explicit State(const boost::asio::io_context::executor_type& loop) : executor(loop) {}
    bool isOpen() {
      const std::lock_guard lock(mutex);
      return open;
    }
    std::mutex mutex;
    boost::asio::io_context::executor_type executor;
    bool open = true;
  };
  std::shared_ptr<State> state_;
};

}  // namespace cvnctl
