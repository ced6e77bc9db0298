// cvnctl: the command-line face of libcorvane. One subcommand per library operation; see
// `cvnctl --help`, cvnctl(1) and docs/cvnctl.md.

#include "CommandLine.hpp"
#include "Commands.hpp"
#include "DaemonCalls.hpp"
#include "Environment.hpp"
#include "Failure.hpp"
#include "Interrupts.hpp"
#include "Output.hpp"
#include "Problems.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>

int main(int argc, char** argv) {
  using namespace cvnctl;
  const bool json = asksForJson(argc, argv);
  // Before anything starts a thread. A signal that nothing waiting takes (a --sync call, say)
  // still ends cvnctl with 130 or 143 and says so.
  Interrupts::start([json](int signal) {
    const auto failure = describeFailure(
        std::make_exception_ptr(interrupted(
            signal, fmt::format("interrupted by {} (a request already sent may still be carried "
                                "out)",
                                signalName(signal)))),
        {});
    makeOutput(json)->failure(failure);
    std::_Exit(toInt(failure.status));
  });

  std::optional<Options> options;
  try {
    options = parseCommandLine(argc, argv);
  } catch (...) {
    const auto failure = describeFailure(std::current_exception(), {});
    makeOutput(json)->failure(failure);
    return toInt(failure.status);
  }
  if (!options) return toInt(ExitStatus::success);

  prepareEnvironment(*options);
  const auto output = makeOutput(options->json);
  std::filesystem::path socketPath;
  try {
    socketPath = daemonSocketPath();
    return toInt(runCommand(*options, *output));
  } catch (...) {
    const auto failure = describeFailure(std::current_exception(), socketPath);
    output->failure(failure);
    return toInt(failure.status);
  }
}
