#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/push/MessageSending.hpp>

#include <optional>
#include <utility>

namespace corvane {

void send(TetherClientProtocol& receiver, const std::vector<TetherClientMessage>& messages) {
  std::optional<Bytes> batch;
  try {
    batch = TetherEncoder::encode(messages);
  } catch (const CodingError& error) {
    LogCategory::tether().error("Failed to encode Tether client messages: {}: {}",
                                description(messages), error.what());
    return;
  }
  // Delivered outside the try block: the receiver's own failures are not encoding failures.
  receiver.handleMessages(std::move(*batch));
}

void send(TetherClientProtocol& receiver, const TetherClientMessage& message) {
  send(receiver, std::vector<TetherClientMessage>{message});
}

void sendLog(TetherClientProtocol& receiver, std::string line) {
  send(receiver, TetherClientMessage{TetherClientMessage::MessageType::log(std::move(line))});
}

}  // namespace corvane
