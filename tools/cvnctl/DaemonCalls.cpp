#include "DaemonCalls.hpp"

#include "UsageError.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/service/RequestOperations.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <boost/asio/use_future.hpp>

#include <stdexcept>

namespace cvnctl {

std::string describeDuration(std::chrono::milliseconds duration) {
  if (duration.count() % 1000 == 0) return fmt::format("{} s", duration.count() / 1000);
  return fmt::format("{} s", static_cast<double>(duration.count()) / 1000.0);
}

std::filesystem::path daemonSocketPath() {
  try {
    return corvane::ipc::servicePath(std::string(corvane::agentServiceName));
  } catch (const std::invalid_argument& error) {
    throw UsageError(
        fmt::format("the runtime directory cannot hold the daemon's socket: {}", error.what()));
  }
}

void checkDaemon(std::chrono::milliseconds timeout) {
  try {
    (void)awaitAnswer(corvane::DDMDeclarationKeysRequest{}.perform(boost::asio::use_future),
                      timeout);
  } catch (const corvane::Error& error) {
    // Only a failure made on this side (no daemon, a lost connection, a refusal) has a cause.
    if (!error.cause().empty()) throw;
  }
}

}  // namespace cvnctl
