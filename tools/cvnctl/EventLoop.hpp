#pragma once

#include "DaemonMonitor.hpp"
#include "ExitStatus.hpp"
#include "Inbox.hpp"
#include "Interrupts.hpp"

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
/// completed. SIGINT or SIGTERM finishes it with 130 or 143 (and `signal()` tells which), except
/// that SIGINT finishes a loop made with `ctrlCEnds` with success: it is how a watch ends. The
/// library's threads reach the loop only through `inbox()`, which is closed when the loop
/// finishes.
class EventLoop {
 public:
  explicit EventLoop(bool ctrlCEnds);
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
  /// The signal that finished the loop with 130 or 143, if one did.
  [[nodiscard]] std::optional<int> signal() const noexcept { return signal_; }

  /// From now on, losing the connection to the daemon (an interruption or invalidation of the
  /// library's connection) calls `onLost` on the loop. Call it before the first request, so
  /// that no interruption goes unseen. Throws `corvane::Error` when the library is switched off.
  void watchDaemon(std::function<void()> onLost);

  /// Runs until finished; returns the status given to `finish`.
  [[nodiscard]] ExitStatus run();

  /// Calls `onResize` on the loop whenever the terminal's size changes (SIGWINCH), until the
  /// loop finishes.
  void followTerminalSize(std::function<void()> onResize);

 private:
  void onSignal(int signal);
  void awaitResize();

  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  Inbox inbox_;
  bool ctrlCEnds_;
  std::vector<std::function<void()>> cleanups_;
  std::optional<ExitStatus> status_;
  std::optional<int> signal_;
  std::optional<DaemonMonitor> monitor_;
  // SIGWINCH is not among the blocked signals the signal thread reads: Asio catches it here.
  std::optional<boost::asio::signal_set> resize_;
  std::function<void()> onResize_;
  // Last, so that it goes first: no signal reaches a loop being destroyed.
  Interrupts::Diversion diversion_;
};

}  // namespace cvnctl
