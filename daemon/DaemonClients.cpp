#include "Daemon.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/push/TetherClientProtocol.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <boost/asio/post.hpp>
#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <unistd.h>

// Who the clients are and what they may do: arrivals, departures and the access rule.

namespace corvane::sim {

namespace asio = boost::asio;

namespace {

/// Whether the process `pid` (whose primary group is `gid`) belongs to `group`; its supplementary
/// groups come from /proc, as they were when it connected.
bool belongsTo(std::int32_t pid, std::uint32_t gid, unsigned group) {
  if (gid == group) return true;
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  std::string line;
  while (std::getline(status, line)) {
    if (!line.starts_with("Groups:")) continue;
    std::istringstream groups(line.substr(7));
    unsigned member = 0;
    while (groups >> member)
      if (member == group) return true;
  }
  return false;
}

/// A resume token as a log line can hold it: bytes outside printable ASCII escaped.
std::string printable(std::string_view token) {
  std::string text;
  for (const char c : token) {
    if (c >= 0x20 && c < 0x7F)
      text += c;
    else
      text += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
  return text;
}

}  // namespace

void Daemon::accept(ipc::Peer& peer) {
  const std::uint64_t id = nextClientID_++;
  const bool mayChange = mayChangeState(peer.credentials());
  // Each client's calls reach the operations through its own table, which knows who calls; the
  // facility answers a name that is not in the service's interface before it gets here.
  auto table = std::make_shared<ipc::OperationTable>();
  for (const Operation& operation : operations) {
    table->on(std::string(operation.name),
              [this, id, &operation](std::optional<Bytes> argument, ipc::Reply reply) {
                asio::post(io_, [this, id, &operation, argument = std::move(argument),
                                 reply = std::move(reply)]() mutable {
                  dispatch(id, operation, std::move(argument), std::move(reply));
                });
              });
  }
  peer.setExportedInterface(ServiceProtocol::interface());
  peer.setRemoteObjectInterface(TetherClientProtocolDescription::interface());
  peer.setExportedObject(std::move(table));
  peer.setGreetingHandler([this, id](const std::string& token) {
    asio::post(io_, [this, id, token] { clientResumed(id, token); });
  });
  peer.setInvalidationHandler([this, id] { asio::post(io_, [this, id] { clientGone(id); }); });
  // Posted before any of its calls can be, so the client is known when they arrive.
  asio::post(io_, [this, id, peer, mayChange] { clientArrived(id, peer, mayChange); });
}

bool Daemon::mayChangeState(const ipc::PeerCredentials& credentials) const {
  return credentials.uid == 0 || credentials.uid == ::geteuid()
         || (allowedGroup_ && belongsTo(credentials.pid, credentials.gid, *allowedGroup_));
}

void Daemon::clientArrived(std::uint64_t id, const ipc::Peer& peer, bool mayChangeState) {
  if (stopped_) return;
  Client client;
  client.id = id;
  client.credentials = peer.credentials();
  client.mayChangeState = mayChangeState;
  client.proxy = peer.remoteObjectProxy([id](const ipc::CallError& error) {
    LogCategory::daemon().info("push to client {} failed: {}", id, error.description());
  });
  auto& stored = clients_.insert_or_assign(id, std::move(client)).first->second;
  LogCategory::daemon().info("client {} connected (pid {}, uid {})", id, stored.credentials.pid,
                             stored.credentials.uid);
  send(stored, {TetherClientMessage{TetherClientMessage::MessageType::connectionEstablished()}});
}

void Daemon::clientGone(std::uint64_t id) {
  const auto found = clients_.find(id);
  if (found != clients_.end()) {
    const Client& client = found->second;
    if (!client.resumeToken.empty()) {
      try {
        // Its time away is counted from now.
        store_.touchClient(client.resumeToken, client.credentials.uid, secondsNow());
      } catch (const StoreError& e) {
        LogCategory::daemon().error("cannot mark client {} as gone: {}", id, e.what());
      }
    }
    clients_.erase(found);
    LogCategory::daemon().info("client {} went away", id);
  }
  idleSince_ = std::chrono::steady_clock::now();
}

void Daemon::clientResumed(std::uint64_t id, const std::string& token) {
  const auto found = clients_.find(id);
  if (stopped_ || found == clients_.end()) return;
  Client& client = found->second;
  client.resumeToken = token;
  std::vector<MessageRegistration> restored;
  try {
    for (const auto& coded : store_.registrationsOf(token, client.credentials.uid)) {
      try {
        restored.push_back(std::get<0>(
            TetherDecoder<MessageRegistration>::decode(Bytes(std::string_view(coded)))));
      } catch (const CodingError&) {
        // Written by this daemon, so never expected; one bad row costs only itself.
        LogCategory::daemon().error("client {}: a remembered registration does not decode", id);
      }
    }
    store_.touchClient(token, client.credentials.uid, secondsNow());
  } catch (const StoreError& e) {
    LogCategory::daemon().error("cannot restore the registrations of client {}: {}", id, e.what());
  }
  if (restored.empty()) return;
  // Whatever it missed comes at once, just as for a new registration.
  for (const auto& registration : restored)
    if (client.registrations.insert(registration).second) sendCurrentState(client, registration);
  LogCategory::daemon().info("client {} ({}) resumed with {}", id, printable(token),
                             description(restored));
}

}  // namespace corvane::sim
