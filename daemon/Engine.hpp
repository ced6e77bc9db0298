#pragma once

#include "AppRecord.hpp"

#include <corvane/model/ManagedAppStatus.hpp>

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// How the simulated installs go.
struct EngineSettings {
  /// Ticks a download takes (its progress moves by 1/downloadSteps a tick).
  int downloadSteps = 5;
  /// Ticks an installation takes once downloaded.
  int installSteps = 2;
  /// Installs that download or install at the same time; the rest wait.
  std::size_t parallelInstalls = 2;
  /// Apps whose install fails on purpose, with the reason reported. downloadFailed fails at the
  /// end of the download, every other reason at the end of the installation.
  std::map<std::string, ManagedAppStatus::Reason, std::less<>> failures;
};

/// The simulated install engine: a state machine over the apps the daemon looks after, stepped
/// by `tick()` and by the daemon's requests. It knows no clock, socket or database: the daemon
/// ticks it on a timer (tests tick it by hand) and takes the changes to store and publish. The
/// changes since they were last taken can be undone, so that the engine never holds a change the
/// store refused.
///
///   optional --install--> waiting --tick--> downloading(0 .. 1) --> installing(0 .. 1) --> managed
///   failed <-- (a failure on purpose, or an app the catalogue does not know)
///   waiting/downloading/installing --cancel--> optional
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

  explicit Engine(EngineSettings settings = {});

  /// Starts looking after `record`, or replaces the identity (declaration, name, version) of the
  /// app with its bundle identifier while keeping where its install stands.
  void put(AppRecord record);
  /// Queues the install of an app it looks after that is optional, failed or removed. False when
  /// unknown, already under way, or managed.
  bool install(std::string_view bundleID);
  /// Stops an install that waits, downloads or installs: the app becomes optional again. False
  /// otherwise.
  bool cancel(std::string_view bundleID);
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

  /// One step of the clock.
  void tick();
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
  /// longer undoes them.
  [[nodiscard]] std::vector<Change> takeChanges();
  /// Undoes every change since the last `takeChanges()`: the apps and the queue are as they were
  /// then, and no change is pending.
  void rollback();

 private:
  AppRecord* findMutable(std::string_view bundleID);
  /// Keeps how the app (and the queue) stood before its first change since the changes were
  /// last taken, for `rollback()`. Called before anything about the app changes.
  void remember(std::string_view bundleID);
  void changed(const AppRecord& record, bool phaseChanged);
  void finishStep(AppRecord& record);

  EngineSettings settings_;
  std::map<std::string, AppRecord, std::less<>> apps_;
  std::vector<std::string> queue_;  // waiting apps, oldest first
  std::vector<Change> changes_;
  // What rollback() restores: each app changed since the changes were last taken, as it was
  // before (empty: it was not there), and the queue.
  std::map<std::string, std::optional<AppRecord>, std::less<>> before_;
  std::optional<std::vector<std::string>> queueBefore_;
};

}  // namespace corvane::sim
