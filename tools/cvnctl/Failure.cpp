#include "Failure.hpp"

#include "UsageError.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CorvaneError.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace cvnctl {
namespace {

constexpr std::string_view connectPrefix = "cannot connect to ";
constexpr std::string_view faultPrefix = "the service answered with a fault: ";
constexpr std::string_view lostPrefix = "the connection to the service was lost";

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

/// A sentence for the failures a person can do something about; empty for the others.
std::string explain(std::string_view cause, const std::filesystem::path& socketPath) {
  const std::string path = socketPath.string();
  if (cause.starts_with(connectPrefix)) {
    if (cause.ends_with(systemText(ENOENT)))
      return fmt::format("corvaned is not running (no socket at {})", path);
    if (cause.ends_with(systemText(ECONNREFUSED)))
      return fmt::format("corvaned is not running (nothing listens on {})", path);
    if (cause.ends_with(systemText(EACCES)))
      return fmt::format("permission denied: cannot connect to the daemon's socket {}", path);
    return {};
  }
  if (cause.starts_with(faultPrefix) && containsIgnoringCase(cause, "permission denied"))
    return fmt::format("permission denied: corvaned refused this caller ({})",
                       cause.substr(faultPrefix.size()));
  if (cause.starts_with(lostPrefix))
    return fmt::format("corvaned went away before answering (the connection to {} was lost)", path);
  if (containsIgnoringCase(cause, "is served by uid"))
    return fmt::format("the daemon at {} runs as another user and is not trusted ({})", path,
                       cause);
  if (cause == "the service is switched off")
    return "the corvane service is switched off (feature flag Corvane.Service)";
  return {};
}

Failure corvaneFailure(corvane::CorvaneError kind, std::string cause,
                       const std::filesystem::path& socketPath) {
  Failure failure;
  failure.error = std::string(corvane::caseName(kind));
  failure.description = corvane::localizedDescription(kind);
  failure.cause = std::move(cause);
  const std::string what = failure.cause.empty()
                               ? failure.description
                               : fmt::format("{} ({})", failure.description, failure.cause);
  const std::string explanation = explain(failure.cause, socketPath);
  failure.message = explanation.empty()
                        ? fmt::format("{}: {}", failure.error, what)
                        : fmt::format("{}\n{}: {}", explanation, failure.error, what);
  failure.status = ExitStatus::failure;
  return failure;
}

}  // namespace

Failure describeFailure(const std::exception_ptr& exception,
                        const std::filesystem::path& socketPath) {
  try {
    std::rethrow_exception(exception);
  } catch (const corvane::Error& error) {
    return corvaneFailure(error.error(), error.cause(), socketPath);
  } catch (const UsageError& error) {
    Failure failure;
    failure.error = "usageError";
    failure.description = error.what();
    failure.message = error.what();
    failure.codingPath = error.codingPath();
    failure.status = ExitStatus::usage;
    return failure;
  } catch (const corvane::CodingError& error) {
    // Only a value given on the command line or in a file can fail to encode.
    Failure failure;
    failure.error = "usageError";
    failure.description =
        fmt::format("the request cannot be encoded: {} at {}: {}", corvane::toString(error.kind()),
                    error.codingPath(), error.description());
    failure.codingPath = error.codingPath();
    failure.message = failure.description;
    failure.status = ExitStatus::usage;
    return failure;
  } catch (const std::exception& error) {
    return corvaneFailure(corvane::CorvaneError::unrecoverableError, error.what(), socketPath);
  } catch (...) {
    return corvaneFailure(corvane::CorvaneError::unrecoverableError, "an unknown failure",
                          socketPath);
  }
}

Failure daemonWentAway(const std::filesystem::path& socketPath) {
  auto failure =
      corvaneFailure(corvane::CorvaneError::unrecoverableError,
                     fmt::format("{}: {} closed", lostPrefix, socketPath.string()), socketPath);
  failure.message =
      fmt::format("corvaned went away (the connection to {} was lost)\n{}: {} ({})",
                  socketPath.string(), failure.error, failure.description, failure.cause);
  return failure;
}

}  // namespace cvnctl
