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
  /// The object the client's calls are dispatched to, on the listener's delivery thread.
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  /// The interface of the client's exported object, checked by proxies made afterwards.
  void setRemoteObjectInterface(InterfaceDescription interface);
  /// Runs once on the delivery thread when this connection ends, for whatever reason.
  void setInvalidationHandler(std::function<void()> handler);

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

/// Options of a listener.
struct ListenerOptions {
  /// Where the socket is bound; empty = `defaultRuntimeDirectory()`.
  std::filesystem::path runtimeDirectory;
  /// Adopt a socket passed by systemd socket activation (LISTEN_FDS/LISTEN_PID), preferring one
  /// bound to this service's path, instead of binding.
  bool adoptActivatedSocket = true;
  /// Calls a client may have in flight on this service; further frames are not read until an
  /// answer is sent, so a client cannot make the service queue without bound.
  std::size_t maxCallsInFlight = 256;
};

/// The service side of a named service: binds `<runtime dir>/<service name>` (creating the
/// directory, replacing a stale socket) or adopts a systemd-activated socket, and accepts
/// connections. Each accepted connection is handed to the connection handler, which inspects the
/// peer's credentials, sets its exported object and returns true to accept or false to reject.
/// Malformed input from a client closes only that client's connection.
///
/// Threads: two worker threads do the accepting and the I/O of all sockets and take turns at
/// delivery, shared by all connections (the "delivery thread"), which runs the connection handler,
/// incoming calls, answers to the service's own asynchronous calls and peers' invalidation
/// handlers, one at a time in arrival order; while one worker runs user code the other keeps
/// doing I/O, and a worker that reads a call runs it itself when delivery is free. Handlers should
/// not block for long: keep the `Reply` and answer later instead. Destruction stops accepting,
/// closes every connection (removing a socket it bound) and joins both threads; never destroy a
/// Listener from one of its own callbacks.
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

  /// Decides on each new connection (runs on the delivery thread). Without one, every
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
