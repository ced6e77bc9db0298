#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/ServiceSignature.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/ipc/Connection.hpp>
#include <corvane/service/FeatureFlag.hpp>
#include <corvane/service/ServiceProtocol.hpp>
#include <corvane/service/SyncTetherResult.hpp>

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/system_executor.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

namespace corvane {

namespace service::detail {
struct LossObservers;
}  // namespace service::detail

/// Keeps an observer registered with `ServiceConnection::observeLoss`; destroying it (or
/// moving another into it) removes the observer. It may outlive the connection.
class LossObservation {
 public:
  LossObservation() noexcept = default;
  LossObservation(std::weak_ptr<service::detail::LossObservers> observers,
                  std::uint64_t id) noexcept
      : observers_(std::move(observers)), id_(id) {}
  LossObservation(LossObservation&& other) noexcept
      : observers_(std::move(other.observers_)), id_(other.id_) {}
  LossObservation& operator=(LossObservation&& other) noexcept;
  LossObservation(const LossObservation&) = delete;
  LossObservation& operator=(const LossObservation&) = delete;
  ~LossObservation();

 private:
  std::weak_ptr<service::detail::LossObservers> observers_;
  std::uint64_t id_ = 0;
};

/// The library's one connection to the daemon's agent service.
///
/// It connects to `agentServiceName` in the runtime directory, exports the client callback
/// interface (`handleMessages:`), declares `ServiceProtocol` as the remote interface, logs
/// interruptions ("Daemon connection interrupted") and invalidation ("Daemon connection
/// invalidated") at error level under the Tether category and does nothing else about them: the
/// connection connects again by itself on the next call after an interruption, and after an
/// invalidation every later call fails. The service must run as root when the runtime directory
/// is the system one, else as the caller's own user or root.
///
/// Every member may be used from any thread at once. Destruction invalidates the connection. The
/// shared instance is never released: it lives until the process exits, and then stops its
/// threads without invalidation handler or log line.
class ServiceConnection {
 public:
  /// The process's instance, made on first use while the service is enabled. Throws
  /// `corvane::Error` (unrecoverableError, "the service is switched off") while it is not and
  /// no instance exists yet; the next call tries again. Thread-safe.
  [[nodiscard]] static ServiceConnection& shared();

  /// A connection of its own (tests, tools), exporting the process's push hub like the shared
  /// one. Throws `corvane::Error` (unrecoverableError) while the service is switched off: no
  /// object is made then. Defined in src/push/Wiring.cpp, where the hub is known.
  explicit ServiceConnection(const std::filesystem::path& runtimeDirectory = {});
  ~ServiceConnection();
  ServiceConnection(const ServiceConnection&) = delete;
  ServiceConnection& operator=(const ServiceConnection&) = delete;

  /// A proxy whose calls return at once; each call's completion runs on `executor()`.
  [[nodiscard]] const ServiceProtocol& remoteObjectProxy() const noexcept { return *proxy_; }
  /// A proxy whose calls return after their completion ran on the calling thread.
  [[nodiscard]] const ServiceProtocol& synchronousRemoteObjectProxy() const noexcept {
    return *synchronousProxy_;
  }
  /// Where replies are handled, and where a handler without an executor of its own runs.
  [[nodiscard]] ipc::DeliveryExecutor executor() const;
  /// The connection underneath (the push hub exports itself through it).
  [[nodiscard]] ipc::Connection& connection() noexcept { return *connection_; }

  /// Calls `onLost` each time the connection is interrupted (the daemon went away; the next call
  /// connects again) and once when it is invalidated, after the log line, on `executor()`, until
  /// the returned observation is destroyed. A call already under way when it is destroyed still
  /// finishes. The connection reports an interruption only while it is connected: make a call
  /// first. Throws only `std::bad_alloc`.
  [[nodiscard]] LossObservation observeLoss(std::function<void()> onLost);

  /// Sends one remote operation asynchronously and delivers its decoded reply through any Asio
  /// completion token (a callback, `use_future`, `use_awaitable`, `deferred`, ...).
  ///
  /// `arguments` is a tuple of the values to send (empty for the operations without one); they
  /// are encoded, in order, into one buffer. `body(proxy, buffer, reply)` calls one operation of
  /// `proxy` with the buffer (or without it, for a reply-only operation) and `reply`.
  ///
  /// Every asynchronous operation of the library is documented in these terms:
  ///
  /// Handler: `ServiceSignature<Value>`. The value is the `success` of the reply; the error is
  /// a `corvane::Error`: the daemon's `failure` kind unchanged, with the reason it gave as
  /// `cause()`, or `unrecoverableError` for a failure made here (switched off, no connection,
  /// undeliverable call, undecodable reply, cancelled), whose `cause()` says which and whose
  /// `origin()` holds the error underneath; an argument that cannot be encoded fails with the
  /// encoder's `CodingError`, and then nothing is sent.
  ///
  /// Executor: the handler runs through its associated executor (a coroutine resumes on its own),
  /// never inside the initiating call; while the call is pending it counts as outstanding work on
  /// that executor. A handler without an executor of its own runs on the shared connection's
  /// delivery executor (`executor()`), the same rule as for the library's streams; when there is
  /// no connection (switched off, or it could not be made) on Asio's system executor.
  ///
  /// Lifetime: the arguments are encoded during the initiating call; nothing the caller passed
  /// is referred to afterwards.
  ///
  /// Cancellation: terminal, through the handler's associated cancellation slot (a bound
  /// `cancellation_signal`, a coroutine's `||` with a timer, `cancel_after` where Asio has it).
  /// The handler then runs at once with `unrecoverableError`, `cause()` "the call was cancelled"
  /// and `isCancellation()` true (`origin()` is `boost::asio::error::operation_aborted`); the
  /// daemon may still carry the call out, and its reply, when it comes, is dropped unread.
  /// Partial and total cancellation are not offered: a call that has left cannot be taken back.
  /// Emit the cancellation on the handler's executor.
  ///
  /// Throws: nothing from the initiating call; every failure goes to the handler.
  template <class Value, class Arguments, class Body, ServiceToken<Value> CompletionToken>
  static auto withAsyncService(Arguments arguments, Body body, CompletionToken&& token);

  /// The synchronous twin: blocks the calling thread until the reply or the failure has arrived
  /// and returns the value, or throws what the asynchronous routine would deliver. May be called
  /// from inside a delivery callback.
  ///
  /// With a `deadline`, it waits until then at most: past it the call fails with
  /// `unrecoverableError` whose `origin()` is `ipc::ConnectionError::timedOut`, and the reply, if
  /// it comes later, is dropped (the daemon may still have carried the call out).
  template <class Value, class Arguments, class Body>
  static Value withSyncService(
      Arguments arguments, Body body,
      std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);

 private:
  /// Connects and exports `hub`, which the daemon knows across reconnections by `resumeToken`.
  ServiceConnection(const std::filesystem::path& runtimeDirectory,
                    std::shared_ptr<ipc::ExportedObject> hub, std::string resumeToken);

  std::shared_ptr<service::detail::LossObservers> lossObservers_;
  std::unique_ptr<ipc::Connection> connection_;
  // Made once: a proxy holds no state of a call, so every call shares them.
  std::optional<ServiceProtocol> proxy_;
  std::optional<ServiceProtocol> synchronousProxy_;
  bool shared_ = false;  // the process's instance, which ends quietly with the process
};

namespace service::detail {

/// `corvane::Error` for a failure made inside the library.
[[nodiscard]] std::exception_ptr localFailure(std::string cause, std::error_code origin = {});
/// The failure of a call the connection could not complete; writes the log line ("Error fetching
/// remote object proxy: {}", or its synchronous variant) with the connection's error.
[[nodiscard]] std::exception_ptr callFailure(const ipc::CallError& error, bool synchronous);
/// The failure of a reply that does not decode; writes "Error decoding Tether values: {}".
[[nodiscard]] std::exception_ptr decodingFailure(const std::exception& error);
/// The failure of a call its caller cancelled.
[[nodiscard]] std::exception_ptr cancelledFailure();
/// The shared connection, or empty with the failure to report when it cannot be had; a failure
/// other than the switched-off service writes the proxy line of the synchronous or asynchronous
/// routine.
[[nodiscard]] ServiceConnection* sharedConnection(std::exception_ptr& failure,
                                                  bool synchronous) noexcept;

/// The debug line of one call: its operation, outcome and duration. Costs one level check when
/// debug lines are off.
class CallLog {
 public:
  explicit CallLog(std::string_view operation) noexcept;
  /// Writes "<operation> succeeded in <ms> ms" or "<operation> failed in <ms> ms: <error>".
  void finished(const std::exception_ptr& failure) const noexcept;

 private:
  std::string_view operation_;
  std::optional<std::chrono::steady_clock::time_point> start_;
};

/// A body that calls one operation of the proxy: with the argument buffer, or, for a reply-only
/// operation, without it (the empty argument list is not sent).
template <const ipc::Operation& Selector>
struct Call {
  static constexpr std::string_view operation = Selector.name;
  void operator()(const ServiceProtocol& proxy, Bytes argument, ipc::Completion reply) const {
    if constexpr (Selector.shape == ipc::OperationShape::replyOnly) {
      proxy.remote().call(Selector.name, std::nullopt, std::move(reply));
    } else {
      proxy.remote().call(Selector.name, std::optional<Bytes>(std::move(argument)),
                          std::move(reply));
    }
  }
};

/// The operation a body calls, for the log; bodies that do not say are "a service call".
template <class Body>
constexpr std::string_view operationOf() {
  if constexpr (requires { Body::operation; }) {
    return Body::operation;
  } else {
    return "a service call";
  }
}

/// The outcome of one call: a value, or the failure.
template <class Value>
struct Outcome {
  std::exception_ptr failure;
  Value value{};
};

/// Values decoding: the reply buffer as `ServiceResult<Value>`; never throws.
template <class Value>
Outcome<Value> decodeValues(const Bytes& reply) {
  try {
    auto [result] = TetherDecoder<ServiceResult<Value>>::decode(reply);
    if (const auto error = result.error()) {
      return {std::make_exception_ptr(Error(*error, result.reason().value_or(std::string()))), {}};
    }
    return {nullptr, std::move(result).valueOrThrow()};
  } catch (const Error& error) {
    return {std::current_exception(), {}};
  } catch (const std::exception& error) {
    return {decodingFailure(error), {}};
  }
}

template <class Value>
Outcome<Value> outcomeOf(ipc::CallResult& result, bool synchronous) {
  if (!result) return {callFailure(result.error(), synchronous), {}};
  return decodeValues<Value>(result.reply());
}

/// Calls `handler` with the outcome in the form of `ServiceSignature<Value>`.
template <class Value, class Handler>
void complete(Handler& handler, Outcome<Value>& outcome) {
  if constexpr (std::is_same_v<Value, None>) {
    std::move(handler)(outcome.failure);
  } else {
    std::move(handler)(outcome.failure, std::move(outcome.value));
  }
}

/// Delivers a failure found before anything was sent: posted, never run inside the initiation.
template <class Value, class Handler, class Fallback>
void fail(Handler handler, std::exception_ptr failure, const Fallback& fallback,
          const CallLog& log) {
  log.finished(failure);
  auto executor = boost::asio::get_associated_executor(handler, fallback);
  boost::asio::post(executor, [handler = std::move(handler), failure]() mutable {
    Outcome<Value> outcome{failure, {}};
    complete<Value>(handler, outcome);
  });
}

/// One asynchronous call between its initiation and its handler. The reply and a cancellation
/// race for it: whichever claims it first completes the handler, on the handler's executor; the
/// other finds it claimed and lets go (a reply that comes after a cancellation is dropped).
template <class Value, class Handler>
class PendingCall {
 public:
  using Work = std::decay_t<decltype(boost::asio::prefer(
      std::declval<boost::asio::associated_executor_t<Handler, ipc::DeliveryExecutor>>(),
      boost::asio::execution::outstanding_work.tracked))>;

  PendingCall(Handler handler, const ipc::DeliveryExecutor& delivery, CallLog log)
      : handler_(std::move(handler)),
        // Counts as outstanding work on the handler's executor until the handler has run.
        work_(boost::asio::prefer(boost::asio::get_associated_executor(handler_, delivery),
                                  boost::asio::execution::outstanding_work.tracked)),
        log_(log) {}

  /// Makes the call end when the handler's cancellation slot asks for terminal cancellation.
  static void watchCancellation(const std::shared_ptr<PendingCall>& call) {
    auto slot = boost::asio::get_associated_cancellation_slot(call->handler_);
    if (!slot.is_connected()) return;
    slot.template emplace<Canceller>(std::weak_ptr<PendingCall>(call));
  }

  /// True for the one caller that may complete the call.
  bool claim() noexcept { return !claimed_.exchange(true, std::memory_order_acq_rel); }

  /// Completes a claimed call: the handler runs with `outcome` on its executor, never inline.
  static void complete(const std::shared_ptr<PendingCall>& call, Outcome<Value> outcome,
                       bool mayDispatch) {
    auto finish = [call, outcome = std::move(outcome)]() mutable { call->finish(outcome); };
    if (mayDispatch) {
      boost::asio::dispatch(call->work_, std::move(finish));
    } else {
      boost::asio::post(call->work_, std::move(finish));
    }
  }

 private:
  struct Canceller {
    explicit Canceller(std::weak_ptr<PendingCall> pending) noexcept : call(std::move(pending)) {}
    std::weak_ptr<PendingCall> call;
    void operator()(boost::asio::cancellation_type_t type) const {
      if ((type & boost::asio::cancellation_type::terminal) == boost::asio::cancellation_type::none)
        return;
      const auto pending = call.lock();
      if (!pending || !pending->claim()) return;
      PendingCall::complete(pending, Outcome<Value>{cancelledFailure(), {}}, false);
    }
  };

  // On the handler's executor.
  void finish(Outcome<Value>& outcome) {
    log_.finished(outcome.failure);
    auto slot = boost::asio::get_associated_cancellation_slot(handler_);
    if (slot.is_connected()) slot.clear();
    // The work is released once the handler has run, whether or not the reply ever comes.
    const auto work = std::move(work_);
    auto handler = std::move(handler_);
    service::detail::complete<Value>(handler, outcome);
  }

  Handler handler_;
  Work work_;
  CallLog log_;
  std::atomic<bool> claimed_{false};
};

template <class Value, class Body, class Handler, class Arguments>
void startAsync(Handler handler, Arguments& arguments, Body& body) {
  const CallLog log(operationOf<Body>());
  const boost::asio::system_executor noConnection;
  if (!isServiceEnabled()) {
    fail<Value>(std::move(handler), localFailure("the service is switched off"), noConnection, log);
    return;
  }
  Bytes buffer;
  try {
    buffer = std::apply([](const auto&... values) { return TetherEncoder::encode(values...); },
                        arguments);
  } catch (...) {
    fail<Value>(std::move(handler), std::current_exception(), noConnection, log);
    return;
  }
  std::exception_ptr failure;
  ServiceConnection* connection = sharedConnection(failure, false);
  if (connection == nullptr) {
    fail<Value>(std::move(handler), failure, noConnection, log);
    return;
  }
  using Pending = PendingCall<Value, Handler>;
  auto call = std::make_shared<Pending>(std::move(handler), connection->executor(), log);
  Pending::watchCancellation(call);
  body(connection->remoteObjectProxy(), std::move(buffer),
       ipc::Completion([call](ipc::CallResult result) {
         if (!call->claim()) return;  // cancelled: the reply is dropped unread
         Pending::complete(call, outcomeOf<Value>(result, false), true);
       }));
}

}  // namespace service::detail

template <class Value, class Arguments, class Body, ServiceToken<Value> CompletionToken>
auto ServiceConnection::withAsyncService(Arguments arguments, Body body, CompletionToken&& token) {
  return boost::asio::async_initiate<CompletionToken, ServiceSignature<Value>>(
      [](auto handler, Arguments values, Body send) {
        service::detail::startAsync<Value, Body>(std::move(handler), values, send);
      },
      token, std::move(arguments), std::move(body));
}

template <class Value, class Arguments, class Body>
Value ServiceConnection::withSyncService(
    Arguments arguments, Body body, std::optional<std::chrono::steady_clock::time_point> deadline) {
  const service::detail::CallLog log(service::detail::operationOf<Body>());
  SyncTetherResult<Value> box;
  try {
    if (!isServiceEnabled())
      std::rethrow_exception(service::detail::localFailure("the service is switched off"));
    Bytes buffer = std::apply(
        [](const auto&... values) { return TetherEncoder::encode(values...); }, arguments);
    std::exception_ptr failure;
    ServiceConnection* connection = service::detail::sharedConnection(failure, true);
    if (connection == nullptr) std::rethrow_exception(failure);
    auto fill = ipc::Completion([&box](ipc::CallResult result) {
      auto outcome = service::detail::outcomeOf<Value>(result, true);
      if (outcome.failure) {
        box.result.emplace(outcome.failure);
      } else {
        box.result.emplace(std::move(outcome.value));
      }
    });
    if (deadline) {
      // A proxy of its own, for this call's deadline; the shared one has none.
      body(ServiceProtocol(
               connection->synchronousRemoteObjectProxy().remote().withDeadline(*deadline)),
           std::move(buffer), std::move(fill));
    } else {
      body(connection->synchronousRemoteObjectProxy(), std::move(buffer), std::move(fill));
    }
  } catch (...) {
    log.finished(std::current_exception());
    throw;
  }
  const auto* failed = box.result ? std::get_if<std::exception_ptr>(&*box.result) : nullptr;
  log.finished(failed != nullptr ? *failed : nullptr);
  return std::move(box).valueOrThrow();
}

}  // namespace corvane
