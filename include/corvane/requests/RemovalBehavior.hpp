#pragma once

#include <corvane/coding/Coding.hpp>

namespace corvane {

/// A one-flag value accepted, and not kept, by two of the declaration's construction forms.
/// It codes as nothing: encoding writes no value, and decoding ignores its input and never fails.
struct RemovalBehavior {
  bool enabled = true;
  friend constexpr bool operator==(RemovalBehavior, RemovalBehavior) noexcept = default;
};

namespace coding {
template <>
struct Coding<RemovalBehavior> {
  static constexpr bool writesNothing = true;
  static void encode(RemovalBehavior /*value*/, boost::json::value& /*out*/) noexcept {}
  static RemovalBehavior decode(const boost::json::value& /*in*/,
                                const CodingPath& /*path*/) noexcept {
    return RemovalBehavior{true};
  }
};
}  // namespace coding

}  // namespace corvane
