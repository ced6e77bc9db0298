#pragma once

#include <corvane/ipc/Executor.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string_view>

namespace corvane::ipc::detail {

/// Where a synchronous caller's outcome waits for it. Shared by the caller and the call's
/// completion: a caller whose deadline passes leaves, and the late outcome fills a slot nobody
/// reads.
class SyncSlot {
 public:
  using Clock = std::chrono::steady_clock;

  void complete(CallResult result);
  [[nodiscard]] bool done();
  /// Waits until completed (or `deadline` has passed: empty), then hands the result over.
  std::optional<CallResult> take(std::optional<Clock::time_point> deadline);

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::optional<CallResult> result_;
};

/// One outgoing CALL or MESSAGE (no completion) and who gets its outcome.
struct Outgoing {
  std::string_view operation;
  OperationShape shape = OperationShape::argumentAndReply;
  std::optional<Bytes> argument;
  Completion completion;
  SyncSlot* slot = nullptr;  ///< a synchronous caller's, whose completion fills it
  /// A synchronous caller waits for its outcome until then at most.
  std::optional<SyncSlot::Clock::time_point> deadline;
};

/// Something a RemoteProxy sends through: a client connection or an accepted peer.
class ProxyTarget {
 public:
  virtual ~ProxyTarget() = default;
  /// Sends, or fails `outgoing` through its completion; never throws. An asynchronous outcome
  /// never runs from inside this call. For a synchronous call it returns once the slot is filled.
  virtual void send(Outgoing outgoing) noexcept = 0;
  [[nodiscard]] virtual DeliveryExecutor executor() const = 0;
};

/// Why `operation` may not be called in `shape` on a peer exporting `interface` (none: anything
/// goes); empty when it may.
[[nodiscard]] std::optional<CallError> checkOutgoing(const InterfaceDescription* interface,
                                                     std::string_view operation,
                                                     OperationShape shape);

/// Fails `outgoing` with `error` without sending it: a synchronous caller's slot is filled here,
/// any other completion runs on `delivery`.
void refuse(Outgoing& outgoing, CallError error, const DeliveryExecutor& delivery) noexcept;

}  // namespace corvane::ipc::detail
