#pragma once

// Helpers for talking to the daemon through the library: bounded waits for answers, the
// daemon's socket path, and a check that it answers at all.

#include <corvane/coding/CorvaneError.hpp>

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>

namespace cvnctl {

/// "15 s", "0.5 s".
[[nodiscard]] std::string describeDuration(std::chrono::milliseconds duration);

/// The outcome of a request started with `boost::asio::use_future`, waited for at most
/// `timeout`. Rethrows the request's failure; throws `corvane::Error` (unrecoverableError) when no
/// answer came in time.
template <class T>
T awaitAnswer(std::future<T> future, std::chrono::milliseconds timeout) {
  if (future.wait_for(timeout) != std::future_status::ready) {
    throw corvane::Error(
        corvane::CorvaneError::unrecoverableError,
        fmt::format("corvaned did not answer within {}", describeDuration(timeout)));
  }
  return future.get();
}

/// The daemon's socket: <runtime directory>/dev.corvane.corvaneagent. Throws `UsageError` for a
/// runtime directory whose socket path cannot be used.
[[nodiscard]] std::filesystem::path daemonSocketPath();

/// Makes one cheap request so that a daemon that is not there, or refuses this caller, is
/// reported before a stream is opened (a stream would otherwise wait for ever). An error the
/// daemon answers with is not a reason to stop here and is ignored.
void checkDaemon(std::chrono::milliseconds timeout);

}  // namespace cvnctl
