#include "SimulatedBackend.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace corvane::sim {

namespace {

// One step further on a scale of `steps`, computed from the step count so that repeated
// additions never drift past 1 or stop just short of it.
double stepped(double progress, int steps) {
  const double total = std::max(steps, 1);
  return std::min(1.0, (std::round(progress * total) + 1) / total);
}

}  // namespace

SimulatedBackend::SimulatedBackend(SimulationSettings settings) : settings_(std::move(settings)) {}

void SimulatedBackend::start(std::uint64_t job, const AppRecord& app) {
  Job started;
  started.number = job;
  started.version = app.version;
  jobs_.insert_or_assign(app.bundleID, std::move(started));
}

void SimulatedBackend::cancel(std::uint64_t job, const std::string& bundleID) {
  const auto found = jobs_.find(bundleID);
  if (found != jobs_.end() && found->second.number == job) jobs_.erase(found);
}

void SimulatedBackend::uninstall(const AppRecord& /*app*/) {
  // Nothing was put on the device.
}

std::vector<InstallReport> SimulatedBackend::takeReports() {
  return std::exchange(reports_, {});
}

void SimulatedBackend::tick() {
  using Kind = InstallReport::Kind;
  for (auto entry = jobs_.begin(); entry != jobs_.end();) {
    auto& [bundleID, job] = *entry;
    InstallReport report;
    report.job = job.number;
    report.bundleID = bundleID;
    job.progress =
        stepped(job.progress, job.downloading ? settings_.downloadSteps : settings_.installSteps);
    if (job.progress < 1.0) {
      report.kind = Kind::progressed;
      report.progress = job.progress;
      reports_.push_back(std::move(report));
      ++entry;
      continue;
    }
    const auto failure = settings_.failures.find(bundleID);
    const bool failsNow =
        failure != settings_.failures.end()
        && ((failure->second == ManagedAppStatus::Reason::downloadFailed) == job.downloading);
    if (failsNow) {
      report.kind = Kind::failed;
      report.reason = failure->second;
      report.detail = "the simulation fails this install on purpose";
    } else if (job.downloading) {
      report.kind = Kind::downloaded;
      job.downloading = false;
      job.progress = 0;
      reports_.push_back(std::move(report));
      ++entry;
      continue;
    } else {
      report.kind = Kind::installed;
      report.version = job.version;
    }
    reports_.push_back(std::move(report));
    entry = jobs_.erase(entry);
  }
}

}  // namespace corvane::sim
