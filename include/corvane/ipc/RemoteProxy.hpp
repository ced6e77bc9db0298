#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/ipc/Executor.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <variant>

namespace corvane::ipc {

/// The outcome of one call: the reply buffer, or why there is none.
class CallResult {
 public:
  CallResult() = default;
  explicit CallResult(Bytes reply) noexcept : value_(std::move(reply)) {}
  explicit CallResult(CallError error) : value_(std::move(error)) {}

  [[nodiscard]] bool hasReply() const noexcept { return value_.index() == 0; }
  explicit operator bool() const noexcept { return hasReply(); }
  /// The reply buffer; only when `hasReply()`.
  [[nodiscard]] Bytes& reply() & { return std::get<Bytes>(value_); }
  [[nodiscard]] Bytes&& reply() && { return std::get<Bytes>(std::move(value_)); }
  /// The failure; only when `!hasReply()`.
  [[nodiscard]] const CallError& error() const { return std::get<CallError>(value_); }

 private:
  std::variant<Bytes, CallError> value_;
};

/// Receives the outcome of one call, exactly once.
using Completion = std::move_only_function<void(CallResult result)>;
/// Receives the reply buffer of one call.
using ReplyHandler = std::move_only_function<void(Bytes reply)>;
/// Receives the failure of a call made through a proxy; runs once per failed call.
using ErrorHandler = std::function<void(const CallError& error)>;

namespace detail {
class ProxyTarget;
}

/// A proxy for the peer's exported object: sends any operation by name. For every call exactly
/// one outcome is delivered, on every path (reply, FAULT, refusal, peer loss, invalidation,
/// destruction): the call's `Completion`, or for the reply-handler forms either the reply
/// handler or the proxy's error handler.
///
/// An asynchronous proxy returns at once and never runs an outcome on the calling thread from
/// inside the call: outcomes run on the connection's `DeliveryExecutor` (see `executor()`), in
/// arrival order with incoming calls. A synchronous proxy returns only after the outcome has run,
/// on the calling thread; it may be used from inside a delivery callback.
///
/// Copyable and cheap (it shares its connection and error handler); usable from any number of
/// threads at once. A default-constructed proxy fails every call with `invalidated`, at once on the
/// calling thread (it has no executor to defer to). Calls throw only what an outcome run on the
/// calling thread throws (synchronous proxies, default-constructed ones).
class RemoteProxy {
 public:
  RemoteProxy() = default;
  RemoteProxy(std::shared_ptr<detail::ProxyTarget> target, ErrorHandler errorHandler,
              bool synchronous);

  /// Calls `operation` with `argument` (none for a reply-only operation); `completion` gets the
  /// reply or the error.
  void call(std::string_view operation, std::optional<Bytes> argument, Completion completion) const;
  /// Calls an argument-and-reply operation; a failure goes to the proxy's error handler.
  void call(std::string_view operation, Bytes argument, ReplyHandler reply) const;
  /// Calls a reply-only operation (no argument buffer is sent).
  void call(std::string_view operation, ReplyHandler reply) const;
  /// Sends a one-way MESSAGE; only a failure to deliver it is reported (to the error handler).
  void send(std::string_view operation, Bytes argument) const;

  [[nodiscard]] bool isSynchronous() const noexcept { return synchronous_; }

  /// A copy of this synchronous proxy whose calls wait for their outcome until `deadline` at
  /// most: past it a call completes with `ConnectionError::timedOut`, and its answer, should it
  /// come later, is dropped. An asynchronous proxy ignores the deadline.
  [[nodiscard]] RemoteProxy withDeadline(std::chrono::steady_clock::time_point deadline) const {
    RemoteProxy bounded = *this;
    bounded.deadline_ = deadline;
    return bounded;
  }
  /// The deadline of this proxy's synchronous calls, if it has one.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> deadline() const noexcept {
    return deadline_;
  }
  /// Where the asynchronous outcomes of this proxy's calls run; empty for a default-constructed
  /// proxy.
  [[nodiscard]] std::optional<DeliveryExecutor> executor() const;

 private:
  void dispatch(std::string_view operation, OperationShape shape, std::optional<Bytes> argument,
                Completion completion) const;
  [[nodiscard]] Completion withErrorHandler(ReplyHandler reply) const;

  std::shared_ptr<detail::ProxyTarget> target_;
  std::shared_ptr<const ErrorHandler> errorHandler_;
  bool synchronous_ = false;
  std::optional<std::chrono::steady_clock::time_point> deadline_;
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
  void call(const Operation& operation, std::optional<Bytes> argument,
            Completion completion) const {
    proxy_.call(operation.name, std::move(argument), std::move(completion));
  }
  void send(const Operation& operation, Bytes argument) const {
    proxy_.send(operation.name, std::move(argument));
  }

 private:
  RemoteProxy proxy_;
};

}  // namespace corvane::ipc
