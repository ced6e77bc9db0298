#include "ipc/detail/Channel.hpp"

#include <corvane/ipc/ExportedObject.hpp>

#include <stdexcept>

namespace corvane::ipc {

Reply::Reply(Reply&& other) noexcept
    : channel_(std::move(other.channel_)),
      serial_(other.serial_),
      pending_(std::exchange(other.pending_, false)) {}

Reply& Reply::operator=(Reply&& other) noexcept {
  if (this != &other) {
    if (pending_) answer(std::nullopt, "no reply");
    channel_ = std::move(other.channel_);
    serial_ = other.serial_;
    pending_ = std::exchange(other.pending_, false);
  }
  return *this;
}

Reply::~Reply() {
  // A call that nobody answers would leave its caller waiting for ever.
  if (pending_) answer(std::nullopt, "no reply");
}

void Reply::send(Bytes reply) {
  if (!pending_) throw std::logic_error("this call expects no answer or was already answered");
  answer(std::move(reply), {});
}

void Reply::fail(std::string_view reason) {
  if (!pending_) throw std::logic_error("this call expects no answer or was already answered");
  answer(std::nullopt, reason);
}

void Reply::answer(std::optional<Bytes> reply, std::string_view reason) {
  pending_ = false;
  if (auto channel = channel_.lock()) channel->answer(serial_, std::move(reply), reason);
  channel_.reset();
}

OperationTable& OperationTable::on(std::string operation, Function function) {
  functions_.insert_or_assign(std::move(operation), std::move(function));
  return *this;
}

void OperationTable::handle(std::string_view operation, std::optional<Bytes> argument,
                            Reply reply) {
  auto found = functions_.find(operation);
  if (found == functions_.end() || !found->second) {
    if (reply.expectsAnswer()) reply.fail("unknown operation " + std::string(operation));
    return;
  }
  found->second(std::move(argument), std::move(reply));
}

}  // namespace corvane::ipc
