#pragma once

// Delivering pushed messages to a client, for components that play the daemon's part (nothing
// inside the library calls these).

#include <corvane/push/TetherClientMessage.hpp>
#include <corvane/push/TetherClientProtocol.hpp>

#include <string>
#include <vector>

namespace corvane {

/// Encodes `messages` as one batch and hands it to `receiver.handleMessages`. When encoding
/// fails (a non-finite progress, say) nothing is delivered and the failure is logged at error
/// level under the Tether category. Throws only what `handleMessages` throws.
void send(TetherClientProtocol& receiver, const std::vector<TetherClientMessage>& messages);
/// Sends a batch of one message.
void send(TetherClientProtocol& receiver, const TetherClientMessage& message);
/// Sends one `log` message holding `line`.
void sendLog(TetherClientProtocol& receiver, std::string line);

}  // namespace corvane
