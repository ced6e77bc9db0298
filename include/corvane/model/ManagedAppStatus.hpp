#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/RawValue.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

/// The daemon's report on one declared app: the declaration that manages it, where its
/// installation stands, why, and which version is installed. Every field is assignable.
struct ManagedAppStatus {
  /// Where the installation stands. Coded as its raw value, the case name.
  enum class State {
    optional,
    queued,
    promptingForConsent,
    promptingForLogin,
    promptingForManagement,
    downloading,
    installing,
    managed,
    managedButUninstalled,
    failed,
  };
  BOOST_DESCRIBE_NESTED_ENUM(State, optional, queued, promptingForConsent, promptingForLogin,
                             promptingForManagement, downloading, installing, managed,
                             managedButUninstalled, failed)

  /// Why the app is in its state. Coded as its raw value, the case name.
  enum class Reason {
    unmanagedAppAlreadyInstalled,
    duplicateConfiguredApp,
    quillmartDisabled,
    couldNotVerifyAppID,
    notAnApp,
    notSupported,
    licenseNotFound,
    downloadFailed,
    installFailed,
    userRejected,
    updateAvailable,
    updateFailed,
  };
  BOOST_DESCRIBE_NESTED_ENUM(Reason, unmanagedAppAlreadyInstalled, duplicateConfiguredApp,
                             quillmartDisabled, couldNotVerifyAppID, notAnApp, notSupported,
                             licenseNotFound, downloadFailed, installFailed, userRejected,
                             updateAvailable, updateFailed)

  /// Where an update stands. Coded as its raw value, the case name.
  enum class UpdateState {
    available,
    promptingForUpdate,
    promptingForUpdateLogin,
    updating,
    failed
  };
  BOOST_DESCRIBE_NESTED_ENUM(UpdateState, available, promptingForUpdate, promptingForUpdateLogin,
                             updating, failed)

  /// The installed build.
  struct InstalledVersionInfo {
    /// The store's identifier of the installed version, when the daemon reports one.
    std::optional<std::int64_t> pomeralVersionID;
    std::string bundleVersion;
    std::string bundleShortVersion;

    BOOST_DESCRIBE_CLASS(InstalledVersionInfo, (),
                         (pomeralVersionID, bundleVersion, bundleShortVersion), (), ())
  };

  std::string bundleID;
  /// The declaration that manages the app, by its identifier and its key.
  std::string declarationIdentifier;
  std::string declarationKey;
  State state = State::optional;
  std::optional<UpdateState> updateState;  ///< absent when there is no update to report
  std::vector<Reason> reasons;             ///< in the daemon's order; may be empty
  std::string name;                        ///< the app's display name
  std::optional<InstalledVersionInfo> installedVersionInfo;  ///< absent when no build is reported

  BOOST_DESCRIBE_CLASS(ManagedAppStatus, (),
                       (bundleID, declarationIdentifier, declarationKey, state, updateState,
                        reasons, name, installedVersionInfo),
                       (), ())
};

/// The raw value of a state, reason or update state: its case name.
[[nodiscard]] constexpr std::string_view rawValue(ManagedAppStatus::State value) noexcept {
  return coding::caseNameOf(value);
}
[[nodiscard]] constexpr std::string_view rawValue(ManagedAppStatus::Reason value) noexcept {
  return coding::caseNameOf(value);
}
[[nodiscard]] constexpr std::string_view rawValue(ManagedAppStatus::UpdateState value) noexcept {
  return coding::caseNameOf(value);
}

/// The case whose raw value is exactly `raw` (case-sensitive); empty for any other string.
template <class E>
requires std::same_as<E, ManagedAppStatus::State> || std::same_as<
    E, ManagedAppStatus::Reason> || std::same_as<E, ManagedAppStatus::UpdateState>
[[nodiscard]] constexpr std::optional<E> fromRawValue(std::string_view raw) noexcept {
  return coding::fromCaseName<E>(raw);
}

}  // namespace corvane

namespace corvane::coding {
template <>
inline constexpr EnumCoding enumCoding<ManagedAppStatus::State> = EnumCoding::stringRawValue;
template <>
inline constexpr EnumCoding enumCoding<ManagedAppStatus::Reason> = EnumCoding::stringRawValue;
template <>
inline constexpr EnumCoding enumCoding<ManagedAppStatus::UpdateState> = EnumCoding::stringRawValue;
}  // namespace corvane::coding
