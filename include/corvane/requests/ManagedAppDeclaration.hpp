#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/model/Platform.hpp>
#include <corvane/requests/InstallBehavior.hpp>
#include <corvane/requests/RemovalBehavior.hpp>
#include <corvane/requests/UpdateBehavior.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <optional>
#include <string>

namespace corvane {

/// Where a declaration applies. Coded case-keyed: {"system": {}} or {"user": {}}.
enum class ManagementScope { system, user };
BOOST_DESCRIBE_ENUM(ManagementScope, system, user)

/// Whether the app's data is backed up.
struct BackupBehavior {
  bool backupAppData = false;
};
BOOST_DESCRIBE_STRUCT(BackupBehavior, (), (backupAppData))

/// One declarative device-management app declaration. Every field is readable and writable.
/// Coded as a keyed record of its fields in order, "personaIdentifier" only when present.
struct ManagedAppDeclaration {
  std::string declarationKey;
  std::string declarationIdentifier;
  ManagementScope managementScope = ManagementScope::user;
  std::optional<std::string> personaIdentifier;
  InstallBehavior installBehavior;
  BackupBehavior backupBehavior;
  UpdateBehaviorEnum updateBehavior = UpdateBehaviorEnum::automaticallyUpdate();
  Platform platform;

  /// Every field, in order.
  ManagedAppDeclaration(std::string declarationKey, std::string declarationIdentifier,
                        ManagementScope managementScope,
                        std::optional<std::string> personaIdentifier,
                        InstallBehavior installBehavior, BackupBehavior backupBehavior,
                        UpdateBehaviorEnum updateBehavior, Platform platform);
  /// A declaration in the user scope.
  ManagedAppDeclaration(std::string declarationKey, std::string declarationIdentifier,
                        std::optional<std::string> personaIdentifier,
                        InstallBehavior installBehavior, BackupBehavior backupBehavior,
                        UpdateBehaviorEnum updateBehavior, Platform platform);
  /// A declaration in the user scope; `removalBehavior` is accepted and not kept.
  ManagedAppDeclaration(std::string declarationKey, std::string declarationIdentifier,
                        std::optional<std::string> personaIdentifier,
                        InstallBehavior installBehavior, BackupBehavior backupBehavior,
                        UpdateBehaviorEnum updateBehavior, RemovalBehavior removalBehavior,
                        Platform platform);
  /// A declaration in the user scope without a persona; `removalBehavior` is accepted and not
  /// kept.
  ManagedAppDeclaration(std::string declarationKey, std::string declarationIdentifier,
                        InstallBehavior installBehavior, BackupBehavior backupBehavior,
                        UpdateBehaviorEnum updateBehavior, RemovalBehavior removalBehavior,
                        Platform platform);

 private:
  // Decoding starts from an empty record and fills every field.
  friend struct coding::Access;
  ManagedAppDeclaration() = default;

 public:
  BOOST_DESCRIBE_CLASS(ManagedAppDeclaration, (),
                       (declarationKey, declarationIdentifier, managementScope, personaIdentifier,
                        installBehavior, backupBehavior, updateBehavior, platform),
                       (), ())
};

}  // namespace corvane
