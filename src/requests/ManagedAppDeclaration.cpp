#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <utility>

namespace corvane {

ManagedAppDeclaration::ManagedAppDeclaration(std::string key, std::string identifier,
                                             ManagementScope scope,
                                             std::optional<std::string> persona,
                                             InstallBehavior install, BackupBehavior backup,
                                             UpdateBehaviorEnum update, Platform target)
    : declarationKey(std::move(key)),
      declarationIdentifier(std::move(identifier)),
      managementScope(scope),
      personaIdentifier(std::move(persona)),
      installBehavior(std::move(install)),
      backupBehavior(backup),
      updateBehavior(update),
      platform(target) {}

ManagedAppDeclaration::ManagedAppDeclaration(std::string key, std::string identifier,
                                             std::optional<std::string> persona,
                                             InstallBehavior install, BackupBehavior backup,
                                             UpdateBehaviorEnum update, Platform target)
    : ManagedAppDeclaration(std::move(key), std::move(identifier), ManagementScope::user,
                            std::move(persona), std::move(install), backup, update, target) {}

ManagedAppDeclaration::ManagedAppDeclaration(std::string key, std::string identifier,
                                             std::optional<std::string> persona,
                                             InstallBehavior install, BackupBehavior backup,
                                             UpdateBehaviorEnum update,
                                             RemovalBehavior /*removalBehavior*/, Platform target)
    : ManagedAppDeclaration(std::move(key), std::move(identifier), ManagementScope::user,
                            std::move(persona), std::move(install), backup, update, target) {}

ManagedAppDeclaration::ManagedAppDeclaration(std::string key, std::string identifier,
                                             InstallBehavior install, BackupBehavior backup,
                                             UpdateBehaviorEnum update,
                                             RemovalBehavior /*removalBehavior*/, Platform target)
    : ManagedAppDeclaration(std::move(key), std::move(identifier), ManagementScope::user,
                            std::nullopt, std::move(install), backup, update, target) {}

}  // namespace corvane
