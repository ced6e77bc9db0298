#pragma once

#include "Catalog.hpp"
#include "InstallBackend.hpp"

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
/// daemon's thread; the transactions run on the backend's own workers, at most
/// `FlatpakSettings::workers` at once. `wake` is called on a worker thread whenever reports wait,
/// without any lock held; it must only hand the work over (post it). The destructor cancels
/// every transaction and joins the workers.
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
  /// Where an app is installed from.
  struct Source {
    std::string remote;
    std::string ref;
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
  bool stopping_ = false;

  std::vector<std::thread> workers_;  // last: they start once the rest is made
};

}  // namespace corvane::sim
