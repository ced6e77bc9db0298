#include "ipc/detail/ProxyTarget.hpp"

#include <corvane/ipc/RemoteProxy.hpp>

namespace corvane::ipc {

RemoteProxy::RemoteProxy(std::shared_ptr<detail::ProxyTarget> target, ErrorHandler errorHandler,
                         bool synchronous)
    : target_(std::move(target)),
      errorHandler_(std::make_shared<const ErrorHandler>(std::move(errorHandler))),
      synchronous_(synchronous) {}

void RemoteProxy::call(std::string_view operation, std::optional<Bytes> argument,
                       Completion completion) const {
  const auto shape = argument ? OperationShape::argumentAndReply : OperationShape::replyOnly;
  dispatch(operation, shape, std::move(argument), std::move(completion));
}

void RemoteProxy::call(std::string_view operation, Bytes argument, ReplyHandler reply) const {
  dispatch(operation, OperationShape::argumentAndReply, std::move(argument),
           withErrorHandler(std::move(reply)));
}

void RemoteProxy::call(std::string_view operation, ReplyHandler reply) const {
  dispatch(operation, OperationShape::replyOnly, std::nullopt, withErrorHandler(std::move(reply)));
}

void RemoteProxy::send(std::string_view operation, Bytes argument) const {
  // Nothing answers a MESSAGE; only a failure to send it reaches the error handler.
  Completion onFailure = [errorHandler = errorHandler_](CallResult result) {
    if (!result && errorHandler && *errorHandler) (*errorHandler)(result.error());
  };
  dispatch(operation, OperationShape::oneWay, std::move(argument), std::move(onFailure));
}

std::optional<DeliveryExecutor> RemoteProxy::executor() const {
  if (!target_) return std::nullopt;
  return target_->executor();
}

Completion RemoteProxy::withErrorHandler(ReplyHandler reply) const {
  return [reply = std::move(reply), errorHandler = errorHandler_](CallResult result) mutable {
    if (result) {
      if (reply) reply(std::move(result).reply());
    } else if (errorHandler && *errorHandler) {
      (*errorHandler)(result.error());
    }
  };
}

void RemoteProxy::dispatch(std::string_view operation, OperationShape shape,
                           std::optional<Bytes> argument, Completion completion) const {
  if (!target_) {
    // No connection, so no executor to defer to: the outcome runs here.
    if (completion) {
      completion(
          CallResult(CallError(ConnectionError::invalidated, "the proxy has no connection")));
    }
    return;
  }
  if (!synchronous_) {
    target_->send(
        {operation, shape, std::move(argument), std::move(completion), nullptr, std::nullopt});
    return;
  }
  // The outcome waits in the slot and runs here, on the calling thread. The completion shares the
  // slot, so an outcome that comes after the deadline has somewhere to go.
  auto slot = std::make_shared<detail::SyncSlot>();
  Completion fill = [slot](CallResult result) { slot->complete(std::move(result)); };
  target_->send({operation, shape, std::move(argument), std::move(fill), slot.get(), deadline_});
  std::optional<CallResult> result = slot->take(deadline_);
  if (!result) {
    result.emplace(CallError(ConnectionError::timedOut,
                             std::string(operation) + " was not answered before its deadline"));
  }
  if (shape == OperationShape::oneWay && *result) return;
  if (completion) completion(std::move(*result));
}

}  // namespace corvane::ipc
