#include <corvane/service/RequestOperations.hpp>

namespace corvane {

namespace {
using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;
}  // namespace

void DDMAppOrUpdateManagedAppRequest::performSynchronously() const {
  ServiceConnection::withSyncService<None>(
      std::tuple(*this),
      service::detail::Call<ServiceProtocol::Selectors::addOrUpdateManagedApp>{});
}

void DDMAppOrUpdateManagedAppRequest::performSynchronously(Clock::duration timeout) const {
  ServiceConnection::withSyncService<None>(
      std::tuple(*this), service::detail::Call<ServiceProtocol::Selectors::addOrUpdateManagedApp>{},
      Deadline(Clock::now() + timeout));
}

void DDMRemoveManagedAppRequest::performSynchronously() const {
  ServiceConnection::withSyncService<None>(
      std::tuple(declarationIdentifier),
      service::detail::Call<
          ServiceProtocol::Selectors::removeManagedAppWithDeclarationIdentifier>{});
}

void DDMRemoveManagedAppRequest::performSynchronously(Clock::duration timeout) const {
  ServiceConnection::withSyncService<None>(
      std::tuple(declarationIdentifier),
      service::detail::Call<
          ServiceProtocol::Selectors::removeManagedAppWithDeclarationIdentifier>{},
      Deadline(Clock::now() + timeout));
}

std::vector<ManagedAppStatus> DDMDeclarationStatusRequest::performSynchronously() const {
  return ServiceConnection::withSyncService<std::vector<ManagedAppStatus>>(
      std::tuple(*this), service::detail::Call<ServiceProtocol::Selectors::getDeclarationStatus>{});
}

std::vector<ManagedAppStatus> DDMDeclarationStatusRequest::performSynchronously(
    Clock::duration timeout) const {
  return ServiceConnection::withSyncService<std::vector<ManagedAppStatus>>(
      std::tuple(*this), service::detail::Call<ServiceProtocol::Selectors::getDeclarationStatus>{},
      Deadline(Clock::now() + timeout));
}

std::vector<std::string> DDMDeclarationKeysRequest::performSynchronously() const {
  return ServiceConnection::withSyncService<std::vector<std::string>>(
      std::tuple(), service::detail::Call<ServiceProtocol::Selectors::currentDeclarationKeys>{});
}

std::vector<std::string> DDMDeclarationKeysRequest::performSynchronously(
    Clock::duration timeout) const {
  return ServiceConnection::withSyncService<std::vector<std::string>>(
      std::tuple(), service::detail::Call<ServiceProtocol::Selectors::currentDeclarationKeys>{},
      Deadline(Clock::now() + timeout));
}

}  // namespace corvane
