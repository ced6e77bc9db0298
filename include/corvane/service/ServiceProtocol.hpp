#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <array>
#include <string_view>

namespace corvane {

/// The named service of the agent that answers `ServiceProtocol`.
inline constexpr std::string_view agentServiceName = "dev.corvane.corvaneagent";

/// The daemon's remote protocol: 13 operations, each taking at most one argument buffer and
/// answering with one buffer holding an encoded `ServiceResult`. A typed proxy: one member
/// function per operation. Each call's `completion` runs exactly once, with the reply buffer or
/// the connection's error (see `ipc::RemoteProxy` for where and when).
class ServiceProtocol : public ipc::ProtocolProxy<ServiceProtocol> {
 public:
  static constexpr std::string_view protocolName = "ServiceProtocol";

  /// The operations, by the selector names that cross the connection.
  struct Selectors {
    static constexpr ipc::Operation installManagedApp{"installManagedApp:reply:"};
    static constexpr ipc::Operation cancelManagedApp{"cancelManagedApp:reply:"};
    static constexpr ipc::Operation handleLaunchAppRequest{"handleLaunchAppRequest:reply:"};
    static constexpr ipc::Operation getDeclarationStatus{"getDeclarationStatus:reply:"};
    static constexpr ipc::Operation removeManagedAppWithDeclarationIdentifier{
        "removeManagedAppWithDeclarationIdentifier:reply:"};
    static constexpr ipc::Operation handleVPPInstallRequest{"handleVPPInstallRequest:reply:"};
    static constexpr ipc::Operation resetManagedAppInstallHistory{
        "resetManagedAppInstallHistoryWithReply:", ipc::OperationShape::replyOnly};
    static constexpr ipc::Operation pollForMediaAPIUpdates{"pollForMediaAPIUpdatesWithReply:",
                                                           ipc::OperationShape::replyOnly};
    static constexpr ipc::Operation installEnterpriseManifest{"installEnterpriseManifest:reply:"};
    static constexpr ipc::Operation currentDeclarationKeys{"currentDeclarationKeysWithReply:",
                                                           ipc::OperationShape::replyOnly};
    static constexpr ipc::Operation addOrUpdateManagedApp{"addOrUpdateManagedApp:reply:"};
    static constexpr ipc::Operation addMessageRegistrations{"addMessageRegistrations:reply:"};
    static constexpr ipc::Operation removeMessageRegistrations{"removeMessageRegistrations:reply:"};
  };

  static constexpr std::array operations{Selectors::installManagedApp,
                                         Selectors::cancelManagedApp,
                                         Selectors::handleLaunchAppRequest,
                                         Selectors::getDeclarationStatus,
                                         Selectors::removeManagedAppWithDeclarationIdentifier,
                                         Selectors::handleVPPInstallRequest,
                                         Selectors::resetManagedAppInstallHistory,
                                         Selectors::pollForMediaAPIUpdates,
                                         Selectors::installEnterpriseManifest,
                                         Selectors::currentDeclarationKeys,
                                         Selectors::addOrUpdateManagedApp,
                                         Selectors::addMessageRegistrations,
                                         Selectors::removeMessageRegistrations};

  using ProtocolProxy::ProtocolProxy;

  // One member per operation, named after it: each sends its argument buffer (the reply-only
  // operations send none) and returns without waiting unless the proxy is synchronous.
  void installManagedApp(Bytes argument, ipc::Completion reply) const {
    call(Selectors::installManagedApp, std::move(argument), std::move(reply));
  }
  void cancelManagedApp(Bytes argument, ipc::Completion reply) const {
    call(Selectors::cancelManagedApp, std::move(argument), std::move(reply));
  }
  void handleLaunchAppRequest(Bytes argument, ipc::Completion reply) const {
    call(Selectors::handleLaunchAppRequest, std::move(argument), std::move(reply));
  }
  void getDeclarationStatus(Bytes argument, ipc::Completion reply) const {
    call(Selectors::getDeclarationStatus, std::move(argument), std::move(reply));
  }
  void removeManagedAppWithDeclarationIdentifier(Bytes argument, ipc::Completion reply) const {
    call(Selectors::removeManagedAppWithDeclarationIdentifier, std::move(argument),
         std::move(reply));
  }
  void handleVPPInstallRequest(Bytes argument, ipc::Completion reply) const {
    call(Selectors::handleVPPInstallRequest, std::move(argument), std::move(reply));
  }
  void resetManagedAppInstallHistory(ipc::Completion reply) const {
    call(Selectors::resetManagedAppInstallHistory, std::nullopt, std::move(reply));
  }
  void pollForMediaAPIUpdates(ipc::Completion reply) const {
    call(Selectors::pollForMediaAPIUpdates, std::nullopt, std::move(reply));
  }
  void installEnterpriseManifest(Bytes argument, ipc::Completion reply) const {
    call(Selectors::installEnterpriseManifest, std::move(argument), std::move(reply));
  }
  void currentDeclarationKeys(ipc::Completion reply) const {
    call(Selectors::currentDeclarationKeys, std::nullopt, std::move(reply));
  }
  void addOrUpdateManagedApp(Bytes argument, ipc::Completion reply) const {
    call(Selectors::addOrUpdateManagedApp, std::move(argument), std::move(reply));
  }
  void addMessageRegistrations(Bytes argument, ipc::Completion reply) const {
    call(Selectors::addMessageRegistrations, std::move(argument), std::move(reply));
  }
  void removeMessageRegistrations(Bytes argument, ipc::Completion reply) const {
    call(Selectors::removeMessageRegistrations, std::move(argument), std::move(reply));
  }
};

/// The callback protocol a client exports to the daemon: `handleMessages:`, one buffer in (a
/// batch of pushed messages), nothing out.
struct TetherClientProtocolDescription {
  static constexpr std::string_view protocolName = "TetherClientProtocol";
  static constexpr ipc::Operation handleMessages{"handleMessages:", ipc::OperationShape::oneWay};
  static constexpr std::array operations{handleMessages};
  /// The interface description, made anew on each call.
  [[nodiscard]] static ipc::InterfaceDescription interface() {
    return ipc::ProtocolProxy<TetherClientProtocolDescription>::interface();
  }
};

}  // namespace corvane
