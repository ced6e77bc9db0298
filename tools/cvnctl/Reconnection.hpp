#pragma once

#include "EventLoop.hpp"
#include "Failure.hpp"
#include "Output.hpp"

#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>

namespace cvnctl {

/// What a watch or wait given --follow does while the daemon is away: it says so (human output
/// only), asks at growing intervals (0.1 s doubling up to 1 s) whether the daemon is back with a
/// cheap call, which also reconnects the library's connection with its resume token, and once
/// the daemon answers says so and calls `onBack`. The streams go on by themselves: the daemon
/// gives their registrations back. It gives up only when `absenceLimit` passes while the daemon is
/// away (`onFailure` with a timedOut failure) or when the connection was invalidated for good
/// (`onFailure` with that failure). Loop thread only.
class Reconnection {
 public:
  Reconnection(EventLoop& loop, Output& output, std::filesystem::path socketPath,
               std::optional<std::chrono::milliseconds> absenceLimit,
               std::function<void(Failure)> onFailure, std::function<void()> onBack = {});

  /// The daemon went away (a loss of the connection, or a call that could not reach it).
  /// Nothing more while it is already away.
  void lost();
  /// The daemon is back (a value pushed after the loss, or the probe's answer). Nothing when it
  /// was not away.
  void back();
  [[nodiscard]] bool away() const noexcept { return away_; }

 private:
  void scheduleProbe();
  void probe();
  void onProbe(const std::exception_ptr& failure);

  EventLoop& loop_;
  Output& output_;
  std::filesystem::path socketPath_;
  std::optional<std::chrono::milliseconds> absenceLimit_;
  std::function<void(Failure)> onFailure_;
  std::function<void()> onBack_;
  boost::asio::steady_timer probeTimer_;
  boost::asio::steady_timer absenceTimer_;
  std::chrono::milliseconds probeDelay_{};
  std::chrono::steady_clock::time_point lostAt_;
  bool away_ = false;
  /// Counts the absences, so that a probe's answer from an earlier one is not taken for this one.
  unsigned absence_ = 0;
};

}  // namespace cvnctl
