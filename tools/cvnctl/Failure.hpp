#pragma once

// A failure as cvnctl reports it: in the library's terms (the error's case name, its localized
// description and its cause) and in a sentence a person can act on.

#include "ExitStatus.hpp"

#include <exception>
#include <filesystem>
#include <string>

namespace cvnctl {

struct Failure {
  /// The `CorvaneError` case name ("networkError"), or "usageError" for a usage error.
  std::string error;
  /// The localized description of the error kind (the message of a usage error).
  std::string description;
  /// What went wrong underneath, as the library says it; may be empty.
  std::string cause;
  /// One or two lines for a person.
  std::string message;
  ExitStatus status = ExitStatus::failure;
  /// A decoding failure's coding path ("installBehavior.purchaseMethod"); empty otherwise.
  std::string codingPath;
};

/// Describes the exception in `failure` (a `corvane::Error`, a `UsageError`, or anything else,
/// which counts as an unrecoverable error). `socketPath` is the daemon's socket, named when the
/// daemon is not running.
[[nodiscard]] Failure describeFailure(const std::exception_ptr& failure,
                                      const std::filesystem::path& socketPath);

/// The failure of a watch whose daemon went away.
[[nodiscard]] Failure daemonWentAway(const std::filesystem::path& socketPath);

}  // namespace cvnctl
