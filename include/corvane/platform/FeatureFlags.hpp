#pragma once

#include <filesystem>
#include <string_view>

namespace corvane::platform {

/// The feature-flag service. A flag is asked afresh on every query:
///  1. the environment variable CORVANE_FEATURE_<DOMAIN>_<FEATURE> (upper case, other characters
///     as '_'), when it holds 1/on/true/yes or 0/off/false/no;
///  2. else the configuration file (`configPath()`), {"<Domain>": {"<Feature>": true|false}};
///  3. else on.
/// The file is re-read only when its modification time or size changes, so a query costs a
/// stat(2) and a map look-up. Thread-safe; never throws.
class FeatureFlags {
 public:
  [[nodiscard]] static bool isEnabled(std::string_view domain, std::string_view feature) noexcept;
  /// $CORVANE_FEATURES_FILE when set, else /etc/corvane/features.json.
  [[nodiscard]] static std::filesystem::path configPath();
};

}  // namespace corvane::platform
