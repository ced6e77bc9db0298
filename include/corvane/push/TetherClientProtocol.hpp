#pragma once

#include <corvane/base/Bytes.hpp>

namespace corvane {

/// The callback object of a client: the daemon delivers each batch of pushed messages to
/// `handleMessages`, one buffer holding a list of `TetherClientMessage`.
class TetherClientProtocol {
 public:
  virtual ~TetherClientProtocol() = default;

  /// Receives one batch. Implementations decode it themselves.
  virtual void handleMessages(Bytes messages) = 0;

 protected:
  TetherClientProtocol() = default;
  TetherClientProtocol(const TetherClientProtocol&) = default;
  TetherClientProtocol& operator=(const TetherClientProtocol&) = default;
};

}  // namespace corvane
