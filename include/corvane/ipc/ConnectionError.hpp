#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <system_error>

namespace corvane::ipc {

/// Why a call could not complete with a reply. Codes are in the `connectionCategory()`.
enum class ConnectionError {
  notResumed = 1,     ///< a message was sent before `resume()`
  connectFailed,      ///< the named service could not be reached; the next message tries again
  interrupted,        ///< the peer went away while the call was in flight
  invalidated,        ///< the connection is invalidated (final)
  peerFault,          ///< the peer answered with a FAULT; the reason is the peer's text
  unknownOperation,   ///< the operation is not in the interface
  shapeMismatch,      ///< the call's form does not match the operation's shape
  protocolViolation,  ///< the peer broke the wire protocol (the connection is invalidated)
  serviceNotTrusted,  ///< the service's uid is not the required one (the connection is invalidated)
  limitExceeded,      ///< the peer went past a limit of the connection, which closed it
  timedOut,           ///< no answer came before the synchronous call's deadline; a late one is
                      ///< dropped
};

/// The error category of `ConnectionError` ("corvane.ipc").
[[nodiscard]] const std::error_category& connectionCategory() noexcept;
[[nodiscard]] std::error_code make_error_code(ConnectionError error) noexcept;

/// What an error handler receives: the kind of failure and a human-readable reason (the peer's
/// FAULT text, the system error of a failed connect, ...).
class CallError {
 public:
  CallError(ConnectionError code, std::string reason)
      : code_(make_error_code(code)), reason_(std::move(reason)) {}

  [[nodiscard]] std::error_code code() const noexcept { return code_; }
  [[nodiscard]] const std::string& reason() const noexcept { return reason_; }
  /// "<category message>: <reason>" (or only the category message without a reason).
  [[nodiscard]] std::string description() const;
  [[nodiscard]] bool is(ConnectionError error) const noexcept {
    return code_ == make_error_code(error);
  }

 private:
  std::error_code code_;
  std::string reason_;
};

}  // namespace corvane::ipc

template <>
struct std::is_error_code_enum<corvane::ipc::ConnectionError> : std::true_type {};

template <>
struct fmt::formatter<corvane::ipc::CallError> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const corvane::ipc::CallError& error, Context& context) const {
    return fmt::formatter<std::string_view>::format(error.description(), context);
  }
};
