#pragma once

#include "Catalog.hpp"
#include "Engine.hpp"
#include "InstallBackend.hpp"
#include "ManifestFetch.hpp"
#include "Options.hpp"
#include "Store.hpp"
#include "Worker.hpp"

#include <corvane/base/Bytes.hpp>
#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/Listener.hpp>
#include <corvane/ipc/RemoteProxy.hpp>
#include <corvane/platform/Log.hpp>
#include <corvane/push/MessageRegistration.hpp>
#include <corvane/push/TetherClientMessage.hpp>
#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
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
    std::string resumeToken;  // empty: the client cannot come back for its registrations
  };

  /// What an operation may do: only callers allowed to change state reach those that change it.
  enum class Effect { readsState, changesState, concernsCaller };
  /// Performs an operation for `caller`; returns the encoded reply, or throws Refusal,
  /// CodingError (a malformed argument) or StoreError.
  using Handler = Bytes (Daemon::*)(Client& caller, const std::optional<Bytes>& argument);
  /// Performs an operation that may answer later, when blocking work done on a worker is over:
  /// it returns the encoded reply now, or nothing once it has kept `reply` (`defer`) to answer
  /// it when the work is done. Throws as a Handler does, before it keeps the reply.
  using DeferringHandler = std::optional<Bytes> (Daemon::*)(Client& caller,
                                                            const std::optional<Bytes>& argument,
                                                            ipc::Reply& reply);
  /// One operation of the service, described once: its name, what it may do, what performs it
  /// (`handler`, or `deferring` for one that may answer later).
  struct Operation {
    std::string_view name;
    Effect effect;
    Handler handler = nullptr;
    DeferringHandler deferring = nullptr;
  };
  /// Every operation the daemon serves; each client's calls reach them through an
  /// ipc::OperationTable made from this list.
  static const std::array<Operation, 13> operations;

  // Clients and access (DaemonClients.cpp).
  void accept(ipc::Peer& peer);
  [[nodiscard]] bool mayChangeState(const ipc::PeerCredentials& credentials) const;
  void clientArrived(std::uint64_t id, const ipc::Peer& peer, bool mayChangeState);
  void clientGone(std::uint64_t id);
  /// The client greeted with `token`: it gets back the registrations remembered for it.
  void clientResumed(std::uint64_t id, const std::string& token);
  /// Remembers (or forgets) what a returning client registered, so a later connection of it
  /// gets it back. Returns false when the store refused.
  void rememberRegistrations(const Client& client,
                             const std::vector<MessageRegistration>& registrations, bool add);

  // Calls, on the io_context (Daemon.cpp).
  void dispatch(std::uint64_t clientID, const Operation& operation, std::optional<Bytes> argument,
                ipc::Reply reply);
  void answer(ipc::Reply reply, Bytes result);
  /// Runs `body`, the work of `operation`, and returns its reply: a refusal, a malformed
  /// argument or a store failure becomes a failure reply, and what the body began in the engine
  /// is undone. Nothing: the body kept the call's reply to answer later.
  std::optional<Bytes> perform(std::string_view operation, std::uint64_t clientID,
                               const std::function<std::optional<Bytes>()>& body);
  /// Keeps `reply` until `takeDeferred(ticket)`; the ticket is returned.
  std::uint64_t defer(ipc::Reply& reply);
  [[nodiscard]] std::optional<ipc::Reply> takeDeferred(std::uint64_t ticket);

  // The operations (DaemonOperations.cpp).
  Bytes addOrUpdate(Client& caller, const std::optional<Bytes>& argument);
  Bytes removeDeclaration(Client& caller, const std::optional<Bytes>& argument);
  Bytes declarationStatus(Client& caller, const std::optional<Bytes>& argument);
  Bytes declarationKeys(Client& caller, const std::optional<Bytes>& argument);
  Bytes resetHistory(Client& caller, const std::optional<Bytes>& argument);
  Bytes poll(Client& caller, const std::optional<Bytes>& argument);
  Bytes vppInstall(Client& caller, const std::optional<Bytes>& argument);
  std::optional<Bytes> enterpriseInstall(Client& caller, const std::optional<Bytes>& argument,
                                         ipc::Reply& reply);
  /// The manifest fetched for the call `ticket` came (or failed): its app is installed from it
  /// and the call answered.
  void manifestFetched(std::uint64_t ticket, const std::string& url,
                       const FetchedManifest& fetched);
  /// Records (when new) and installs the enterprise app `bundleID` named `name` from `url`.
  Bytes installEnterprise(const std::string& url, const std::string& bundleID,
                          const std::string& name, const std::function<void()>& extra = {});
  Bytes install(Client& caller, const std::optional<Bytes>& argument);
  Bytes cancel(Client& caller, const std::optional<Bytes>& argument);
  std::optional<Bytes> launch(Client& caller, const std::optional<Bytes>& argument,
                              ipc::Reply& reply);
  Bytes addRegistrations(Client& caller, const std::optional<Bytes>& argument);
  Bytes removeRegistrations(Client& caller, const std::optional<Bytes>& argument);
  [[nodiscard]] std::optional<std::string> bundleOfDeclaration(std::string_view identifier) const;
  /// The app the declaration (or request) `identifier` brought; throws a Refusal saying why
  /// there is none.
  [[nodiscard]] std::string appOfDeclaration(std::string_view identifier) const;
  /// Whether `bundleID` is on the device without the daemon having installed it (or installing
  /// it): a declaration of it fails with unmanagedAppAlreadyInstalled.
  [[nodiscard]] bool installedWithoutDaemon(const std::string& bundleID) const;

  // Pushes (DaemonPushes.cpp).
  void changeRegistrations(Client& client, const Bytes& argument, bool add);
  void sendCurrentState(Client& client, const MessageRegistration& registration);
  void send(Client& client, const std::vector<TetherClientMessage>& messages);
  /// Sends each client one batch: the changes of the apps it follows, in order.
  void push(const std::vector<Engine::Change>& changes);
  void publishCatalog();
  [[nodiscard]] std::vector<ManagedApp> catalogEntries() const;

  // State and time (Daemon.cpp).
  /// Stores the engine's changes (and `extra` store work) in one transaction, then pushes them.
  /// Every state-changing operation changes the engine first and then commits; when the store
  /// refuses, the engine's changes are undone and the StoreError goes on, so memory never holds
  /// what the disk does not. Declarations (`declarations_`) change only after the commit.
  void commit(const std::function<void()>& extra = {});
  void scheduleTick();
  /// Moves the engine on (a tick of the clock, or what the backend reported) and commits.
  void advance(bool tick);
  [[nodiscard]] std::unique_ptr<InstallBackend> makeBackend();
  /// Takes up the catalogue the backend's refresh found; false when there is none.
  bool takeCatalog();
  /// The backend has reports: an update is posted to the io_context. Any thread.
  void backendReported();
  void scheduleIdleCheck();
  void log(platform::LogLevel level, const std::string& line);

  boost::asio::io_context& io_;
  Options options_;
  Catalog catalog_;
  Store store_;
  // Set while an update for the backend's reports waits on the io_context; outlives the backend,
  // whose workers set it.
  std::atomic<bool> updatePosted_{false};
  std::unique_ptr<InstallBackend> backend_;
  Engine engine_;
  // Calls answered once their work on a worker is done, by ticket.
  std::map<std::uint64_t, ipc::Reply> deferred_;
  std::uint64_t nextTicket_ = 1;
  // Blocking work off the serving thread, one worker each so that a slow download never holds up
  // a launch; joined by stop(), before the backend they use goes.
  Worker fetches_;
  Worker launches_;
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
