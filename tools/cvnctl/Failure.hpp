#pragma once

// A failure as cvnctl reports it: its kind, the library's description and the reason underneath,
// a sentence a person can act on, and the exit status.

#include "ExitStatus.hpp"

#include <exception>
#include <filesystem>
#include <string>

namespace cvnctl {

struct Failure {
  /// The `CorvaneError` case name of a failure the daemon reported ("networkError"); for the
  /// others cvnctl's kind: "usageError", "notFound", "daemonUnavailable", "timedOut",
  /// "interrupted", "installFailed", "notInstalled", or "unrecoverableError".
  std::string error;
  /// The localized description of a library error; the message of the others.
  std::string description;
  /// What went wrong underneath, or the reason the daemon gave; may be empty.
  std::string reason;
  /// One or two lines for a person.
  std::string message;
  ExitStatus status = ExitStatus::failure;
  /// A decoding failure's coding path ("installBehavior.purchaseMethod"); empty otherwise.
  std::string codingPath;
};

/// Describes the exception in `failure` (a `corvane::Error`, a `UsageError`, a `Problem`, or
/// anything else, which counts as an unrecoverable error). `socketPath` is the daemon's socket,
/// named when the daemon is not there.
[[nodiscard]] Failure describeFailure(const std::exception_ptr& failure,
                                      const std::filesystem::path& socketPath);

/// The failure of a watch or wait whose daemon went away.
[[nodiscard]] Failure daemonWentAway(const std::filesystem::path& socketPath);

}  // namespace cvnctl
