#pragma once

#include <optional>

namespace corvane::platform {

/// What the library needs to know about the device's display.
class DeviceInfo {
 public:
  /// Pixels per point of the main screen: the test override when set, else $CORVANE_SCREEN_SCALE,
  /// else $GDK_SCALE; empty when none is set or the value is not a finite positive number.
  /// Asked afresh on every call; thread-safe.
  [[nodiscard]] static std::optional<double> screenScale() noexcept;
  /// Replaces the answer of `screenScale()` (an empty value means "missing") until
  /// `clearScreenScaleOverride()`.
  static void overrideScreenScale(std::optional<double> scale) noexcept;
  static void clearScreenScaleOverride() noexcept;
};

}  // namespace corvane::platform
