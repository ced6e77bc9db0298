#pragma once

// The failures cvnctl itself detects, besides a bad command line (UsageError): each carries the
// exit status and the error kind it is reported with.

#include "ExitStatus.hpp"

#include <stdexcept>
#include <string>

namespace cvnctl {

class Problem : public std::runtime_error {
 public:
  Problem(ExitStatus status, std::string kind, const std::string& message)
      : std::runtime_error(message), status_(status), kind_(std::move(kind)) {}

  [[nodiscard]] ExitStatus status() const noexcept { return status_; }
  /// "notFound", "timedOut", ...: the `error` of the JSON error object.
  [[nodiscard]] const std::string& kind() const noexcept { return kind_; }

 private:
  ExitStatus status_;
  std::string kind_;
};

/// An unknown declaration, declaration key or bundle identifier.
[[nodiscard]] inline Problem notFound(const std::string& message) {
  return {ExitStatus::notFound, "notFound", message};
}

/// The time --timeout allows passed.
[[nodiscard]] inline Problem timedOut(const std::string& message) {
  return {ExitStatus::timedOut, "timedOut", message};
}

/// SIGINT or SIGTERM ended the command while it waited.
[[nodiscard]] inline Problem interrupted(int signal, const std::string& message) {
  return {signalStatus(signal), "interrupted", message};
}

/// "SIGINT", "SIGTERM".
[[nodiscard]] const char* signalName(int signal) noexcept;

}  // namespace cvnctl
