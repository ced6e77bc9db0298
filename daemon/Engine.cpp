#include "Engine.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace corvane::sim {

namespace {

bool underWay(Phase phase) noexcept {
  return phase == Phase::waiting || phase == Phase::downloading || phase == Phase::installing
         || phase == Phase::updating;
}

bool running(Phase phase) noexcept {
  return phase == Phase::downloading || phase == Phase::installing || phase == Phase::updating;
}

void dropReason(std::vector<ManagedAppStatus::Reason>& reasons, ManagedAppStatus::Reason reason) {
  std::erase(reasons, reason);
}

}  // namespace

Engine::Engine(InstallBackend& backend, EngineSettings settings)
    : backend_(backend), settings_(settings) {}

AppRecord* Engine::findMutable(std::string_view bundleID) {
  const auto found = apps_.find(bundleID);
  return found == apps_.end() ? nullptr : &found->second;
}

const AppRecord* Engine::find(std::string_view bundleID) const {
  const auto found = apps_.find(bundleID);
  return found == apps_.end() ? nullptr : &found->second;
}

const AppRecord* Engine::findDeclared(std::string_view declarationIdentifier) const {
  for (const auto& [bundleID, record] : apps_)
    if (record.declarationIdentifier == declarationIdentifier) return &record;
  return nullptr;
}

void Engine::remember(std::string_view bundleID) {
  if (!queueBefore_) queueBefore_ = queue_;
  if (!jobsBefore_) jobsBefore_ = jobs_;
  if (before_.contains(bundleID)) return;
  const AppRecord* record = find(bundleID);
  before_.emplace(std::string(bundleID), record ? std::optional(*record) : std::nullopt);
}

void Engine::changed(const AppRecord& record, bool phaseChanged) {
  changes_.push_back(Change{record, false, phaseChanged});
}

void Engine::put(AppRecord record) {
  remember(record.bundleID);
  if (AppRecord* existing = findMutable(record.bundleID)) {
    existing->declarationIdentifier = std::move(record.declarationIdentifier);
    existing->declarationKey = std::move(record.declarationKey);
    existing->name = std::move(record.name);
    existing->versionID = record.versionID;
    existing->version = std::move(record.version);
    changed(*existing, true);
    return;
  }
  const std::string key = record.bundleID;
  auto& stored = apps_.emplace(key, std::move(record)).first->second;
  if (stored.phase == Phase::waiting) queue_.push_back(key);
  // An update under way when the daemon stopped is forgotten: the app is installed, and the
  // next look for updates finds it again.
  if (stored.phase == Phase::updating) {
    stored.phase = Phase::managed;
    stored.progress = 0;
  }
  // A stored install that was under way when the daemon stopped starts again from the queue.
  if (stored.phase == Phase::downloading || stored.phase == Phase::installing) {
    stored.phase = Phase::waiting;
    stored.progress = 0;
    queue_.push_back(key);
  }
  changed(stored, true);
}

bool Engine::install(std::string_view bundleID) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr || underWay(record->phase) || record->phase == Phase::managed) return false;
  remember(bundleID);
  record->phase = Phase::waiting;
  record->progress = 0;
  record->reasons.clear();
  queue_.emplace_back(bundleID);
  changed(*record, true);
  return true;
}

bool Engine::cancel(std::string_view bundleID) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr || !underWay(record->phase)) return false;
  remember(bundleID);
  std::erase(queue_, bundleID);
  stopJob(bundleID);
  // A stopped update leaves the installed build where it was.
  record->phase = record->phase == Phase::updating ? Phase::managed : Phase::optional;
  record->progress = 0;
  changed(*record, true);
  return true;
}

bool Engine::upgrade(std::string_view bundleID) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr || record->phase != Phase::managed) return false;
  remember(bundleID);
  record->phase = Phase::updating;
  record->progress = 0;
  dropReason(record->reasons, ManagedAppStatus::Reason::updateFailed);
  const std::uint64_t job = nextJob_++;
  jobs_.insert_or_assign(record->bundleID, job);
  commands_.push_back(Command{Command::Kind::start, job, *record});
  changed(*record, true);
  return true;
}

bool Engine::uninstall(std::string_view bundleID) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr || record->phase != Phase::managed) return false;
  remember(bundleID);
  commands_.push_back(Command{Command::Kind::uninstall, 0, *record});
  record->phase = Phase::optional;
  record->progress = 0;
  record->reasons.clear();
  changed(*record, true);
  return true;
}

bool Engine::remove(std::string_view bundleID) {
  const auto found = apps_.find(bundleID);
  if (found == apps_.end()) return false;
  remember(bundleID);
  std::erase(queue_, bundleID);
  stopJob(bundleID);
  // What the daemon installed goes with the app.
  if (found->second.phase == Phase::managed || found->second.phase == Phase::updating)
    commands_.push_back(Command{Command::Kind::uninstall, 0, found->second});
  changes_.push_back(Change{std::move(found->second), true, true});
  apps_.erase(found);
  return true;
}

bool Engine::fail(std::string_view bundleID, ManagedAppStatus::Reason reason) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr) return false;
  remember(bundleID);
  std::erase(queue_, bundleID);
  stopJob(bundleID);
  record->phase = Phase::failed;
  record->progress = 0;
  record->reasons = {reason};
  changed(*record, true);
  return true;
}

std::size_t Engine::clearFailures() {
  std::size_t cleared = 0;
  for (auto& [bundleID, record] : apps_) {
    if (record.phase != Phase::failed) continue;
    remember(bundleID);
    record.phase = Phase::optional;
    record.reasons.clear();
    changed(record, true);
    ++cleared;
  }
  return cleared;
}

void Engine::stopJob(std::string_view bundleID) {
  const auto job = jobs_.find(bundleID);
  if (job == jobs_.end()) return;
  AppRecord stopped;
  stopped.bundleID = job->first;
  commands_.push_back(Command{Command::Kind::cancel, job->second, std::move(stopped)});
  jobs_.erase(job);
}

void Engine::apply(const InstallReport& report) {
  using Kind = InstallReport::Kind;
  if (report.kind == Kind::inventory) {
    noticeMissing(report.installedApps);
    return;
  }
  if (report.kind == Kind::updateAvailable) {
    AppRecord* installed = findMutable(report.bundleID);
    if (installed == nullptr || installed->phase != Phase::managed
        || std::ranges::find(installed->reasons, ManagedAppStatus::Reason::updateAvailable)
               != installed->reasons.end())
      return;
    remember(report.bundleID);
    installed->reasons.push_back(ManagedAppStatus::Reason::updateAvailable);
    changed(*installed, true);
    return;
  }
  const auto job = jobs_.find(report.bundleID);
  // A report about a job that was cancelled or replaced since.
  if (job == jobs_.end() || job->second != report.job) return;
  AppRecord* record = findMutable(report.bundleID);
  if (record == nullptr) return;
  remember(report.bundleID);
  const bool updating = record->phase == Phase::updating;
  switch (report.kind) {
    case Kind::progressed:
      record->progress = std::clamp(report.progress, 0.0, 1.0);
      changed(*record, false);
      return;
    case Kind::downloaded:
      // An update keeps showing its download complete while the new build is put in place.
      if (updating) return;
      record->phase = Phase::installing;
      record->progress = 0;
      break;
    case Kind::installed:
      record->phase = Phase::managed;
      record->progress = 0;
      record->reasons.clear();
      if (report.version) record->version = *report.version;
      jobs_.erase(job);
      break;
    case Kind::failed:
      // A failed update leaves the installed build; the app says its update failed.
      record->phase = updating ? Phase::managed : Phase::failed;
      record->progress = 0;
      if (updating) {
        dropReason(record->reasons, ManagedAppStatus::Reason::updateAvailable);
        record->reasons.push_back(ManagedAppStatus::Reason::updateFailed);
      } else {
        record->reasons = {report.reason};
      }
      jobs_.erase(job);
      break;
    case Kind::updateAvailable:
    case Kind::inventory:
      return;
  }
  changed(*record, true);
}

void Engine::noticeMissing(const std::set<std::string, std::less<>>& installed) {
  // Only a managed app can go missing: one the daemon uninstalls itself is optional (or gone)
  // before its backend touches the device.
  for (auto& [bundleID, record] : apps_) {
    if (record.phase != Phase::managed || installed.contains(bundleID)) continue;
    remember(bundleID);
    record.phase = Phase::managedButUninstalled;
    record.progress = 0;
    changed(record, true);
  }
}

void Engine::tick() {
  backend_.tick();
  update();
}

void Engine::update() {
  auto reports = backend_.takeReports();
  unapplied_.insert(unapplied_.end(), std::make_move_iterator(reports.begin()),
                    std::make_move_iterator(reports.end()));
  for (auto& report : std::exchange(unapplied_, {})) {
    apply(report);
    applied_.push_back(std::move(report));
  }
  std::size_t active = 0;
  for (const auto& [bundleID, record] : apps_)
    if (running(record.phase)) ++active;
  // Waiting installs start once a place is free, oldest first.
  while (active < settings_.parallelInstalls && !queue_.empty()) {
    const std::string next = queue_.front();
    remember(next);
    queue_.erase(queue_.begin());
    AppRecord* record = findMutable(next);
    if (record == nullptr || record->phase != Phase::waiting) continue;
    record->phase = Phase::downloading;
    record->progress = 0;
    const std::uint64_t job = nextJob_++;
    jobs_.insert_or_assign(next, job);
    commands_.push_back(Command{Command::Kind::start, job, *record});
    changed(*record, true);
    ++active;
  }
}

bool Engine::busy() const noexcept {
  return std::ranges::any_of(apps_, [](const auto& entry) { return underWay(entry.second.phase); });
}

std::vector<AppRecord> Engine::records() const {
  std::vector<AppRecord> all;
  all.reserve(apps_.size());
  for (const auto& [bundleID, record] : apps_) all.push_back(record);
  return all;
}

std::vector<Engine::Change> Engine::takeChanges() {
  before_.clear();
  queueBefore_.reset();
  jobsBefore_.reset();
  applied_.clear();
  for (auto& command : std::exchange(commands_, {})) {
    switch (command.kind) {
      case Command::Kind::start:
        backend_.start(command.job, command.record);
        break;
      case Command::Kind::cancel:
        backend_.cancel(command.job, command.record.bundleID);
        break;
      case Command::Kind::uninstall:
        backend_.uninstall(command.record);
        break;
    }
  }
  return std::exchange(changes_, {});
}

void Engine::rollback() {
  for (auto& [bundleID, record] : before_) {
    if (record)
      apps_.insert_or_assign(bundleID, std::move(*record));
    else
      apps_.erase(bundleID);
  }
  if (queueBefore_) queue_ = std::move(*queueBefore_);
  if (jobsBefore_) jobs_ = std::move(*jobsBefore_);
  before_.clear();
  queueBefore_.reset();
  jobsBefore_.reset();
  changes_.clear();
  commands_.clear();
  // What the backend reported still happened: it is applied again, before anything newer.
  applied_.insert(applied_.end(), std::make_move_iterator(unapplied_.begin()),
                  std::make_move_iterator(unapplied_.end()));
  unapplied_ = std::exchange(applied_, {});
}

}  // namespace corvane::sim
