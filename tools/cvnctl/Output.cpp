#include "Output.hpp"

#include "HumanOutput.hpp"
#include "JsonOutput.hpp"

#include <cstdlib>
#include <unistd.h>

namespace cvnctl {

std::unique_ptr<Output> makeOutput(bool json) {
  if (json) return std::make_unique<JsonOutput>(stdout, stderr);
  const char* term = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): read before threads
  const bool terminal =
      ::isatty(STDOUT_FILENO) == 1 && !(term != nullptr && std::string_view(term) == "dumb");
  return std::make_unique<HumanOutput>(
      stdout, stderr, terminal ? ProgressDisplay::Mode::terminal : ProgressDisplay::Mode::plain);
}

}  // namespace cvnctl
