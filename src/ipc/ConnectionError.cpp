#include <corvane/ipc/ConnectionError.hpp>

namespace corvane::ipc {

namespace {

class ConnectionCategory final : public std::error_category {
 public:
  [[nodiscard]] const char* name() const noexcept override { return "corvane.ipc"; }
  [[nodiscard]] std::string message(int value) const override {
    switch (static_cast<ConnectionError>(value)) {
      case ConnectionError::notResumed:
        return "the connection is not resumed";
      case ConnectionError::connectFailed:
        return "could not connect to the service";
      case ConnectionError::interrupted:
        return "the connection was interrupted";
      case ConnectionError::invalidated:
        return "the connection is invalidated";
      case ConnectionError::peerFault:
        return "the peer refused the call";
      case ConnectionError::unknownOperation:
        return "unknown operation";
      case ConnectionError::shapeMismatch:
        return "the call does not match the operation's shape";
      case ConnectionError::protocolViolation:
        return "the peer broke the protocol";
      case ConnectionError::serviceNotTrusted:
        return "the service runs as an unexpected user";
      case ConnectionError::limitExceeded:
        return "the connection went past one of its limits";
      case ConnectionError::timedOut:
        return "the call was not answered in time";
    }
    return "unknown connection error";
  }
};

}  // namespace

const std::error_category& connectionCategory() noexcept {
  static const ConnectionCategory category;
  return category;
}

std::error_code make_error_code(ConnectionError error) noexcept {
  return {static_cast<int>(error), connectionCategory()};
}

std::string CallError::description() const {
  if (reason_.empty()) return code_.message();
  return code_.message() + ": " + reason_;
}

}  // namespace corvane::ipc
