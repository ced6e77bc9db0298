#include "CodecTypes.hpp"

#include <corvane/Corvane.hpp>

#include <boost/json/serialize.hpp>
#include <fmt/format.h>

#include <array>
#include <concepts>

namespace corvane::codec {
namespace {

template <class T>
concept MemberText = requires(const T& value) {
  { value.description() } -> std::same_as<std::string>;
};
// Found by argument-dependent lookup: enum descriptions and list renderings.
template <class T>
concept FreeText = requires(const T& value) {
  { description(value) } -> std::convertible_to<std::string_view>;
};
template <class T>
concept FormattedText = fmt::is_formattable<T>::value;

template <class T>
inline constexpr bool hasText = MemberText<T> || FreeText<T> || FormattedText<T>;

template <class T>
std::string textOf(const T& value) {
  if constexpr (MemberText<T>) {
    return value.description();
  } else if constexpr (FreeText<T>) {
    return std::string(description(value));
  } else if constexpr (FormattedText<T>) {
    return fmt::format("{}", value);
  } else {
    return {};
  }
}

template <class T>
std::string handle(const boost::json::value& document, Mode mode) {
  const T value = coding::decode<T>(document);
  if (mode == Mode::text) return textOf(value) + "\n";
  // A type that codes as nothing has no document to write.
  if constexpr (coding::writesNothing<T>) {
    return {};
  } else {
    return boost::json::serialize(coding::encode(value)) + "\n";
  }
}

template <class T>
constexpr TypeEntry entry(std::string_view name) {
  return {name, hasText<T>, &handle<T>};
}

using Message = TetherClientMessage;

constexpr std::array types{
    // Replies and errors.
    entry<ServiceResult<None>>("ServiceResult<None>"),
    entry<ServiceResult<std::vector<std::string>>>("ServiceResult<[String]>"),
    entry<ServiceResult<std::vector<ManagedAppStatus>>>("ServiceResult<[ManagedAppStatus]>"),
    entry<CorvaneError>("CorvaneError"),
    // Wire value types.
    entry<TimePoint>("TimePoint"),
    entry<LanguageIdentifier>("LanguageIdentifier"),
    entry<InformationStorage>("InformationStorage"),
    entry<InformationStorage::Unit>("InformationStorage.Unit"),
    // Catalogue and status.
    entry<ManagedApp>("ManagedApp"),
    entry<ManagedApp::Artwork>("ManagedApp.Artwork"),
    entry<ManagedApp::Platform>("ManagedApp.Platform"),
    entry<Platform>("Platform"),
    entry<ManagedAppStatus>("ManagedAppStatus"),
    entry<ManagedAppStatus::State>("ManagedAppStatus.State"),
    entry<ManagedAppStatus::Reason>("ManagedAppStatus.Reason"),
    entry<ManagedAppStatus::UpdateState>("ManagedAppStatus.UpdateState"),
    entry<ManagedAppStatus::InstalledVersionInfo>("ManagedAppStatus.InstalledVersionInfo"),
    entry<AppState>("AppState"),
    entry<AppState::Availability>("AppState.Availability"),
    entry<ManagedAppInstallRequest>("ManagedAppInstallRequest"),
    // Declarations and requests.
    entry<ManagedAppDeclaration>("ManagedAppDeclaration"),
    entry<ManagementScope>("ManagementScope"),
    entry<InstallBehavior>("InstallBehavior"),
    entry<InstallTimingEnum>("InstallTimingEnum"),
    entry<PurchaseMethodEnum>("PurchaseMethodEnum"),
    entry<LicenseEnum>("LicenseEnum"),
    entry<BackupBehavior>("BackupBehavior"),
    entry<UpdateBehaviorEnum>("UpdateBehaviorEnum"),
    entry<UpdateBehavior>("UpdateBehavior"),
    entry<RemovalBehavior>("RemovalBehavior"),
    entry<StoreAppIdentifier>("StoreAppIdentifier"),
    entry<DDMAppOrUpdateManagedAppRequest>("DDMAppOrUpdateManagedAppRequest"),
    entry<DDMDeclarationStatusRequest>("DDMDeclarationStatusRequest"),
    entry<DDMDeclarationKeysRequest>("DDMDeclarationKeysRequest"),
    entry<ManagedAppCancelRequest>("ManagedAppCancelRequest"),
    entry<VPPInstallRequest>("VPPInstallRequest"),
    entry<VPPInstallRequest::RequestType>("VPPInstallRequest.RequestType"),
    entry<EnterpriseApp>("EnterpriseApp"),
    // Push channel.
    entry<MessageRegistration>("MessageRegistration"),
    entry<std::vector<MessageRegistration>>("[MessageRegistration]"),
    entry<Message>("TetherClientMessage"),
    entry<Message::MessageType>("TetherClientMessage.MessageType"),
    entry<std::vector<Message>>("[TetherClientMessage]"),
    entry<AppProgress>("AppProgress"),
    entry<LogKey>("LogKey"),
};

}  // namespace

std::span<const TypeEntry> codecTypes() noexcept {
  return types;
}

const TypeEntry* findCodecType(std::string_view name) noexcept {
  for (const auto& type : types) {
    if (type.name == name) return &type;
  }
  return nullptr;
}

}  // namespace corvane::codec
