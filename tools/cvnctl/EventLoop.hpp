#pragma once

#include "DaemonMonitor.hpp"
#include "ExitStatus.hpp"
#include "Inbox.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <functional>
#include <optional>
#include <vector>

namespace cvnctl {

/// The main thread's event loop for the commands that watch or wait: an Asio `io_context` run on
/// the calling thread, SIGINT and SIGTERM, and the daemon connection.
///
/// `run` returns once `finish` has been called and everything the loop was waiting for has
/// completed. Ctrl-C (SIGINT) or SIGTERM finishes with success. The library's threads reach the
/// loop only through `inbox()`, which is closed when the loop finishes.
class EventLoop {
 public:
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  [[nodiscard]] boost::asio::io_context& context() noexcept { return context_; }
  [[nodiscard]] const Inbox& inbox() const noexcept { return inbox_; }

  /// Runs `cleanup` on the loop when it finishes (ending streams, cancelling timers), in the
  /// order added.
  void onFinish(std::function<void()> cleanup);
  /// Ends the loop with `status`; the first call decides. Loop thread only.
  void finish(ExitStatus status);
  [[nodiscard]] bool finished() const noexcept { return status_.has_value(); }

  /// From now on, losing the connection to the daemon (an interruption or invalidation of the
  /// library's connection) calls `onLost` on the loop. Call it before the first request, so
  /// that no interruption goes unseen. Throws `corvane::Error` when the library is switched off.
  void watchDaemon(std::function<void()> onLost);

  /// Runs until finished; returns the status given to `finish`.
  [[nodiscard]] ExitStatus run();

 private:
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  boost::asio::signal_set signals_;
  Inbox inbox_;
  std::vector<std::function<void()>> cleanups_;
  std::optional<ExitStatus> status_;
  std::optional<DaemonMonitor> monitor_;
};

}  // namespace cvnctl
