#include <corvane/service/RequestOperations.hpp>

namespace corvane {

void DDMAppOrUpdateManagedAppRequest::performSynchronously() const {
  ServiceConnection::withSyncService<None>(
      std::tuple(*this), service::detail::Send<&ServiceProtocol::addOrUpdateManagedApp>{});
}

void DDMRemoveManagedAppRequest::performSynchronously() const {
  ServiceConnection::withSyncService<None>(
      std::tuple(declarationIdentifier),
      service::detail::Send<&ServiceProtocol::removeManagedAppWithDeclarationIdentifier>{});
}

std::vector<ManagedAppStatus> DDMDeclarationStatusRequest::performSynchronously() const {
  return ServiceConnection::withSyncService<std::vector<ManagedAppStatus>>(
      std::tuple(*this), service::detail::Send<&ServiceProtocol::getDeclarationStatus>{});
}

std::vector<std::string> DDMDeclarationKeysRequest::performSynchronously() const {
  return ServiceConnection::withSyncService<std::vector<std::string>>(
      std::tuple(),
      service::detail::SendWithoutArgument<&ServiceProtocol::currentDeclarationKeys>{});
}

}  // namespace corvane
