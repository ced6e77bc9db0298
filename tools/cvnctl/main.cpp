// cvnctl: the command-line face of libcorvane. One subcommand per library operation; see
// `cvnctl --help`, cvnctl(1) and docs/cvnctl.md.

#include "CommandLine.hpp"
#include "Commands.hpp"
#include "DaemonCalls.hpp"
#include "Environment.hpp"
#include "Failure.hpp"
#include "Output.hpp"

#include <exception>
#include <filesystem>
#include <optional>

int main(int argc, char** argv) {
  using namespace cvnctl;
  std::optional<Options> options;
  try {
    options = parseCommandLine(argc, argv);
  } catch (...) {
    const auto failure = describeFailure(std::current_exception(), {});
    makeOutput(asksForJson(argc, argv))->failure(failure);
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
