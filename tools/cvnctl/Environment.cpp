#include "Environment.hpp"

#include <corvane/platform/Localization.hpp>
#include <corvane/platform/Log.hpp>

#include <clocale>
#include <cstdlib>

namespace cvnctl {

// Runs first thing in main, before the library starts a thread: setenv and setlocale are safe.
// NOLINTBEGIN(concurrency-mt-unsafe)
void prepareEnvironment(const Options& options) {
  if (options.runtimeDirectory)
    ::setenv("CORVANE_RUNTIME_DIR", options.runtimeDirectory->c_str(), 1);

  // Messages follow the user's locale; one without a language of its own (C, POSIX) reads the
  // library's English texts.
  std::setlocale(LC_MESSAGES, "");
  // The progress display counts the cells each character takes with the locale's widths.
  std::setlocale(LC_CTYPE, "");
  corvane::platform::Localization::languageChanged();

  if (options.verbose) {
    ::setenv("CORVANE_LOG_BACKEND", "stderr", 0);
    if (std::getenv("CORVANE_LOG_LEVEL") == nullptr)
      corvane::platform::Log::setThreshold(corvane::platform::LogLevel::debug);
  } else if (std::getenv("CORVANE_LOG_LEVEL") == nullptr) {
    // The library logs every failed call at error level; cvnctl reports failures itself.
    corvane::platform::Log::setThreshold(corvane::platform::LogLevel::fault);
  }
}
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace cvnctl
