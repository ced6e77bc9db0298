#pragma once

#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace corvane::ipc {

namespace detail {
class Channel;
class ListenerCore;
}  // namespace detail

/// Who is on the other end of an accepted connection (SO_PEERCRED at accept time).
struct PeerCredentials {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

/// One accepted client connection, as the service sees it. A cheap copyable handle; usable from
/// any thread. Configure it in the listener's connection handler: what is set there applies
/// before the client's first call is dispatched.
class Peer {
 public:
  [[nodiscard]] const PeerCredentials& credentials() const noexcept;

  /// The interface incoming calls are checked against (FAULT for anything outside it).
  void setExportedInterface(InterfaceDescription interface);
  /// The object the client's calls are dispatched to, on this peer's delivery executor.
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  /// The interface of the client's exported object, checked by proxies made afterwards.
  void setRemoteObjectInterface(InterfaceDescription interface);
  /// Runs on this peer's delivery executor when the client's greeting carries a resume token
  /// (opaque bytes, at most `maxResumeTokenSize`), ahead of the client's first call. A client
  /// without one never calls it.
  void setGreetingHandler(std::function<void(const std::string& resumeToken)> handler);
  /// Runs once on this peer's delivery executor when this connection ends, for whatever reason.
  void setInvalidationHandler(std::function<void()> handler);

  /// This peer's delivery executor: its incoming calls, the outcomes of the service's calls to it
  /// and its invalidation handler run there, one at a time in arrival order. Each peer has its
  /// own, so a handler that waits on one client never delays the others.
  [[nodiscard]] DeliveryExecutor executor() const;

  /// Proxies for the client's exported object (the service pushes MESSAGEs through them). They
  /// hold the connection weakly: once it is gone, calls fail with `invalidated`.
  [[nodiscard]] RemoteProxy remoteObjectProxy(ErrorHandler errorHandler) const;
  [[nodiscard]] RemoteProxy synchronousRemoteObjectProxy(ErrorHandler errorHandler) const;

  /// Closes this connection (only this one); idempotent.
  void invalidate();

 private:
  friend class detail::ListenerCore;
  explicit Peer(std::shared_ptr<detail::Channel> channel) noexcept;
  std::shared_ptr<detail::Channel> channel_;
};

/// Options of a listener. The limits bound what one client can make the service hold: about
/// `maxCallsInFlight` frames being handled, `maxQueuedIncomingBytes` waiting behind them,
/// `maxQueuedOutgoingBytes` of answers it does not read, and its share of `receiveBudgetBytes`.
/// A client that goes past a limit is disconnected (and the error logged), nothing else. The
/// connection limits bound how many clients there are: a connection past them is closed as soon
/// as it is accepted.
struct ListenerOptions {
  /// Where the socket is bound; empty = `defaultRuntimeDirectory()`.
  std::filesystem::path runtimeDirectory;
  /// Adopt a socket passed by systemd socket activation (LISTEN_FDS/LISTEN_PID), preferring one
  /// bound to this service's path, instead of binding.
  bool adoptActivatedSocket = true;
  /// Calls (and one-way messages) of one client being handled at once; further ones wait, in
  /// order, until one is answered. Replies to the service's own calls are read all the while.
  std::size_t maxCallsInFlight = 256;
  /// Bytes of one client's calls that may wait behind `maxCallsInFlight`.
  std::size_t maxQueuedIncomingBytes = std::size_t{16} * 1024 * 1024;
  /// Bytes of answers and messages that may wait for one client to read them.
  std::size_t maxQueuedOutgoingBytes = std::size_t{16} * 1024 * 1024;
  /// Bytes of partly received frames all clients may have together.
  std::size_t receiveBudgetBytes = std::size_t{256} * 1024 * 1024;
  /// Connections open at once, over all clients. Each takes two descriptors, so the listener
  /// takes fewer when the process may not open that many (RLIMIT_NOFILE, with some to spare).
  std::size_t maxConnections = 1024;
  /// Connections open at once from one user (the peer's uid).
  std::size_t maxConnectionsPerUser = 256;
  /// Worker threads doing the I/O of every client and running the handlers; a handler that
  /// blocks holds one of them.
  std::size_t workerThreads = 4;
};

/// The service side of a named service: binds `<runtime dir>/<service name>` (creating the
/// directory, replacing a stale socket) or adopts a systemd-activated socket, and accepts
/// connections. Each accepted connection is handed to the connection handler, which inspects the
/// peer's credentials, sets its exported object and returns true to accept or false to reject.
/// Malformed input from a client closes only that client's connection. A connection past
/// `maxConnections` or `maxConnectionsPerUser` is closed at once, and logged (at most one line a
/// second, counting the ones it leaves out). When the process runs out of descriptors, accepting
/// pauses for a short, growing while, and the failure is logged once per pause rather than once
/// per attempt.
///
/// Memory: a client holds no receive buffer until it sends, and what it held goes back when its
/// connection ends. Once many connections have ended (or the last one has), the listener gives
/// the freed heap back to the system (malloc_trim), at most a few times a second.
///
/// Threads: `workerThreads` workers do the accepting and the I/O of all sockets and run the
/// handlers. Each client has its own delivery executor (`Peer::executor`): the connection handler,
/// its incoming calls, the outcomes of the service's calls to it and its invalidation handler run
/// there one at a time in arrival order, while other clients are served by the other workers.
/// Handlers should not block for long: keep the `Reply` and answer later instead. Destruction
/// stops accepting, closes every connection (removing a socket it bound) and joins the workers;
/// never destroy a Listener from one of its own callbacks.
class Listener {
 public:
  using ConnectionHandler = std::function<bool(Peer& peer)>;

  /// Binds or adopts the socket. Throws std::invalid_argument for an invalid service name and
  /// std::system_error when the socket cannot be set up (including EADDRINUSE when a live service
  /// already answers on the path).
  explicit Listener(const std::string& serviceName, ListenerOptions options = {});
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Decides on each new connection (runs on the peer's delivery executor, before any of its
  /// calls). Without one, every
  /// connection is rejected. Set it before `resume`.
  void setConnectionHandler(ConnectionHandler handler);
  /// Starts accepting. Idempotent.
  void resume();
  /// Stops accepting and closes every connection; idempotent.
  void invalidate();

  /// The path of the socket (for an adopted socket: the path it is bound to, if any).
  [[nodiscard]] const std::filesystem::path& path() const noexcept;
  /// Whether the socket came from socket activation.
  [[nodiscard]] bool isActivated() const noexcept;

 private:
  std::shared_ptr<detail::ListenerCore> core_;
};

}  // namespace corvane::ipc
