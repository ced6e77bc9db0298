#pragma once

#include <corvane/coding/Bytes.hpp>
#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

namespace corvane::ipc {

/// Receives the reply buffer of one call.
using ReplyHandler = std::move_only_function<void(Bytes reply)>;
/// Receives the failure of a call made through a proxy; runs once per failed call.
using ErrorHandler = std::function<void(const CallError& error)>;

namespace detail {
class ProxyTarget;
}

/// A proxy for the peer's exported object: sends any operation by name. For every call exactly
/// one of the reply handler and the proxy's error handler runs, on every path.
///
/// An asynchronous proxy returns at once; the handler runs later on the connection's delivery
/// thread (or, once the connection is destroyed, on the thread that made the call). A synchronous
/// proxy returns only after the handler has run, and runs it on the calling thread; it waits on
/// its own condition, so it may be used from inside a delivery callback.
///
/// Copyable and cheap; usable from any number of threads at once. A default-constructed proxy
/// fails every call with `ConnectionError::invalidated`. Calls throw only what a reply handler
/// run on the calling thread throws.
class RemoteProxy {
 public:
  RemoteProxy() = default;
  RemoteProxy(std::shared_ptr<detail::ProxyTarget> target, ErrorHandler errorHandler,
              std::optional<InterfaceDescription> remoteInterface, bool synchronous);

  /// Calls an argument-and-reply operation.
  void call(std::string_view operation, Bytes argument, ReplyHandler reply) const;
  /// Calls a reply-only operation (no argument buffer is sent).
  void call(std::string_view operation, ReplyHandler reply) const;
  /// Sends a one-way MESSAGE; only a failure to deliver it is reported (to the error handler).
  void send(std::string_view operation, Bytes argument) const;

  [[nodiscard]] bool isSynchronous() const noexcept { return synchronous_; }

 private:
  void dispatch(std::string_view operation, OperationShape shape, std::optional<Bytes> argument,
                ReplyHandler reply) const;

  std::shared_ptr<detail::ProxyTarget> target_;
  std::shared_ptr<const ErrorHandler> errorHandler_;
  std::shared_ptr<const InterfaceDescription> remoteInterface_;
  bool synchronous_ = false;
};

/// Base of a typed proxy, so that a protocol's operations are called as member functions:
///
///     struct EchoProtocol : ipc::ProtocolProxy<EchoProtocol> {
///       static constexpr std::string_view protocolName = "EchoProtocol";
///       static constexpr std::array operations{ipc::Operation{"echo:reply:"}};
///       using ProtocolProxy::ProtocolProxy;
///       void echo(Bytes argument, ipc::ReplyHandler reply) const {
///         call(operations[0], std::move(argument), std::move(reply));
///       }
///     };
///     auto echo = connection.remoteObjectProxy<EchoProtocol>(onError);
///
/// `Protocol` supplies `protocolName` and a static `operations` table; `interface()` turns the
/// table into the description to give to `setRemoteObjectInterface`/`setExportedInterface`.
template <class Protocol>
class ProtocolProxy {
 public:
  ProtocolProxy() = default;
  explicit ProtocolProxy(RemoteProxy proxy) noexcept : proxy_(std::move(proxy)) {}

  /// The protocol's interface description, made from its operation table.
  [[nodiscard]] static InterfaceDescription interface() {
    return InterfaceDescription(std::string(Protocol::protocolName),
                                std::span<const Operation>(Protocol::operations));
  }
  /// The generic proxy underneath.
  [[nodiscard]] const RemoteProxy& remote() const noexcept { return proxy_; }

 protected:
  void call(const Operation& operation, Bytes argument, ReplyHandler reply) const {
    proxy_.call(operation.name, std::move(argument), std::move(reply));
  }
  void call(const Operation& operation, ReplyHandler reply) const {
    proxy_.call(operation.name, std::move(reply));
  }
  void send(const Operation& operation, Bytes argument) const {
    proxy_.send(operation.name, std::move(argument));
  }

 private:
  RemoteProxy proxy_;
};

}  // namespace corvane::ipc
