#include "DaemonCalls.hpp"

#include "UsageError.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/service/RequestOperations.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <algorithm>
#include <stdexcept>

namespace cvnctl {

namespace {
constexpr std::chrono::milliseconds defaultAnswerTime{std::chrono::seconds(15)};
}  // namespace

std::string describeDuration(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return fmt::format("{} s", duration.count() / 1000);
  return fmt::format("{} s", static_cast<double>(duration.count()) / 1000.0);
}

std::chrono::milliseconds answerTime(const Options& options) {
  if (!options.deadline) return defaultAnswerTime;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      *options.deadline - std::chrono::steady_clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

std::chrono::milliseconds timeLimit(const Options& options) {
  return options.timeout.value_or(defaultAnswerTime);
}

corvane::Error noAnswer(const Options& options) {
  return corvane::Error(corvane::CorvaneError::unrecoverableError,
                        fmt::format("corvaned did not answer within {} (the request may still be "
                                    "carried out)",
                                    describeDuration(timeLimit(options))),
                        corvane::ipc::make_error_code(corvane::ipc::ConnectionError::timedOut));
}

std::filesystem::path daemonSocketPath() {
  try {
    return corvane::ipc::servicePath(std::string(corvane::agentServiceName));
  } catch (const std::invalid_argument& error) {
    throw UsageError(
        fmt::format("the runtime directory cannot hold the daemon's socket: {}", error.what()));
  }
}

void checkDaemon(const Options& options) {
  try {
    (void)awaitCall<std::vector<std::string>>(
        [](auto token) { corvane::DDMDeclarationKeysRequest{}.perform(std::move(token)); },
        options);
  } catch (const corvane::Error& error) {
    // Only a failure made on this side (no daemon, a lost connection, a refusal) has an origin.
    if (error.origin()) throw;
  }
}

}  // namespace cvnctl
