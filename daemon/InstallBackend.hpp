#pragma once

#include "AppRecord.hpp"
#include "Catalog.hpp"

#include <corvane/ipc/Listener.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// What a backend says about one install it runs. The engine applies reports in order; a report
/// about a job the engine no longer runs (cancelled, restarted) is ignored.
struct InstallReport {
  enum class Kind {
    /// Progress within the current phase moved (`progress`, 0 to 1).
    progressed,
    /// The download is complete: the install proper begins.
    downloaded,
    /// The app is installed; `version` is what is on the device now, when the backend knows it.
    installed,
    /// The install stopped; `reason` says which step failed.
    failed,
    /// A newer build of the installed app is offered (no job: found by `refresh()`).
    updateAvailable,
    /// What the installation holds now (`installedApps`), about no job: a managed app missing
    /// from it was taken off behind the daemon's back.
    inventory,
  };
  std::uint64_t job = 0;
  std::string bundleID;
  Kind kind = Kind::progressed;
  double progress = 0;
  ManagedAppStatus::Reason reason = ManagedAppStatus::Reason::installFailed;
  /// What the backend knows about why it failed, for the log.
  std::string detail;
  std::optional<std::string> version;
  /// For `inventory`: the app IDs installed.
  std::set<std::string, std::less<>> installedApps;
};

/// Why a backend cannot do what it was asked (launch an app, read a manifest); the message says
/// why, for the caller.
class BackendError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What installs an app on the device. The engine decides what to install and when (the queue,
/// how many at once, cancel, the phases an app passes through); a backend does the work of one
/// install and reports on it. The engine calls a backend only once its own changes are committed,
/// so a backend never acts on a change the store refused.
///
/// Threads: every call comes from the engine's owner (the daemon's thread), except `launch`,
/// which blocks and comes from a worker of the daemon's, at the same time as the other calls. A
/// backend that works on other threads hands its reports over through `takeReports()`.
class InstallBackend {
 public:
  virtual ~InstallBackend() = default;
  InstallBackend() = default;
  InstallBackend(const InstallBackend&) = delete;
  InstallBackend& operator=(const InstallBackend&) = delete;

  /// Begins downloading and installing `app` (its update, when `app.phase` is
  /// `Phase::updating`); `job` numbers this attempt in the reports.
  virtual void start(std::uint64_t job, const AppRecord& app) = 0;
  /// Stops the install `job` of `bundleID` if it still runs; nothing is reported for it after.
  virtual void cancel(std::uint64_t job, const std::string& bundleID) = 0;
  /// Takes `app` off the device (it was installed by the daemon).
  virtual void uninstall(const AppRecord& app) = 0;
  /// The reports since the last call, oldest first.
  [[nodiscard]] virtual std::vector<InstallReport> takeReports() = 0;
  /// One step of the daemon's clock while installs are under way: a backend that reports on its
  /// own has nothing to do here.
  virtual void tick() {}
  /// The catalogue of what this backend can install, for a backend that has one of its own
  /// (empty: the daemon's configured catalogue). Blocking: it may fetch from the network.
  [[nodiscard]] virtual std::optional<Catalog> catalog() { return std::nullopt; }
  /// Looks again at what can be installed (the catalogue, newer builds of installed apps), in
  /// the background: the catalogue comes back through `takeCatalog()`, newer builds as
  /// `updateAvailable` reports. Does nothing for a backend whose catalogue does not change.
  virtual void refresh() {}
  /// The catalogue a `refresh()` found, once.
  [[nodiscard]] virtual std::optional<Catalog> takeCatalog() { return std::nullopt; }

  /// Starts the installed `app` for the user `caller` names, detached from the daemon. A backend
  /// with nothing to start only logs it. Throws BackendError saying why it cannot. Called on a
  /// worker thread (`app` is a copy): it may block, and must not touch what the other calls
  /// change without a lock.
  virtual void launch(const AppRecord& app, const ipc::PeerCredentials& /*caller*/) {
    LogCategory::appLaunch().notice("launching {}", app.bundleID);
  }
  /// Whether `bundleID` is installed on the device, whoever installed it; false for a backend
  /// that installs nothing real.
  [[nodiscard]] virtual bool isInstalled(std::string_view /*bundleID*/) { return false; }
  /// For a backend that installs from enterprise manifests of its own format: reads `contents`
  /// (fetched from `url`), keeps it for the install and returns the bundle identifier of the app
  /// it names. Empty: this backend has no manifests of its own. Throws BackendError when the
  /// manifest does not parse.
  [[nodiscard]] virtual std::optional<std::string> takeManifest(std::string_view /*url*/,
                                                                std::string_view /*contents*/) {
    return std::nullopt;
  }
};

}  // namespace corvane::sim
