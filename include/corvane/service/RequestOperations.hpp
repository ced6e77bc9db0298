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

namespace service::detail {

/// A body that calls one operation of the proxy with the argument buffer.
template <auto Operation>
struct Send {
  void operator()(const ServiceProtocol& proxy, Bytes argument, ipc::Completion reply) const {
    (proxy.*Operation)(std::move(argument), std::move(reply));
  }
};
/// A body that calls one reply-only operation: the (empty) argument list is not sent.
template <auto Operation>
struct SendWithoutArgument {
  void operator()(const ServiceProtocol& proxy, const Bytes& /*argument*/,
                  ipc::Completion reply) const {
    (proxy.*Operation)(std::move(reply));
  }
};

}  // namespace service::detail

template <class CompletionToken>
auto DDMAppOrUpdateManagedAppRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(*this), service::detail::Send<&ServiceProtocol::addOrUpdateManagedApp>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto DDMRemoveManagedAppRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(declarationIdentifier),
      service::detail::Send<&ServiceProtocol::removeManagedAppWithDeclarationIdentifier>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto DDMDeclarationStatusRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<std::vector<ManagedAppStatus>>(
      std::tuple(*this), service::detail::Send<&ServiceProtocol::getDeclarationStatus>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto DDMDeclarationKeysRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<std::vector<std::string>>(
      std::tuple(),
      service::detail::SendWithoutArgument<&ServiceProtocol::currentDeclarationKeys>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto DDMResetManagedAppInstallHistoryRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(),
      service::detail::SendWithoutArgument<&ServiceProtocol::resetManagedAppInstallHistory>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto DDMPollForUpdatesRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(),
      service::detail::SendWithoutArgument<&ServiceProtocol::pollForMediaAPIUpdates>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto VPPInstallRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(*this), service::detail::Send<&ServiceProtocol::handleVPPInstallRequest>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto InstallEnterpriseManifestRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(app()), service::detail::Send<&ServiceProtocol::installEnterpriseManifest>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto AppLaunchRequest::perform(CompletionToken&& token) const {
  return ServiceConnection::withAsyncService<None>(
      std::tuple(bundleID), service::detail::Send<&ServiceProtocol::handleLaunchAppRequest>{},
      std::forward<CompletionToken>(token));
}

template <class CompletionToken>
auto ManagedApp::launch(CompletionToken&& token) const {
  return AppLaunchRequest{bundleID()}.perform(std::forward<CompletionToken>(token));
}

}  // namespace corvane
