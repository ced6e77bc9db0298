#pragma once

#include <corvane/model/AppState.hpp>
#include <corvane/model/ManagedAppStatus.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// Where an app's installation stands.
enum class Phase {
  optional,
  waiting,
  downloading,
  installing,
  managed,
  failed,
  /// Installed, and its update downloads and installs.
  updating,
  /// The daemon installed it, then it was taken off the device behind the daemon's back.
  managedButUninstalled,
};

/// "optional", "waiting", ... as stored in the database.
[[nodiscard]] std::string_view toString(Phase phase) noexcept;
[[nodiscard]] std::optional<Phase> phaseFromString(std::string_view text) noexcept;

/// One app the daemon looks after: the declaration (or request) that brought it, and where its
/// installation stands.
struct AppRecord {
  std::string bundleID;
  std::string declarationIdentifier;
  std::string declarationKey;
  std::string name;
  Phase phase = Phase::optional;
  /// Progress within `downloading`, `installing` or `updating`, 0 to 1.
  double progress = 0;
  std::vector<ManagedAppStatus::Reason> reasons;
  /// The version that gets installed (the catalogue's), when known.
  std::optional<std::int64_t> versionID;
  std::string version;
  /// Travels with every progress message about the app.
  boost::uuids::uuid uuid{};

  /// The compact state pushed to clients.
  [[nodiscard]] AppState appState() const;
  /// The status reported to `getDeclarationStatus`.
  [[nodiscard]] ManagedAppStatus status() const;

  friend bool operator==(const AppRecord&, const AppRecord&) = default;
};

}  // namespace corvane::sim
