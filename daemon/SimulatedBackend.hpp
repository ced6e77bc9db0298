#pragma once

#include "InstallBackend.hpp"

#include <corvane/model/ManagedAppStatus.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace corvane::sim {

/// How the simulated installs go.
struct SimulationSettings {
  /// Ticks a download takes (its progress moves by 1/downloadSteps a tick).
  int downloadSteps = 5;
  /// Ticks an installation takes once downloaded.
  int installSteps = 2;
  /// Apps whose install fails on purpose, with the reason reported. downloadFailed fails at the
  /// end of the download, every other reason at the end of the installation.
  std::map<std::string, ManagedAppStatus::Reason, std::less<>> failures;
};

/// A backend that installs nothing: each install moves one step further on every tick of the
/// daemon's clock, through downloading and installing, and ends installed (or failed, for the
/// apps set to fail). The embedded default, for demos and tests: it behaves the same on every
/// run and needs nothing from the device.
///
/// Not thread-safe: the engine's owner drives it.
class SimulatedBackend final : public InstallBackend {
 public:
  explicit SimulatedBackend(SimulationSettings settings = {});

  void start(std::uint64_t job, const AppRecord& app) override;
  void cancel(std::uint64_t job, const std::string& bundleID) override;
  void uninstall(const AppRecord& app) override;
  [[nodiscard]] std::vector<InstallReport> takeReports() override;
  void tick() override;

 private:
  struct Job {
    std::uint64_t number = 0;
    bool downloading = true;
    double progress = 0;
    std::string version;
  };

  SimulationSettings settings_;
  std::map<std::string, Job, std::less<>> jobs_;  // by bundle identifier: reports come in order
  std::vector<InstallReport> reports_;
};

}  // namespace corvane::sim
