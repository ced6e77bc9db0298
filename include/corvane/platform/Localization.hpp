#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvane::platform {

/// Localized texts of the library, through gettext (domain "corvane"), from the resource bundle
/// "Corvane.framework": <resource dir>/locale/<language>/LC_MESSAGES/corvane.mo.
class Localization {
 public:
  /// The text for `key` in the process's current locale (LC_MESSAGES and LANGUAGE), looked up on
  /// every call. A locale without a catalogue of its own (C, C.UTF-8, POSIX, a language nobody
  /// translated) or whose catalogue lacks the key gets the English text; a key that no catalogue
  /// has comes back as itself. Never throws but for allocation.
  [[nodiscard]] static std::string localizedString(std::string_view key);
  /// $CORVANE_RESOURCE_DIR when set, else the installed "<datadir>/Corvane.framework" found
  /// from where the library itself is installed (the configured install path as a fallback).
  [[nodiscard]] static std::filesystem::path resourceDirectory();
  /// Tells gettext that the language changed (after setenv("LANGUAGE") or setlocale), so that
  /// the next look-up does not answer from its cache.
  static void languageChanged() noexcept;
};

}  // namespace corvane::platform
