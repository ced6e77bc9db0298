#pragma once

#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace corvane::ipc {

namespace detail {
class ConnectionCore;
}

/// The runtime directory of named services: `$CORVANE_RUNTIME_DIR` if set and not empty, else
/// "/run/corvane".
[[nodiscard]] std::filesystem::path defaultRuntimeDirectory();

/// The socket path of `serviceName` in `runtimeDirectory` (the default one when empty).
/// Throws std::invalid_argument for an empty name, a name containing '/', "." or "..", or a path
/// too long for a Unix-domain socket address.
[[nodiscard]] std::filesystem::path servicePath(const std::string& serviceName,
                                                const std::filesystem::path& runtimeDirectory = {});

/// Options of a client connection.
struct ConnectionOptions {
  /// Where the service's socket lives; empty = `defaultRuntimeDirectory()`.
  std::filesystem::path runtimeDirectory;
  /// When set, the service's uid (SO_PEERCRED) must be this one (or root, with
  /// `rootServiceTrusted`); checked at each connect, and a mismatch invalidates the connection.
  std::optional<std::uint32_t> requiredServiceUid;
  /// With `requiredServiceUid`: a service running as root is trusted as well.
  bool rootServiceTrusted = false;
  /// Opaque bytes (at most `maxResumeTokenSize`) sent in every HELLO, so that the service can
  /// tell a returning client and give back what it had; empty = none (the HELLO has no token).
  std::string resumeToken{};
  /// While an exported object is set, reconnect by itself after an interruption, without waiting
  /// for the next message: attempts 50 ms apart at first, the delay doubling (with jitter) up to
  /// 1 s while the service stays away, until one succeeds or the connection is invalidated or
  /// destroyed. The interruption handler still runs once per lost connection.
  bool reconnects = false;
};

/// A client connection to a named service over a Unix-domain socket.
///
/// Configure (exported interface/object, remote interface, handlers), then `resume()`. The socket
/// is connected lazily by the first message after `resume`; a connect that fails fails that
/// message only, and the next message tries again. If the service goes away while connected, every
/// call in flight fails with `interrupted`, the interruption handler runs once, and the next
/// message reconnects (or, with `ConnectionOptions::reconnects`, the connection does so by itself).
/// `invalidate()`, a HELLO that does not match, a service that breaks the
/// protocol or one with the wrong uid invalidate the connection for good: calls in flight and all
/// later calls fail with `invalidated`, and the invalidation handler runs once.
///
/// Threads: the connection owns two worker threads that do the socket I/O and run its callbacks
/// through its `executor()`: the outcomes of asynchronous calls, incoming calls on the exported
/// object and the interruption and invalidation handlers run there one at a time, in the order
/// their causes arrived (the "delivery executor" below), on whichever worker is free. A
/// synchronous call reads its own answer off the socket on the calling thread. Every member
/// function may be called from any thread at once, including from a callback (destruction
/// excepted: never destroy a Connection from one of its own callbacks). Destruction invalidates
/// the connection, runs the outcomes of the calls still in flight and joins both threads; from
/// then on the executor runs what it is given on the submitting thread.
class Connection {
 public:
  /// Throws std::invalid_argument for an invalid service name (see `servicePath`).
  explicit Connection(const std::string& serviceName, ConnectionOptions options = {});
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// The socket path this connection connects to.
  [[nodiscard]] const std::filesystem::path& path() const noexcept;

  /// The interface of the exported object; incoming calls outside it are answered with a FAULT.
  /// Takes effect at the next connect (set it before `resume`).
  void setExportedInterface(InterfaceDescription interface);
  /// The object incoming CALLs and MESSAGEs are dispatched to. Takes effect at the next connect.
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  /// The interface outgoing calls are checked against (see `RemoteProxy`); proxies made
  /// afterwards use it.
  void setRemoteObjectInterface(InterfaceDescription interface);
  /// Runs on the delivery executor after each interruption, once the calls in flight have failed.
  void setInterruptionHandler(std::function<void()> handler);
  /// Runs once, on the delivery executor, when the connection is invalidated.
  void setInvalidationHandler(std::function<void()> handler);

  /// Allows messages to be sent (the first one connects). Idempotent.
  void resume();
  /// Invalidates the connection (final); idempotent. When it returns, the outcomes of the calls in
  /// flight are queued on the delivery executor, ahead of the invalidation handler.
  void invalidate();

  /// The delivery executor: every callback of this connection runs through it, one at a time.
  /// Work given to it runs in order with those callbacks.
  [[nodiscard]] DeliveryExecutor executor() const;

  /// A proxy whose calls return at once; outcomes run on the delivery executor.
  [[nodiscard]] RemoteProxy remoteObjectProxy(ErrorHandler errorHandler) const;
  /// A proxy whose calls return after their handler ran on the calling thread.
  [[nodiscard]] RemoteProxy synchronousRemoteObjectProxy(ErrorHandler errorHandler) const;

  /// Typed forms of the two proxies (see `ProtocolProxy`).
  template <class Protocol>
  [[nodiscard]] Protocol remoteObjectProxy(ErrorHandler errorHandler) const {
    return Protocol(remoteObjectProxy(std::move(errorHandler)));
  }
  template <class Protocol>
  [[nodiscard]] Protocol synchronousRemoteObjectProxy(ErrorHandler errorHandler) const {
    return Protocol(synchronousRemoteObjectProxy(std::move(errorHandler)));
  }

 private:
  std::shared_ptr<detail::ConnectionCore> core_;
};

}  // namespace corvane::ipc
