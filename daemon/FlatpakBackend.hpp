#pragma once

#include "Catalog.hpp"
#include "InstallBackend.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

// GLib's own name for it, declared here so that the header needs no GLib include path.
using GMainContext = struct _GMainContext;  // NOLINT(bugprone-reserved-identifier)

namespace corvane::flatpak {
class Installation;
class Transaction;
}  // namespace corvane::flatpak

namespace corvane::sim {

/// Where the Flatpak backend installs.
struct FlatpakSettings {
  /// A private installation at this path; empty: the system installation.
  std::filesystem::path installation;
  /// Remotes to add to the installation when it does not have them, by name (URL, no GPG
  /// verification: for local and test repositories).
  std::map<std::string, std::string, std::less<>> remotes;
  /// Transactions that run at once (worker threads).
  std::size_t workers = 2;
};

/// A backend that installs Flatpak apps with libflatpak: each install is one transaction (the
/// app with its runtime) from the remote the catalogue found it in, run on a worker thread;
/// its progress and outcome come back as reports. The app's bundle identifier is its Flatpak
/// application ID.
///
/// Threads: `start`, `cancel`, `uninstall`, `takeReports` and `catalog` are called from the
/// daemon's thread, `launch` from a worker of the daemon's (it reads only what never changes); the
/// transactions run on the backend's own workers, at most `FlatpakSettings::workers` at once.
/// `wake` is called on a worker thread whenever reports wait, without any lock held; it must only
/// hand the work over (post it). A watcher thread iterates a GMainContext of its own for the
/// installation's monitor: when the installation changes, the next `takeReports()` lists what it
/// holds (an inventory report), so that the engine notices a managed app taken off behind the
/// daemon's back. The destructor cancels every transaction and joins the workers and the watcher.
///
/// Launching: the app is started by a short-lived launcher, the daemon's own executable run with
/// `--launch-flatpak-app`, forked twice (so that no zombie is left and the daemon waits only for
/// the first fork) and dropped to the caller's uid and gid before it runs. The launcher's own
/// failures (no bwrap, say) go to the log, not to the caller.
class FlatpakBackend final : public InstallBackend {
 public:
  /// Opens the installation and adds the configured remotes it lacks. Throws
  /// flatpak::FlatpakError.
  FlatpakBackend(FlatpakSettings settings, std::function<void()> wake);
  ~FlatpakBackend() override;
  FlatpakBackend(const FlatpakBackend&) = delete;
  FlatpakBackend& operator=(const FlatpakBackend&) = delete;

  void start(std::uint64_t job, const AppRecord& app) override;
  void cancel(std::uint64_t job, const std::string& bundleID) override;
  void uninstall(const AppRecord& app) override;
  [[nodiscard]] std::vector<InstallReport> takeReports() override;
  void launch(const AppRecord& app, const ipc::PeerCredentials& caller) override;
  [[nodiscard]] bool isInstalled(std::string_view bundleID) override;
  /// Reads a .flatpakref; its app is installed from it (and the remote it names) from now on.
  [[nodiscard]] std::optional<std::string> takeManifest(std::string_view url,
                                                        std::string_view contents) override;

  /// The launcher's entry point: `argv` is {program, "--launch-flatpak-app", installation (empty:
  /// the system's), app ID, branch}. Starts the app and returns the exit status.
  [[nodiscard]] static int runLauncher(int argc, char** argv) noexcept;

  /// What the remotes offer, described from their AppStream data: one catalogue entry per app
  /// with a build for this architecture. Fetches the remotes' metadata: blocking, seconds for a
  /// remote over the network. Throws flatpak::FlatpakError, CatalogError.
  [[nodiscard]] std::optional<Catalog> catalog() override;
  void refresh() override;
  [[nodiscard]] std::optional<Catalog> takeCatalog() override;

  /// The stable item identifier of the app `appID`: the low 52 bits of the app ID's 64-bit
  /// FNV-1a hash, so that it never changes for an app and is exact in every JSON reader.
  [[nodiscard]] static std::int64_t itemIdentifier(std::string_view appID) noexcept;

 private:
  struct Task {
    enum class Kind { install, uninstall, refresh } kind = Kind::install;
    std::uint64_t job = 0;
    std::string appID;
    /// An install that updates the installed app.
    bool update = false;
  };
  /// Where an app is installed from: a remote, or a .flatpakref's text (`flatpakref`).
  struct Source {
    std::string remote;
    std::string ref;
    std::string flatpakref;
  };

  [[nodiscard]] flatpak::Installation open() const;
  void work();
  void install(const Task& task);
  void remove(const Task& task);
  /// A refresh on a worker: the catalogue again, and `updateAvailable` for newer builds.
  void lookAgain();
  /// Reads the remotes: the catalogue, where each app comes from (kept), and a report for each
  /// installed app whose remote offers another commit. Blocking.
  [[nodiscard]] Catalog survey(flatpak::Installation& installation);
  /// Makes `outcome` say the app is installed, with the version the installation holds.
  void finishInstalled(InstallReport& outcome, const Source& source) const noexcept;
  void report(InstallReport report);
  /// The watcher thread: runs the installation's monitor until the backend goes.
  void watch();
  [[nodiscard]] static InstallReport reportOf(const Task& task, InstallReport::Kind kind);

  FlatpakSettings settings_;
  std::function<void()> wake_;

  // Guards everything below it; the workers and the daemon's thread share it.
  std::mutex mutex_;
  std::condition_variable tasksWaiting_;
  std::deque<Task> tasks_;
  std::map<std::uint64_t, flatpak::Transaction*> running_;
  std::set<std::uint64_t> cancelled_;
  std::vector<InstallReport> reports_;
  // Each app of the catalogue, by app ID; apps with no build for this architecture have none.
  std::map<std::string, std::optional<Source>, std::less<>> sources_;
  std::optional<Catalog> refreshed_;
  // Apps named by .flatpakref manifests, by app ID: installed from those, not from the catalogue.
  std::map<std::string, Source, std::less<>> manifests_;
  bool stopping_ = false;

  // The installation changed since the last inventory; set by the watcher.
  std::atomic<bool> inventoryDue_{true};  // the first one reconciles the records at start
  std::atomic<bool> watcherStopping_{false};
  GMainContext* watcherContext_ = nullptr;  // owned: unreferenced once the watcher is joined
  std::filesystem::path executable_;

  std::vector<std::thread> workers_;  // last: they start once the rest is made
  std::thread watcher_;
};

}  // namespace corvane::sim
