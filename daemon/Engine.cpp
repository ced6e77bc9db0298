#include "Engine.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace corvane::sim {

namespace {

bool underWay(Phase phase) noexcept {
  return phase == Phase::waiting || phase == Phase::downloading || phase == Phase::installing;
}

// One step further on a scale of `steps`, computed from the step count so that repeated
// additions never drift past 1 or stop just short of it.
double stepped(double progress, int steps) {
  const double total = std::max(steps, 1);
  return std::min(1.0, (std::round(progress * total) + 1) / total);
}

}  // namespace

Engine::Engine(EngineSettings settings) : settings_(std::move(settings)) {}

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
  record->phase = Phase::optional;
  record->progress = 0;
  changed(*record, true);
  return true;
}

bool Engine::uninstall(std::string_view bundleID) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr || record->phase != Phase::managed) return false;
  remember(bundleID);
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
  changes_.push_back(Change{std::move(found->second), true, true});
  apps_.erase(found);
  return true;
}

bool Engine::fail(std::string_view bundleID, ManagedAppStatus::Reason reason) {
  AppRecord* record = findMutable(bundleID);
  if (record == nullptr) return false;
  remember(bundleID);
  std::erase(queue_, bundleID);
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

void Engine::finishStep(AppRecord& record) {
  const auto failure = settings_.failures.find(record.bundleID);
  const bool failsNow = failure != settings_.failures.end()
                        && ((failure->second == ManagedAppStatus::Reason::downloadFailed)
                            == (record.phase == Phase::downloading));
  if (failsNow) {
    record.phase = Phase::failed;
    record.progress = 0;
    record.reasons = {failure->second};
  } else if (record.phase == Phase::downloading) {
    record.phase = Phase::installing;
    record.progress = 0;
  } else {
    record.phase = Phase::managed;
    record.progress = 0;
    record.reasons.clear();
  }
}

void Engine::tick() {
  std::size_t active = 0;
  for (auto& [bundleID, record] : apps_) {
    if (record.phase != Phase::downloading && record.phase != Phase::installing) continue;
    remember(bundleID);
    const int steps =
        record.phase == Phase::downloading ? settings_.downloadSteps : settings_.installSteps;
    record.progress = stepped(record.progress, steps);
    const bool done = record.progress >= 1.0;
    if (done) finishStep(record);
    changed(record, done);
    if (record.phase == Phase::downloading || record.phase == Phase::installing) ++active;
  }
  // Waiting installs start once a place is free, oldest first.
  while (active < settings_.parallelInstalls && !queue_.empty()) {
    const std::string next = queue_.front();
    remember(next);
    queue_.erase(queue_.begin());
    AppRecord* record = findMutable(next);
    if (record == nullptr || record->phase != Phase::waiting) continue;
    record->phase = Phase::downloading;
    record->progress = 0;
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
  before_.clear();
  queueBefore_.reset();
  changes_.clear();
}

}  // namespace corvane::sim
