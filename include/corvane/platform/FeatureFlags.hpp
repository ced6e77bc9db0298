#pragma once

#include <filesystem>
#include <string_view>

namespace corvane::platform {

/// The feature-flag service. A flag is asked afresh on every query:
///  1. the environment variable CORVANE_FEATURE_<DOMAIN>_<FEATURE> (upper case, other characters
///     as '_'), when it holds 1/on/true/yes or 0/off/false/no;
///  2. else the configuration file (`configPath()`), {"<Domain>": {"<Feature>": true|false}};
///  3. else on.
/// The environment variable is read on every query. $CORVANE_FEATURES_FILE and the file's
/// identity (stat(2)) are looked at again at most once a millisecond, and the file is parsed again
/// only when its modification time, size or inode has changed: a query mostly costs a map
/// look-up, and a changed file takes effect within a millisecond. Thread-safe; never throws.
class FeatureFlags {
 public:
  [[nodiscard]] static bool isEnabled(std::string_view domain, std::string_view feature) noexcept;
  /// $CORVANE_FEATURES_FILE when set, else /etc/corvane/features.json.
  [[nodiscard]] static std::filesystem::path configPath();
};

}  // namespace corvane::platform
