#pragma once

#include "EventLoop.hpp"
#include "Failure.hpp"
#include "Options.hpp"
#include "Output.hpp"
#include "Reconnection.hpp"

#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/push/AppProgress.hpp>
#include <corvane/push/AsyncStream.hpp>

#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace cvnctl {

/// Follows apps from an install request until each has settled: its status (by declaration
/// identifier) is `managed` or `failed`. Progress is shown for their bundle identifiers as the
/// daemon pushes it; the statuses are asked for again whenever an app reports a state that is
/// not on the way to an install (done, or available again: failed, cancelled, removed), and at a
/// steady interval, for a daemon that pushes no state when an install ends.
///
/// Every outcome ends the wait: all managed (0); one failed (1); one cancelled, removed or set
/// back to optional by someone else (6); the daemon gone (4); --timeout passed (5); SIGINT or
/// SIGTERM (130, 143). Every failure is reported once, through the output. With --follow, a daemon
/// that goes away is waited for instead (see `Reconnection`) and the statuses are asked for again
/// once it is back; --timeout still bounds the whole wait.
///
/// Use: construct (this opens the progress stream, so nothing pushed after the request is
/// missed), send the request, then `wait`.
class InstallWaiter {
 public:
  InstallWaiter(Output& output, const Options& options, std::filesystem::path socketPath);

  /// Waits until every declaration in `declarationIdentifiers` has settled. `applied` says what
  /// the request already did ("the declaration was stored"), for the messages of a wait cut
  /// short. An empty set returns success at once.
  [[nodiscard]] ExitStatus wait(std::set<std::string> declarationIdentifiers, std::string applied);

  /// Whether a status counts as settled.
  [[nodiscard]] static bool isSettled(corvane::ManagedAppStatus::State state) noexcept;

 private:
  void onProgress(corvane::AppProgress progress);
  void onLost();
  void refresh();
  void onStatuses(const std::exception_ptr& failure,
                  const std::vector<corvane::ManagedAppStatus>& statuses);
  void armTimer();
  /// Ends the wait with `failure` (the first one counts).
  void fail(Failure failure);
  void failWith(const std::exception_ptr& problem);

  Output& output_;
  const Options& options_;
  std::filesystem::path socketPath_;
  EventLoop loop_;
  corvane::AsyncStream<corvane::AppProgress> progress_;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer deadline_;
  /// With --follow only.
  std::optional<Reconnection> reconnection_;
  std::set<std::string> targets_;
  std::string applied_;
  /// The bundle identifiers of the targets, as the statuses name them.
  std::set<std::string> bundles_;
  /// The last state pushed for every bundle, shown once its bundle becomes a target's.
  std::map<std::string, corvane::AppProgress> lastProgress_;
  std::optional<Failure> failure_;
  bool refreshing_ = false;
  bool refreshAgain_ = false;
};

}  // namespace cvnctl
