#pragma once

namespace corvane::platform {

/// Which kind of build of the system this is.
class BuildVariant {
 public:
  /// True when the system is an internal build (CORVANE_INTERNAL_BUILD=1); asked afresh each call.
  [[nodiscard]] static bool isInternal() noexcept;
};

}  // namespace corvane::platform
