#pragma once

// The operations by which each request record sends itself to the daemon. The records are
// declared below the service layer; their token-taking operations are defined here, above it, so
// that the includes keep pointing one way and only code that sends requests sees Asio.

#include <corvane/model/ManagedApp.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/requests/AppLaunchRequest.hpp>
#include <corvane/requests/DDMAppOrUpdateManagedAppRequest.hpp>
#include <corvane/requests/DDMDeclarationKeysRequest.hpp>
#include <corvane/requests/DDMDeclarationStatusRequest.hpp>
#include <corvane/requests/DDMPollForUpdatesRequest.hpp>
#include <corvane/requests/DDMRemoveManagedAppRequest.hpp>
#include <corvane/requests/DDMResetManagedAppInstallHistoryRequest.hpp>
#include <corvane/requests/InstallEnterpriseManifestRequest.hpp>
#include <corvane/requests/VPPInstallRequest.hpp>
#include <corvane/service/ServiceConnection.hpp>

#include <string>
#include <tuple>
#include <vector>

namespace corvane {

template <ServiceToken<None> CompletionToken>
auto DDMAppOrUpdateManagedAppRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(*this), service::detail::Call<ServiceProtocol::Selectors::addOrUpdateManagedApp>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto DDMRemoveManagedAppRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(declarationIdentifier),
      service::detail::Call<
          ServiceProtocol::Selectors::removeManagedAppWithDeclarationIdentifier>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<std::vector<ManagedAppStatus>> CompletionToken>
auto DDMDeclarationStatusRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<std::vector<ManagedAppStatus>>(
      std::tuple(*this), service::detail::Call<ServiceProtocol::Selectors::getDeclarationStatus>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<std::vector<std::string>> CompletionToken>
auto DDMDeclarationKeysRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<std::vector<std::string>>(
      std::tuple(), service::detail::Call<ServiceProtocol::Selectors::currentDeclarationKeys>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto DDMResetManagedAppInstallHistoryRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(),
      service::detail::Call<ServiceProtocol::Selectors::resetManagedAppInstallHistory>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto DDMPollForUpdatesRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(), service::detail::Call<ServiceProtocol::Selectors::pollForMediaAPIUpdates>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto VPPInstallRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(*this),
      service::detail::Call<ServiceProtocol::Selectors::handleVPPInstallRequest>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto InstallEnterpriseManifestRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(app()),
      service::detail::Call<ServiceProtocol::Selectors::installEnterpriseManifest>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto AppLaunchRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(bundleID),
      service::detail::Call<ServiceProtocol::Selectors::handleLaunchAppRequest>{},
      std::forward<CompletionToken>(token));
}

template <ServiceToken<None> CompletionToken>
auto ManagedApp::launch(CompletionToken&& token) const {
  return AppLaunchRequest{bundleID()}.perform(std::forward<CompletionToken>(token));
}

}  // namespace corvane
