#include "Daemon.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/push/AppProgress.hpp>
#include <corvane/push/MessageSending.hpp>
#include <corvane/push/TetherClientProtocol.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <boost/uuid/uuid_io.hpp>
#include <fmt/format.h>

#include <type_traits>
#include <variant>

// What the daemon pushes to the clients that registered for it: the catalogue, the state of
// the apps they follow, and what changed.

namespace corvane::sim {

namespace {

/// Pushes to one client through its proxy.
class PeerReceiver final : public TetherClientProtocol {
 public:
  explicit PeerReceiver(const ipc::RemoteProxy& proxy) : proxy_(proxy) {}
  void handleMessages(Bytes messages) override {
    proxy_.send(TetherClientProtocolDescription::handleMessages.name, std::move(messages));
  }

 private:
  const ipc::RemoteProxy& proxy_;
};

}  // namespace

void Daemon::send(Client& client, const std::vector<TetherClientMessage>& messages) {
  PeerReceiver receiver(client.proxy);
  corvane::send(receiver, messages);
}

void Daemon::changeRegistrations(Client& client, const Bytes& argument, bool add) {
  auto [registrations, clientUUID] =
      TetherDecoder<std::vector<MessageRegistration>, boost::uuids::uuid>::decode(argument);
  for (const auto& registration : registrations) {
    if (!add) {
      client.registrations.erase(registration);
      continue;
    }
    if (client.registrations.insert(registration).second) sendCurrentState(client, registration);
  }
  if (!client.resumeToken.empty()) rememberRegistrations(client, registrations, add);
  // Once they are remembered: whoever reads this line may count on a restart giving them back.
  LogCategory::daemon().info("client {} ({}) {} {}", client.id, boost::uuids::to_string(clientUUID),
                             add ? "registered" : "withdrew", description(registrations));
}

void Daemon::rememberRegistrations(const Client& client,
                                   const std::vector<MessageRegistration>& registrations,
                                   bool add) {
  try {
    store_.transaction([&] {
      for (const auto& registration : registrations) {
        const auto coded = TetherEncoder::encode(registration);
        const std::string_view text = coded.view();
        if (!add) {
          store_.forgetRegistration(client.resumeToken, client.credentials.uid, text);
        } else if (!store_.rememberRegistration(client.resumeToken, client.credentials.uid, text,
                                                secondsNow())) {
          LogCategory::daemon().error(
              "client {} has {} registrations remembered already; {} is served but not "
              "remembered",
              client.id, Store::maxRegistrationsPerClient, description({registration}));
        }
      }
    });
  } catch (const StoreError& e) {
    // The registrations are served all the same; only a later return would miss them.
    LogCategory::daemon().error("cannot remember the registrations of client {}: {}", client.id,
                                e.what());
  }
}

void Daemon::sendCurrentState(Client& client, const MessageRegistration& registration) {
  std::vector<TetherClientMessage> messages;
  const auto progressOf = [](const AppRecord& record) {
    return TetherClientMessage{TetherClientMessage::MessageType::appProgress(
        AppProgress{record.appState(), record.bundleID, record.uuid})};
  };
  std::visit(
      [&]<class Case>(const Case& which) {
        if constexpr (std::is_same_v<Case, MessageRegistration::AppCatalog>) {
          messages.push_back(TetherClientMessage{
              TetherClientMessage::MessageType::managedAppCatalog(catalogEntries(), std::nullopt)});
        } else if constexpr (std::is_same_v<Case, MessageRegistration::AppStateChangeByBundleID>) {
          if (const AppRecord* record = engine_.find(which.bundleID)) {
            messages.push_back(progressOf(*record));
          } else if (catalog_.findBundle(which.bundleID) != nullptr) {
            // A catalogue app nobody has asked for yet: it can be obtained.
            messages.push_back(TetherClientMessage{TetherClientMessage::MessageType::appProgress(
                AppProgress{AppState::available(AppState::Availability::available), which.bundleID,
                            boost::uuids::uuid{}})});
          }
        } else if constexpr (std::is_same_v<Case, MessageRegistration::GlobalAppProgress>) {
          for (const auto& record : engine_.records())
            if (record.phase != Phase::managed && record.phase != Phase::optional)
              messages.push_back(progressOf(record));
        }
      },
      registration.cases());
  if (!messages.empty()) send(client, messages);
}

std::vector<ManagedApp> Daemon::catalogEntries() const {
  std::vector<ManagedApp> entries;
  for (const auto& [identifier, declaration] : declarations_) {
    const auto bundleID = bundleOfDeclaration(identifier);
    if (!bundleID) continue;
    if (auto entry = catalog_.entryFor(*bundleID, identifier)) entries.push_back(std::move(*entry));
  }
  return entries;
}

void Daemon::publishCatalog() {
  const auto registration = MessageRegistration::appCatalog();
  std::optional<TetherClientMessage> message;
  for (auto& [id, client] : clients_) {
    if (!client.registrations.contains(registration)) continue;
    if (!message)
      message = TetherClientMessage{
          TetherClientMessage::MessageType::managedAppCatalog(catalogEntries(), std::nullopt)};
    send(client, {*message});
  }
}

void Daemon::push(const std::vector<Engine::Change>& changes) {
  const auto global = MessageRegistration::globalAppProgress();
  for (auto& [id, client] : clients_) {
    std::vector<TetherClientMessage> batch;
    for (const auto& change : changes) {
      if (!client.registrations.contains(global)
          && !client.registrations.contains(
              MessageRegistration::appStateChangeByBundleID(change.record.bundleID)))
        continue;
      const AppState state = change.removed
                                 ? AppState::available(AppState::Availability::redownload)
                                 : change.record.appState();
      batch.push_back(TetherClientMessage{TetherClientMessage::MessageType::appProgress(
          AppProgress{state, change.record.bundleID, change.record.uuid})});
    }
    if (!batch.empty()) send(client, batch);
  }
}

}  // namespace corvane::sim
