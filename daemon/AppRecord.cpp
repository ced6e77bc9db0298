#include "AppRecord.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace corvane::sim {

namespace {
constexpr std::array<std::pair<Phase, std::string_view>, 8> phaseNames{{
    {Phase::optional, "optional"},
    {Phase::waiting, "waiting"},
    {Phase::downloading, "downloading"},
    {Phase::installing, "installing"},
    {Phase::managed, "managed"},
    {Phase::failed, "failed"},
    {Phase::updating, "updating"},
    {Phase::managedButUninstalled, "managedButUninstalled"},
}};
}  // namespace

std::string_view toString(Phase phase) noexcept {
  for (const auto& [value, name] : phaseNames)
    if (value == phase) return name;
  return "optional";
}

std::optional<Phase> phaseFromString(std::string_view text) noexcept {
  for (const auto& [value, name] : phaseNames)
    if (name == text) return value;
  return std::nullopt;
}

AppState AppRecord::appState() const {
  switch (phase) {
    case Phase::waiting:
      return AppState::waiting();
    case Phase::downloading:
    case Phase::updating:  // the new build downloads and installs over the installed one
      return AppState::downloading(progress);
    case Phase::installing:
      return AppState::installing(progress);
    case Phase::managed:
      return AppState::managed();
    case Phase::optional:
    case Phase::failed:
    case Phase::managedButUninstalled:
      break;
  }
  // Not on the device: it can be obtained.
  return AppState::available(AppState::Availability::available);
}

ManagedAppStatus AppRecord::status() const {
  ManagedAppStatus status;
  status.bundleID = bundleID;
  status.declarationIdentifier = declarationIdentifier;
  status.declarationKey = declarationKey;
  status.name = name;
  status.reasons = reasons;
  switch (phase) {
    case Phase::optional:
      status.state = ManagedAppStatus::State::optional;
      break;
    case Phase::waiting:
      status.state = ManagedAppStatus::State::queued;
      break;
    case Phase::downloading:
      status.state = ManagedAppStatus::State::downloading;
      break;
    case Phase::installing:
      status.state = ManagedAppStatus::State::installing;
      break;
    case Phase::managed:
    case Phase::updating:
      status.state = ManagedAppStatus::State::managed;
      status.installedVersionInfo =
          ManagedAppStatus::InstalledVersionInfo{versionID, version, version};
      if (phase == Phase::updating)
        status.updateState = ManagedAppStatus::UpdateState::updating;
      else if (std::ranges::find(reasons, ManagedAppStatus::Reason::updateFailed) != reasons.end())
        status.updateState = ManagedAppStatus::UpdateState::failed;
      else if (std::ranges::find(reasons, ManagedAppStatus::Reason::updateAvailable)
               != reasons.end())
        status.updateState = ManagedAppStatus::UpdateState::available;
      break;
    case Phase::failed:
      status.state = ManagedAppStatus::State::failed;
      break;
    case Phase::managedButUninstalled:
      status.state = ManagedAppStatus::State::managedButUninstalled;
      break;
  }
  return status;
}

}  // namespace corvane::sim
