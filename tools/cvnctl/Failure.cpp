#include "Failure.hpp"

#include "Problems.hpp"
#include "UsageError.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/ipc/ConnectionError.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace cvnctl {
namespace {

using corvane::ipc::ConnectionError;

constexpr std::string_view faultPrefix = "the service answered with a fault: ";

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [](char a, char b) {
                       return std::tolower(static_cast<unsigned char>(a))
                              == std::tolower(static_cast<unsigned char>(b));
                     })
         != text.end();
}

/// The system's text for `error`, in the same language the library wrote it in.
std::string systemText(int error) {
  return std::error_code(error, std::system_category()).message();
}

bool is(std::error_code origin, ConnectionError error) {
  return origin == corvane::ipc::make_error_code(error);
}

/// The status of a library error: what happened to the connection decides, when it failed.
ExitStatus statusOf(std::error_code origin) {
  if (is(origin, ConnectionError::connectFailed) || is(origin, ConnectionError::interrupted)
      || is(origin, ConnectionError::invalidated) || is(origin, ConnectionError::serviceNotTrusted))
    return ExitStatus::unavailable;
  if (is(origin, ConnectionError::timedOut)) return ExitStatus::timedOut;
  return ExitStatus::failure;
}

/// A sentence for the failures a person can do something about; empty for the others.
std::string explain(std::error_code origin, std::string_view cause,
                    const std::filesystem::path& socketPath) {
  const std::string path = socketPath.string();
  if (is(origin, ConnectionError::connectFailed)) {
    if (cause.ends_with(systemText(ENOENT)))
      return fmt::format("corvaned is not running (no socket at {})", path);
    if (cause.ends_with(systemText(ECONNREFUSED)))
      return fmt::format("corvaned is not running (nothing listens on {})", path);
    if (cause.ends_with(systemText(EACCES)))
      return fmt::format("permission denied: cannot connect to the daemon's socket {}", path);
    return fmt::format("corvaned cannot be reached at {}", path);
  }
  if (is(origin, ConnectionError::peerFault) && containsIgnoringCase(cause, "permission denied")) {
    const auto reason = cause.starts_with(faultPrefix) ? cause.substr(faultPrefix.size()) : cause;
    return fmt::format("permission denied: corvaned refused this caller ({})", reason);
  }
  if (is(origin, ConnectionError::interrupted) || is(origin, ConnectionError::invalidated))
    return fmt::format("corvaned went away before answering (the connection to {} was lost)", path);
  if (is(origin, ConnectionError::serviceNotTrusted))
    return fmt::format("the daemon at {} runs as another user and is not trusted ({})", path,
                       cause);
  if (cause == "the service is switched off")
    return "the corvane service is switched off (feature flag Corvane.Service)";
  return {};
}

Failure corvaneFailure(corvane::CorvaneError kind, std::string cause, std::error_code origin,
                       const std::filesystem::path& socketPath) {
  Failure failure;
  failure.status = statusOf(origin);
  failure.error = failure.status == ExitStatus::unavailable ? "daemonUnavailable"
                  : failure.status == ExitStatus::timedOut  ? "timedOut"
                                                            : std::string(corvane::caseName(kind));
  failure.description = corvane::localizedDescription(kind);
  failure.reason = std::move(cause);
  const std::string what = failure.reason.empty()
                               ? failure.description
                               : fmt::format("{} ({})", failure.description, failure.reason);
  const std::string explanation = explain(origin, failure.reason, socketPath);
  const auto caseName = corvane::caseName(kind);
  failure.message = explanation.empty() ? fmt::format("{}: {}", caseName, what)
                                        : fmt::format("{}\n{}: {}", explanation, caseName, what);
  return failure;
}

Failure plainFailure(std::string kind, const std::string& message, ExitStatus status) {
  Failure failure;
  failure.error = std::move(kind);
  failure.description = message;
  failure.message = message;
  failure.status = status;
  return failure;
}

}  // namespace

Failure describeFailure(const std::exception_ptr& exception,
                        const std::filesystem::path& socketPath) {
  try {
    std::rethrow_exception(exception);
  } catch (const corvane::Error& error) {
    return corvaneFailure(error.error(), error.cause(), error.origin(), socketPath);
  } catch (const UsageError& error) {
    auto failure = plainFailure("usageError", error.what(), ExitStatus::usage);
    failure.codingPath = error.codingPath();
    return failure;
  } catch (const Problem& problem) {
    return plainFailure(problem.kind(), problem.what(), problem.status());
  } catch (const corvane::CodingError& error) {
    // Only a value given on the command line or in a file can fail to encode.
    auto failure = plainFailure(
        "usageError",
        fmt::format("the request cannot be encoded: {} at {}: {}", corvane::toString(error.kind()),
                    error.codingPath(), error.description()),
        ExitStatus::usage);
    failure.codingPath = error.codingPath();
    return failure;
  } catch (const std::exception& error) {
    return corvaneFailure(corvane::CorvaneError::unrecoverableError, error.what(), {}, socketPath);
  } catch (...) {
    return corvaneFailure(corvane::CorvaneError::unrecoverableError, "an unknown failure", {},
                          socketPath);
  }
}

Failure daemonWentAway(const std::filesystem::path& socketPath) {
  auto failure = corvaneFailure(
      corvane::CorvaneError::unrecoverableError,
      fmt::format("the connection to the service was lost: {} closed", socketPath.string()),
      corvane::ipc::make_error_code(ConnectionError::interrupted), socketPath);
  failure.message =
      fmt::format("corvaned went away (the connection to {} was lost)\n{}: {} ({})",
                  socketPath.string(), "unrecoverableError", failure.description, failure.reason);
  return failure;
}

}  // namespace cvnctl
