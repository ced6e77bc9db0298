#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

namespace corvane {

/// The service switch: one flag of the feature-flag service that turns the whole library on or
/// off. While it is off no connection is made and every command fails with
/// `unrecoverableError`.
enum class FeatureFlag {
  service,
};

/// "Corvane".
[[nodiscard]] constexpr std::string_view domain(FeatureFlag /*flag*/) noexcept {
  return "Corvane";
}
/// "Service".
[[nodiscard]] constexpr std::string_view feature(FeatureFlag /*flag*/) noexcept {
  return "Service";
}

/// Whether the feature-flag service reports `FeatureFlag::service` enabled. Asked afresh on every
/// call (nothing is cached); never throws.
[[nodiscard]] bool isServiceEnabled() noexcept;

}  // namespace corvane

template <>
struct std::hash<corvane::FeatureFlag> {
  std::size_t operator()(corvane::FeatureFlag flag) const noexcept {
    return std::hash<int>{}(static_cast<int>(flag));
  }
};
