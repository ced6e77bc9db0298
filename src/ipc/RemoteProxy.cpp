#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

namespace corvane::ipc {

RemoteProxy::RemoteProxy(std::shared_ptr<detail::ProxyTarget> target, ErrorHandler errorHandler,
                         std::optional<InterfaceDescription> remoteInterface, bool synchronous)
    : target_(std::move(target)),
      errorHandler_(std::make_shared<const ErrorHandler>(std::move(errorHandler))),
      remoteInterface_(remoteInterface ? std::make_shared<const InterfaceDescription>(
                           std::move(*remoteInterface))
                                       : nullptr),
      synchronous_(synchronous) {}

void RemoteProxy::call(std::string_view operation, Bytes argument, ReplyHandler reply) const {
  dispatch(operation, OperationShape::argumentAndReply, std::move(argument), std::move(reply));
}

void RemoteProxy::call(std::string_view operation, ReplyHandler reply) const {
  dispatch(operation, OperationShape::replyOnly, std::nullopt, std::move(reply));
}

void RemoteProxy::send(std::string_view operation, Bytes argument) const {
  dispatch(operation, OperationShape::oneWay, std::move(argument), nullptr);
}

void RemoteProxy::dispatch(std::string_view operation, OperationShape shape,
                           std::optional<Bytes> argument, ReplyHandler reply) const {
  detail::Outgoing outgoing{std::string(operation),
                            std::move(argument),
                            shape != OperationShape::oneWay,
                            nullptr,
                            errorHandler_,
                            nullptr};
  // A synchronous call keeps its reply handler here and runs it on this thread.
  ReplyHandler syncReply;
  if (synchronous_) {
    outgoing.sync = detail::SyncSlot::forThisThread();
    syncReply = std::move(reply);
  } else {
    outgoing.reply = std::move(reply);
  }
  // Refused locally: the peer would only answer with a FAULT.
  std::optional<CallError> refusal;
  if (!target_) {
    refusal.emplace(ConnectionError::invalidated, "the proxy has no connection");
  } else if (!isValidOperationName(operation)) {
    refusal.emplace(ConnectionError::unknownOperation, "invalid operation name");
  } else if (remoteInterface_) {
    const auto expected = remoteInterface_->shape(operation);
    if (!expected) {
      refusal.emplace(ConnectionError::unknownOperation,
                      std::string(operation) + " is not in " + remoteInterface_->name());
    } else if (*expected != shape) {
      refusal.emplace(ConnectionError::shapeMismatch,
                      std::string(operation) + " is " + std::string(toString(*expected)));
    }
  }
  auto slot = outgoing.sync;
  if (refusal && !target_) {
    detail::failOutgoingHere(outgoing, std::move(*refusal));
  } else if (refusal) {
    target_->refuse(std::move(outgoing), std::move(*refusal));
  } else {
    target_->send(std::move(outgoing));
  }
  if (!slot) return;
  auto [replyBytes, error] = slot->wait();
  if (error) {
    if (*errorHandler_) (*errorHandler_)(*error);
  } else if (syncReply && shape != OperationShape::oneWay) {
    syncReply(std::move(replyBytes).value_or(Bytes()));
  }
}

}  // namespace corvane::ipc
