#include "Environment.hpp"

#include <corvane/platform/Localization.hpp>
#include <corvane/platform/Log.hpp>

#include <clocale>
#include <cstdlib>
#include <string_view>

namespace cvnctl {

// Runs first thing in main, before the library starts a thread: setenv and setlocale are safe.
// NOLINTBEGIN(concurrency-mt-unsafe)
void prepareEnvironment(const Options& options) {
  if (options.runtimeDirectory)
    ::setenv("CORVANE_RUNTIME_DIR", options.runtimeDirectory->c_str(), 1);

  // Messages follow the user's locale. The catalogues' message identifiers are keys, not
  // sentences, so a user without a language (the C locale) reads the English catalogue.
  const char* messages = std::setlocale(LC_MESSAGES, "");
  const std::string_view chosen = messages != nullptr ? messages : "C";
  const char* language = std::getenv("LANGUAGE");
  const bool noLanguage = chosen == "C" || chosen == "POSIX" || chosen.starts_with("C.");
  if (noLanguage && (language == nullptr || *language == '\0')) {
    // gettext ignores LANGUAGE in the plain C locale, not in C.UTF-8.
    if (chosen == "C" || chosen == "POSIX") std::setlocale(LC_MESSAGES, "C.UTF-8");
    ::setenv("LANGUAGE", "en", 1);
  }
  corvane::platform::Localization::languageChanged();

  if (options.verbose) {
    ::setenv("CORVANE_LOG_BACKEND", "stderr", 0);
    if (std::getenv("CORVANE_LOG_LEVEL") == nullptr)
      corvane::platform::Log::setThreshold(corvane::platform::LogLevel::info);
  } else if (std::getenv("CORVANE_LOG_LEVEL") == nullptr) {
    // The library logs every failed call at error level; cvnctl reports failures itself.
    corvane::platform::Log::setThreshold(corvane::platform::LogLevel::fault);
  }
}
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace cvnctl
