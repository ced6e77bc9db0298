#pragma once

#include "AppRecord.hpp"
#include "InstallBackend.hpp"

#include <corvane/model/ManagedAppStatus.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// How the engine schedules installs.
struct EngineSettings {
  /// Installs that download or install at the same time; the rest wait.
  std::size_t parallelInstalls = 2;
};

/// The install engine: a state machine over the apps the daemon looks after. It decides what is
/// installed and when (the queue, how many at once, cancel, the phases an app passes through);
/// its backend does the work of each install and reports on it. The engine knows no clock,
/// socket or database: the daemon steps it when the backend has something to say (tests step it
/// by hand) and takes the changes to store and publish. The changes since they were last taken
/// can be undone, so that the engine never holds a change the store refused; the backend is told
/// what to do only when the changes are taken, so it never acts on a refused change either.
///
///   optional --install--> waiting --start--> downloading(0 .. 1) --> installing(0 .. 1) -->
///   managed failed <-- (the backend failed, or an app nobody can verify)
///   waiting/downloading/installing --cancel--> optional
///   managed --upgrade--> updating --> managed (new version, or updateFailed)
///   managed --(taken off behind the daemon's back)--> managedButUninstalled --install--> waiting
///
/// Not thread-safe: one owner drives it.
class Engine {
 public:
  /// One change to one app, in the order they happened.
  struct Change {
    AppRecord record;
    bool removed = false;
    /// The phase moved (not only the progress within it): worth storing.
    bool phaseChanged = false;
  };

  /// `backend` must outlive the engine.
  explicit Engine(InstallBackend& backend, EngineSettings settings = {});
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// Starts looking after `record`, or replaces the identity (declaration, name, version) of the
  /// app with its bundle identifier while keeping where its install stands.
  void put(AppRecord record);
  /// Queues the install of an app it looks after that is optional, failed or removed. False when
  /// unknown, already under way, or managed.
  bool install(std::string_view bundleID);
  /// Stops an install that waits, downloads or installs: the app becomes optional again. A
  /// stopped update leaves the app managed. False otherwise.
  bool cancel(std::string_view bundleID);
  /// Updates an installed (managed) app: it stays installed while its update runs (`updating`),
  /// then is managed with the new version, or managed with `updateFailed`. Updates start at
  /// once and count towards the installs at once. False when the app is not managed.
  bool upgrade(std::string_view bundleID);
  /// Takes an installed (managed) app off the device while still looking after it: it becomes
  /// optional. False otherwise: an install that waits or is under way is left alone.
  bool uninstall(std::string_view bundleID);
  /// Stops looking after the app (stopping its install); false when unknown.
  bool remove(std::string_view bundleID);
  /// Puts the app into `failed` with `reason`; false when unknown.
  bool fail(std::string_view bundleID, ManagedAppStatus::Reason reason);
  /// Forgets past failures: every failed app becomes optional, its reasons cleared. Returns how
  /// many there were.
  std::size_t clearFailures();

  /// One step of the daemon's clock: the backend's tick, then `update()`.
  void tick();
  /// Applies what the backend reported, then starts waiting installs while there is room.
  void update();
  /// Whether any install waits, downloads or installs (the clock has something to do).
  [[nodiscard]] bool busy() const noexcept;

  [[nodiscard]] const AppRecord* find(std::string_view bundleID) const;
  /// The app that the declaration (or request) `declarationIdentifier` brought, if any.
  [[nodiscard]] const AppRecord* findDeclared(std::string_view declarationIdentifier) const;
  /// How many apps it looks after.
  [[nodiscard]] std::size_t size() const noexcept { return apps_.size(); }
  /// Every app, by bundle identifier.
  [[nodiscard]] std::vector<AppRecord> records() const;
  /// The changes since the last `takeChanges()` or `rollback()`, oldest first.
  [[nodiscard]] const std::vector<Change>& changes() const noexcept { return changes_; }
  /// The changes since the last call, oldest first. Taken changes are kept: `rollback()` no
  /// longer undoes them, and the backend is told now to start, cancel or uninstall what they
  /// asked for.
  [[nodiscard]] std::vector<Change> takeChanges();
  /// Undoes every change since the last `takeChanges()`: the apps and the queue are as they were
  /// then, and no change is pending. The backend's reports applied since then are applied again
  /// by the next `update()`.
  void rollback();

 private:
  AppRecord* findMutable(std::string_view bundleID);
  /// Keeps how the app (and the queue) stood before its first change since the changes were
  /// last taken, for `rollback()`. Called before anything about the app changes.
  void remember(std::string_view bundleID);
  void changed(const AppRecord& record, bool phaseChanged);
  /// What the backend is told once the changes are taken.
  struct Command {
    enum class Kind { start, cancel, uninstall } kind;
    std::uint64_t job = 0;
    AppRecord record;
  };
  void apply(const InstallReport& report);
  /// Each managed app that is not in `installed` is managed but uninstalled now.
  void noticeMissing(const std::set<std::string, std::less<>>& installed);
  /// Stops the backend's job for `bundleID`, if one runs.
  void stopJob(std::string_view bundleID);

  InstallBackend& backend_;
  EngineSettings settings_;
  // The backend's job for each app it works on, and the next job's number.
  std::map<std::string, std::uint64_t, std::less<>> jobs_;
  std::uint64_t nextJob_ = 1;
  std::vector<Command> commands_;
  // Reports applied since the changes were last taken (applied again after a rollback), and
  // reports taken from the backend but not yet applied.
  std::vector<InstallReport> applied_;
  std::vector<InstallReport> unapplied_;
  std::map<std::string, AppRecord, std::less<>> apps_;
  std::vector<std::string> queue_;  // waiting apps, oldest first
  std::vector<Change> changes_;
  // What rollback() restores: each app changed since the changes were last taken, as it was
  // before (empty: it was not there), and the queue.
  std::map<std::string, std::optional<AppRecord>, std::less<>> before_;
  std::optional<std::vector<std::string>> queueBefore_;
  std::optional<std::map<std::string, std::uint64_t, std::less<>>> jobsBefore_;
};

}  // namespace corvane::sim
