#pragma once

#include "Catalog.hpp"
#include "Engine.hpp"
#include "InstallBackend.hpp"
#include "Options.hpp"
#include "Store.hpp"

#include <corvane/coding/Bytes.hpp>
#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/Listener.hpp>
#include <corvane/ipc/RemoteProxy.hpp>
#include <corvane/platform/Log.hpp>
#include <corvane/push/MessageRegistration.hpp>
#include <corvane/push/TetherClientMessage.hpp>
#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace corvane::sim {

/// The daemon: serves the agent's service protocol to any number of clients, keeps its state in
/// the store, runs the install engine on a timer and pushes what changes to the clients that
/// registered for it.
///
/// Threads: everything that touches the daemon's state runs on the io_context given to it (the
/// process runs it on one thread). The listener's workers only hand calls, arrivals and departures
/// over to it, so no lock guards the state.
class Daemon {
 public:
  /// Opens the store and takes up the state kept in it. Throws StoreError.
  Daemon(boost::asio::io_context& io, Options options, Catalog catalog);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Binds (or adopts) the socket and starts accepting. Throws std::system_error.
  void start();
  /// Stops accepting, closes every connection and cancels the timers, so that the io_context
  /// runs out of work. Idempotent; call it on the io_context's thread.
  void stop();

  /// Runs `handler` (on the io_context) once the daemon stops, whoever stopped it: the owner
  /// releases what else keeps the io_context busy (its signal set).
  void whenStopped(std::function<void()> handler) { stoppedHandler_ = std::move(handler); }

  [[nodiscard]] const std::filesystem::path& socketPath() const;
  [[nodiscard]] bool isActivated() const;

 private:
  struct Client {
    std::uint64_t id = 0;
    ipc::PeerCredentials credentials;
    bool mayChangeState = false;
    ipc::RemoteProxy proxy;
    std::unordered_set<MessageRegistration> registrations;
  };
  class Calls;

  // Arrivals, departures and calls, on the io_context.
  void clientArrived(std::uint64_t id, const ipc::Peer& peer, bool mayChangeState);
  void clientGone(std::uint64_t id);
  void dispatch(std::uint64_t clientID, const std::string& operation, std::optional<Bytes> argument,
                ipc::Reply reply);
  void answer(ipc::Reply reply, Bytes result);
  [[nodiscard]] Bytes perform(Client* client, std::string_view operation,
                              const std::optional<Bytes>& argument);

  // The operations; each returns the encoded reply.
  Bytes addOrUpdate(const Bytes& argument);
  Bytes removeDeclaration(const Bytes& argument);
  Bytes declarationStatus(const Bytes& argument) const;
  Bytes declarationKeys() const;
  Bytes resetHistory();
  Bytes poll();
  Bytes vppInstall(const Bytes& argument);
  Bytes enterpriseInstall(const Bytes& argument);
  Bytes install(const Bytes& argument);
  Bytes cancel(const Bytes& argument);
  Bytes launch(const Bytes& argument);
  Bytes changeRegistrations(Client* client, const Bytes& argument, bool add);

  /// Stores the engine's changes (and `extra` store work) in one transaction, then pushes them.
  /// Every state-changing operation changes the engine first and then commits; when the store
  /// refuses, the engine's changes are undone and the StoreError goes on, so memory never holds
  /// what the disk does not. Declarations (`declarations_`) change only after the commit.
  template <class Extra>
  void commit(Extra&& extra);
  void commit();
  void publishCatalog();
  void sendCurrentState(Client& client, const MessageRegistration& registration);
  void send(Client& client, const std::vector<TetherClientMessage>& messages);
  void scheduleTick();
  void scheduleIdleCheck();
  [[nodiscard]] std::vector<ManagedApp> catalogEntries() const;
  [[nodiscard]] std::optional<std::string> bundleOfDeclaration(std::string_view identifier) const;
  /// The app the declaration (or request) `identifier` brought; throws a Refusal saying why
  /// there is none.
  [[nodiscard]] std::string appOfDeclaration(std::string_view identifier) const;
  void log(platform::LogLevel level, const std::string& line);

  boost::asio::io_context& io_;
  Options options_;
  Catalog catalog_;
  Store store_;
  std::unique_ptr<InstallBackend> backend_;
  Engine engine_;
  std::map<std::string, ManagedAppDeclaration, std::less<>> declarations_;
  std::map<std::uint64_t, Client> clients_;
  std::atomic<std::uint64_t> nextClientID_{1};
  std::uint64_t repliesSent_ = 0;
  boost::asio::steady_timer tickTimer_;
  bool ticking_ = false;
  boost::asio::steady_timer idleTimer_;
  std::chrono::steady_clock::time_point idleSince_;
  std::optional<unsigned> allowedGroup_;
  std::unique_ptr<ipc::Listener> listener_;
  bool stopped_ = false;
  std::function<void()> stoppedHandler_;
};

}  // namespace corvane::sim
