#include "FlatpakBackend.hpp"

#include "flatpak/AppStream.hpp"
#include "flatpak/FlatpakError.hpp"
#include "flatpak/Installation.hpp"
#include "flatpak/Transaction.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <flatpak.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvane::sim {

namespace {

using Reason = ManagedAppStatus::Reason;

/// A language code the catalogue can carry ("de", "pt-BR"); AppStream writes "pt_BR" and
/// sometimes names that are no language at all.
std::optional<std::string> languageTag(std::string code) {
  std::ranges::replace(code, '_', '-');
  const auto primary = code.substr(0, code.find('-'));
  if (primary.size() < 2 || primary.size() > 3
      || !std::ranges::all_of(primary, [](unsigned char c) { return std::isalpha(c) != 0; }))
    return std::nullopt;
  if (!std::ranges::all_of(code, [](unsigned char c) { return std::isalnum(c) != 0 || c == '-'; }))
    return std::nullopt;
  return code;
}

/// The catalogue record of one app, in its wire form.
boost::json::object describe(const flatpak::AppStreamComponent& component,
                             const flatpak::RemoteRef* build) {
  boost::json::object entry;
  // A placeholder: each published entry carries the identifier of the declaration it is for.
  entry["declarationIdentifier"] = component.id;
  entry["bundleID"] = component.id;
  entry["itemID"] = FlatpakBackend::itemIdentifier(component.id);
  entry["platform"] = 0;  // desktop
  entry["name"] = component.name.empty() ? component.id : component.name;
  if (!component.summary.empty()) {
    entry["subtitle"] = component.summary;
    entry["description"] = component.summary;
  }
  if (!component.developerName.empty()) entry["seller"] = component.developerName;
  boost::json::array genres;
  for (const auto& category : component.categories) genres.emplace_back(category);
  entry["genres"] = std::move(genres);
  boost::json::array languages;
  for (const auto& language : component.languages)
    if (auto tag = languageTag(language)) languages.emplace_back(*tag);
  entry["languages"] = std::move(languages);
  if (!component.version.empty()) entry["version"] = component.version;
  if (!component.iconPath.empty())
    entry["iconURL"] = "file://" + component.iconPath.native();
  else if (!component.iconUrl.empty())
    entry["iconURL"] = component.iconUrl;
  boost::json::array screenshots;
  for (const auto& url : component.screenshots)
    screenshots.emplace_back(
        boost::json::object{{"urlTemplate", url}, {"maxWidth", 0}, {"maxHeight", 0}});
  entry["screenshots"] = std::move(screenshots);
  if (build != nullptr && build->downloadSize > 0)
    entry["fileSize"] = boost::json::object{
        {"value", static_cast<double>(build->downloadSize) / 1e6}, {"unit", "MB"}};
  entry["hasLicenseAgreement"] = false;
  if (!component.projectLicence.empty()) entry["copyright"] = component.projectLicence;
  return entry;
}

}  // namespace

FlatpakBackend::FlatpakBackend(FlatpakSettings settings, std::function<void()> wake)
    : settings_(std::move(settings)), wake_(std::move(wake)) {
  auto installation = open();
  const auto present = installation.remotes();
  for (const auto& remote : settings_.remotes) {
    if (std::ranges::any_of(present, [&](const auto& has) { return has.name == remote.first; }))
      continue;
    installation.addRemote(remote.first, remote.second);
  }
  std::error_code failed;
  executable_ = std::filesystem::read_symlink("/proc/self/exe", failed);
  watcherContext_ = g_main_context_new();
  const std::size_t count = std::max<std::size_t>(settings_.workers, 1);
  workers_.reserve(count);
  for (std::size_t i = 0; i < count; ++i) workers_.emplace_back([this] { work(); });
  watcher_ = std::thread([this] { watch(); });
  // The first inventory is due from the start: the daemon reconciles its records with what the
  // installation holds (apps uninstalled while it was down) before it serves anyone.
  if (wake_) wake_();
}

FlatpakBackend::~FlatpakBackend() {
  {
    const std::scoped_lock stopping(mutex_);
    stopping_ = true;
    tasks_.clear();
    for (auto& [job, transaction] : running_) transaction->cancel();
  }
  tasksWaiting_.notify_all();
  for (auto& worker : workers_) worker.join();
  watcherStopping_ = true;
  g_main_context_wakeup(watcherContext_);
  watcher_.join();
  g_main_context_unref(watcherContext_);
}

void FlatpakBackend::watch() {
  g_main_context_push_thread_default(watcherContext_);
  try {
    auto installation = open();
    flatpak::ErrorSlot error;
    // Its events come to the thread-default context of the thread that makes it: this one's.
    const auto monitor = flatpak::adopt(
        flatpak_installation_create_monitor(installation.get(), nullptr, error.out()));
    if (!monitor) error.raise("monitor the installation");
    g_signal_connect(
        monitor.get(), "changed",
        G_CALLBACK(+[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, gpointer self) {
          auto* backend = static_cast<FlatpakBackend*>(self);
          backend->inventoryDue_ = true;
          if (backend->wake_) backend->wake_();
        }),
        this);
    while (!watcherStopping_) g_main_context_iteration(watcherContext_, TRUE);
    g_signal_handlers_disconnect_by_data(monitor.get(), this);
  } catch (const flatpak::FlatpakError& failure) {
    // Installs go on; only apps taken off behind the daemon's back go unnoticed.
    LogCategory::install().error("the installation cannot be watched: {}", failure.what());
  }
  g_main_context_pop_thread_default(watcherContext_);
}

flatpak::Installation FlatpakBackend::open() const {
  return settings_.installation.empty() ? flatpak::Installation::system()
                                        : flatpak::Installation::openAt(settings_.installation);
}

std::int64_t FlatpakBackend::itemIdentifier(std::string_view appID) noexcept {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char c : appID) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ULL;
  }
  return static_cast<std::int64_t>(hash & ((std::uint64_t{1} << 52) - 1));
}

std::optional<Catalog> FlatpakBackend::catalog() {
  auto installation = open();
  return survey(installation);
}

Catalog FlatpakBackend::survey(flatpak::Installation& installation) {
  const std::string arch = flatpak_get_default_arch();
  boost::json::array entries;
  std::map<std::string, std::optional<Source>, std::less<>> sources;
  std::map<std::string, std::string, std::less<>> newest;  // ref -> the remote's commit
  for (const auto& remote : installation.remotes()) {
    std::vector<flatpak::RemoteRef> refs;
    std::vector<flatpak::AppStreamComponent> components;
    try {
      refs = installation.remoteRefs(remote.name);
      components = flatpak::readAppStream(installation.updateAppStream(remote.name));
    } catch (const flatpak::FlatpakError& error) {
      // One remote that cannot be read (unreachable, or one a .flatpakref added without
      // signatures on its AppStream data) takes nothing from what the others offer.
      LogCategory::install().error("the remote {} is left out of the catalogue: {}", remote.name,
                                   error.what());
      continue;
    }
    for (const auto& ref : refs)
      if (ref.kind == flatpak::RefKind::app) newest.emplace(ref.ref, ref.commit);
    for (const auto& component : components) {
      if (sources.contains(component.id)) continue;  // the first remote that offers it
      const flatpak::RemoteRef* build = nullptr;
      for (const auto& ref : refs)
        if (ref.kind == flatpak::RefKind::app && ref.id == component.id && ref.arch == arch)
          build = &ref;
      sources.emplace(component.id,
                      build ? std::optional(Source{remote.name, build->ref, {}}) : std::nullopt);
      entries.emplace_back(describe(component, build));
    }
  }
  auto catalog = Catalog::parse(boost::json::serialize(entries), "the remotes' AppStream data");
  // Installed apps whose remote offers another commit can be updated.
  std::vector<std::string> updatable;
  for (const auto& installed : installation.installedRefs()) {
    if (installed.kind != flatpak::RefKind::app) continue;
    const auto offered = newest.find(installed.ref);
    if (offered != newest.end() && offered->second != installed.commit)
      updatable.push_back(installed.id);
  }
  {
    const std::scoped_lock replacing(mutex_);
    sources_ = std::move(sources);
  }
  for (auto& appID : updatable) {
    InstallReport update;
    update.bundleID = std::move(appID);
    update.kind = InstallReport::Kind::updateAvailable;
    report(std::move(update));
  }
  return catalog;
}

void FlatpakBackend::refresh() {
  {
    const std::scoped_lock queueing(mutex_);
    tasks_.push_back(Task{Task::Kind::refresh, 0, {}, false});
  }
  tasksWaiting_.notify_one();
}

std::optional<Catalog> FlatpakBackend::takeCatalog() {
  const std::scoped_lock taking(mutex_);
  return std::exchange(refreshed_, std::nullopt);
}

void FlatpakBackend::start(std::uint64_t job, const AppRecord& app) {
  {
    const std::scoped_lock queueing(mutex_);
    tasks_.push_back(Task{Task::Kind::install, job, app.bundleID, app.phase == Phase::updating});
  }
  tasksWaiting_.notify_one();
}

void FlatpakBackend::cancel(std::uint64_t job, const std::string& /*bundleID*/) {
  const std::scoped_lock cancelling(mutex_);
  if (std::erase_if(tasks_, [job](const Task& task) { return task.job == job; }) > 0) return;
  cancelled_.insert(job);
  if (const auto running = running_.find(job); running != running_.end()) running->second->cancel();
}

void FlatpakBackend::uninstall(const AppRecord& app) {
  {
    const std::scoped_lock queueing(mutex_);
    tasks_.push_back(Task{Task::Kind::uninstall, 0, app.bundleID, false});
  }
  tasksWaiting_.notify_one();
}

std::vector<InstallReport> FlatpakBackend::takeReports() {
  std::vector<InstallReport> reports;
  {
    const std::scoped_lock taking(mutex_);
    reports = std::exchange(reports_, {});
  }
  if (!inventoryDue_.exchange(false)) return reports;
  // Listed after the reports were taken: an app whose install is reported above is in it.
  try {
    InstallReport inventory;
    inventory.kind = InstallReport::Kind::inventory;
    for (const auto& installed : open().installedRefs())
      if (installed.kind == flatpak::RefKind::app) inventory.installedApps.insert(installed.id);
    reports.push_back(std::move(inventory));
  } catch (const flatpak::FlatpakError& error) {
    LogCategory::install().error("the installed apps cannot be listed: {}", error.what());
  }
  return reports;
}

bool FlatpakBackend::isInstalled(std::string_view bundleID) {
  try {
    return std::ranges::any_of(open().installedRefs(), [&](const flatpak::InstalledRef& ref) {
      return ref.kind == flatpak::RefKind::app && ref.id == bundleID;
    });
  } catch (const flatpak::FlatpakError& error) {
    LogCategory::install().error("the installed apps cannot be listed: {}", error.what());
    return false;
  }
}

std::optional<std::string> FlatpakBackend::takeManifest(std::string_view url,
                                                        std::string_view contents) {
  const std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> file(g_key_file_new(),
                                                                   &g_key_file_free);
  flatpak::ErrorSlot error;
  constexpr const char* group = "Flatpak Ref";
  if (!g_key_file_load_from_data(file.get(), contents.data(), contents.size(), G_KEY_FILE_NONE,
                                 error.out()))
    throw BackendError(fmt::format("{} is not a .flatpakref: {}", url,
                                   error.get() ? error.get()->message : "unreadable"));
  const auto value = [&](const char* key) {
    return flatpak::takeString(g_key_file_get_string(file.get(), group, key, nullptr));
  };
  const std::string name = value("Name");
  if (name.empty() || value("Url").empty())
    throw BackendError(
        fmt::format("{} is not a .flatpakref: it names no app (Name) or no "
                    "repository (Url) in [{}]",
                    url, group));
  if (value("IsRuntime") == "true")
    throw BackendError(fmt::format("{} names a runtime, not an app", url));
  std::string branch = value("Branch");
  if (branch.empty()) branch = "master";  // libflatpak's default for a .flatpakref
  const std::scoped_lock keeping(mutex_);
  manifests_.insert_or_assign(name,
                              Source{"", flatpak::appRef(name, branch), std::string(contents)});
  return name;
}

void FlatpakBackend::report(InstallReport report) {
  {
    const std::scoped_lock reporting(mutex_);
    reports_.push_back(std::move(report));
  }
  if (wake_) wake_();
}

void FlatpakBackend::work() {
  for (;;) {
    Task task;
    {
      std::unique_lock waiting(mutex_);
      tasksWaiting_.wait(waiting, [this] { return stopping_ || !tasks_.empty(); });
      if (stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    try {
      switch (task.kind) {
        case Task::Kind::install:
          install(task);
          break;
        case Task::Kind::uninstall:
          remove(task);
          break;
        case Task::Kind::refresh:
          lookAgain();
          break;
      }
    } catch (const std::exception& error) {
      // Nothing may end a worker: the task is lost, the log says so.
      LogCategory::install().fault("{}: {}", task.appID, error.what());
    }
  }
}

InstallReport FlatpakBackend::reportOf(const Task& task, InstallReport::Kind kind) {
  InstallReport report;
  report.job = task.job;
  report.bundleID = task.appID;
  report.kind = kind;
  return report;
}

void FlatpakBackend::finishInstalled(InstallReport& outcome, const Source& source) const noexcept {
  outcome.kind = InstallReport::Kind::installed;
  try {
    const auto installed = open().findInstalled(source.ref);
    if (installed)
      outcome.version = installed->appdataVersion.empty() ? installed->commit.substr(0, 12)
                                                          : installed->appdataVersion;
  } catch (const flatpak::FlatpakError& error) {
    // Installed all the same; only its version is unknown.
    LogCategory::install().error("{}: the installed version cannot be read: {}", outcome.bundleID,
                                 error.what());
  }
}

void FlatpakBackend::install(const Task& task) {
  using Kind = InstallReport::Kind;
  InstallReport outcome = reportOf(task, Kind::failed);
  std::optional<Source> source;
  bool known = false;
  {
    const std::scoped_lock looking(mutex_);
    if (const auto manifest = manifests_.find(task.appID); manifest != manifests_.end()) {
      known = true;
      source = manifest->second;
    } else if (const auto found = sources_.find(task.appID); found != sources_.end()) {
      known = true;
      source = found->second;
    }
  }
  if (!source) {
    outcome.kind = Kind::failed;
    outcome.reason = known ? Reason::notSupported : Reason::couldNotVerifyAppID;
    outcome.detail =
        known ? fmt::format("{} has no build for {}", task.appID, flatpak_get_default_arch())
              : fmt::format("no remote offers {}", task.appID);
    LogCategory::install().error("{}: {}", task.appID, outcome.detail);
    report(std::move(outcome));
    return;
  }

  bool downloaded = false;
  try {
    auto installation = open();
    flatpak::Transaction transaction(installation);
    {
      const std::scoped_lock registering(mutex_);
      if (stopping_ || cancelled_.erase(task.job) > 0) return;
      running_.emplace(task.job, &transaction);
    }
    // Unregistered on every way out, before the transaction goes.
    struct Running {
      FlatpakBackend& backend;
      std::uint64_t job;
      ~Running() {
        const std::scoped_lock unregistering(backend.mutex_);
        backend.running_.erase(job);
      }
    } running{*this, task.job};

    if (task.update)
      transaction.addUpdate(source->ref);
    else if (source->flatpakref.empty())
      transaction.addInstall(source->remote, source->ref);
    else
      transaction.addInstallFlatpakref(source->flatpakref);
    int lastPercent = -1;
    transaction.run([&](const flatpak::TransactionProgress& progress) {
      if (progress.ref == source->ref && progress.phase != flatpak::OperationPhase::downloading) {
        if (!downloaded) {
          downloaded = true;
          report(reportOf(task, Kind::downloaded));
        }
        return;
      }
      if (downloaded || progress.transactionPercent == lastPercent) return;
      lastPercent = progress.transactionPercent;
      InstallReport step = reportOf(task, Kind::progressed);
      step.progress = progress.transactionPercent / 100.0;
      report(std::move(step));
    });
    finishInstalled(outcome, *source);
  } catch (const flatpak::FlatpakError& error) {
    if (error.cancelled()) {
      LogCategory::install().info("{}: install cancelled", task.appID);
      return;
    }
    if (error.matches(FLATPAK_ERROR, FLATPAK_ERROR_ALREADY_INSTALLED)) {
      // The daemon's own install, finished before it could record that (it was stopped): the
      // installation is the truth, and nothing is installed twice.
      finishInstalled(outcome, *source);
      LogCategory::install().info("{}: already installed; taken as installed", task.appID);
    } else {
      outcome.kind = Kind::failed;
      outcome.reason = downloaded ? Reason::installFailed : Reason::downloadFailed;
    }
    outcome.detail = error.what();
    LogCategory::install().error("{}: {}", task.appID, outcome.detail);
  }
  bool cancelledMeanwhile = false;
  {
    const std::scoped_lock finishing(mutex_);
    cancelledMeanwhile = cancelled_.erase(task.job) > 0;
  }
  if (cancelledMeanwhile) {
    // The cancel came as the transaction finished: what it installed goes again.
    if (outcome.kind == Kind::installed && !task.update)
      remove(Task{Task::Kind::uninstall, 0, task.appID, false});
    return;
  }
  report(std::move(outcome));
}

void FlatpakBackend::lookAgain() {
  try {
    auto installation = open();
    auto catalog = survey(installation);
    {
      const std::scoped_lock keeping(mutex_);
      refreshed_ = std::move(catalog);
    }
    if (wake_) wake_();
  } catch (const std::exception& error) {
    // The catalogue stays as it was; the next poll tries again.
    LogCategory::install().error("the remotes could not be read: {}", error.what());
  }
}

void FlatpakBackend::remove(const Task& task) {
  try {
    auto installation = open();
    for (const auto& installed : installation.installedRefs()) {
      if (installed.kind != flatpak::RefKind::app || installed.id != task.appID) continue;
      installation.uninstall(installed.ref);
      LogCategory::install().info("{}: uninstalled {}", task.appID, installed.ref);
    }
  } catch (const flatpak::FlatpakError& error) {
    LogCategory::install().error("{}: could not be uninstalled: {}", task.appID, error.what());
  }
}

void FlatpakBackend::launch(const AppRecord& app, const ipc::PeerCredentials& caller) {
  std::string branch;
  try {
    for (const auto& installed : open().installedRefs())
      if (installed.kind == flatpak::RefKind::app && installed.id == app.bundleID)
        branch = installed.branch;
  } catch (const flatpak::FlatpakError& error) {
    throw BackendError(error.what());
  }
  if (branch.empty()) throw BackendError("it is not in the installation");
  if (executable_.empty()) throw BackendError("the daemon cannot find its own executable");

  // Everything the child needs is made here: between fork and exec only async-signal-safe calls.
  const bool drop = caller.uid != ::geteuid();
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    if (drop
        && (variable.starts_with("HOME=") || variable.starts_with("USER=")
            || variable.starts_with("LOGNAME=") || variable.starts_with("XDG_RUNTIME_DIR=")))
      continue;
    environment.emplace_back(variable);
  }
  if (drop) {
    ::passwd entry{};
    ::passwd* found = nullptr;
    std::vector<char> strings(16384);
    if (::getpwuid_r(caller.uid, &entry, strings.data(), strings.size(), &found) != 0
        || found == nullptr)
      throw BackendError(fmt::format("uid {} has no user entry", caller.uid));
    environment.push_back(fmt::format("HOME={}", entry.pw_dir));
    environment.push_back(fmt::format("USER={}", entry.pw_name));
    environment.push_back(fmt::format("LOGNAME={}", entry.pw_name));
    environment.push_back(fmt::format("XDG_RUNTIME_DIR=/run/user/{}", caller.uid));
  }
  std::vector<std::string> arguments{executable_.native(), "--launch-flatpak-app",
                                     settings_.installation.native(), app.bundleID, branch};
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  envp.reserve(environment.size() + 1);
  for (auto& variable : environment) envp.push_back(variable.data());
  envp.push_back(nullptr);
  const ::uid_t uid = caller.uid;
  const ::gid_t gid = caller.gid;

  // Forked twice: the first child exits at once (reaped here), the launcher is init's to reap.
  const ::pid_t first = ::fork();
  if (first < 0)
    throw BackendError(fmt::format("fork failed: {}", std::generic_category().message(errno)));
  if (first == 0) {
    const ::pid_t launcher = ::fork();
    if (launcher != 0) ::_exit(launcher < 0 ? 1 : 0);
    ::setsid();
    // Nothing of the daemon's reaches the app, even a descriptor a library opened without
    // O_CLOEXEC: everything past standard error is closed.
    ::syscall(SYS_close_range, 3U, ~0U, 0U);
    if (drop && (::setgroups(1, &gid) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0))
      ::_exit(126);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(first, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw BackendError("the launcher could not be started");
  LogCategory::appLaunch().notice("launching {} (branch {}) for uid {}", app.bundleID, branch,
                                  caller.uid);
}

int FlatpakBackend::runLauncher(int argc, char** argv) noexcept {
  if (argc != 5) {
    std::fputs("usage: corvaned --launch-flatpak-app INSTALLATION APP-ID BRANCH\n", stderr);
    return 2;
  }
  try {
    const std::filesystem::path path = argv[2];
    auto installation =
        path.empty() ? flatpak::Installation::system() : flatpak::Installation::openAt(path);
    const auto launched = installation.launch(argv[3], argv[4]);
    LogCategory::appLaunch().notice("{} runs (instance {}, pid {})", argv[3], launched.instanceId,
                                    launched.pid);
    return 0;
  } catch (const std::exception& error) {
    LogCategory::appLaunch().error("{} could not be launched: {}", argv[3], error.what());
    return 1;
  }
}

}  // namespace corvane::sim
