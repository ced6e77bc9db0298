#pragma once

#include "EventLoop.hpp"
#include "Output.hpp"

#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/push/AppProgress.hpp>
#include <corvane/push/AsyncStream.hpp>

#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace cvnctl {

/// Follows apps from an install request until each has settled: its status (by declaration
/// identifier) is `managed` or `failed`. Progress is shown for their bundle identifiers as the
/// daemon pushes it; the statuses are asked for again whenever an app reports it is done and at
/// a steady interval, since a failure arrives without progress.
///
/// Use: construct (this opens the progress stream, so nothing pushed after the request is
/// missed), send the request, then `wait`.
class InstallWaiter {
 public:
  InstallWaiter(Output& output, std::filesystem::path socketPath);

  /// Waits until every declaration in `declarationIdentifiers` has settled. Success when all
  /// are managed; failure when one failed, disappeared, or the daemon went away. Ctrl-C ends the
  /// wait with success. An empty set returns at once.
  [[nodiscard]] ExitStatus wait(std::set<std::string> declarationIdentifiers);

  /// Whether a status counts as settled.
  [[nodiscard]] static bool isSettled(corvane::ManagedAppStatus::State state) noexcept;

 private:
  void onProgress(corvane::AppProgress progress);
  void refresh();
  void onStatuses(const std::exception_ptr& failure,
                  const std::vector<corvane::ManagedAppStatus>& statuses);
  void armTimer();

  Output& output_;
  std::filesystem::path socketPath_;
  EventLoop loop_;
  corvane::AsyncStream<corvane::AppProgress> progress_;
  boost::asio::steady_timer timer_;
  std::set<std::string> targets_;
  /// The bundle identifiers of the targets, as the statuses name them.
  std::set<std::string> bundles_;
  /// The last state pushed for every bundle, shown once its bundle becomes a target's.
  std::map<std::string, corvane::AppProgress> lastProgress_;
  bool refreshing_ = false;
  bool refreshAgain_ = false;
};

}  // namespace cvnctl
