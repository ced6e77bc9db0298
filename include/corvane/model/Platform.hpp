#pragma once

#include <corvane/coding/Coding.hpp>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace corvane {

/// The operating-system family a catalogue entry is built for: a 64-bit code with named
/// constants. Any code is representable (the daemon's value arrives unchanged); coded as the bare
/// integer.
struct Platform {
  std::int64_t code = 0;

  static const Platform desktop;     ///< 0
  static const Platform phone;       ///< 1
  static const Platform television;  ///< 3
  static const Platform wrist;       ///< 4
  static const Platform headset;     ///< 7

  /// "desktop", "phone", "television", "wrist", "headset" for the named codes; "" otherwise.
  [[nodiscard]] constexpr std::string_view name() const noexcept {
    switch (code) {
      case 0:
        return "desktop";
      case 1:
        return "phone";
      case 3:
        return "television";
      case 4:
        return "wrist";
      case 7:
        return "headset";
      default:
        return "";
    }
  }
  /// The text form: the constant's name, or the empty string for an unnamed code.
  [[nodiscard]] std::string description() const { return std::string(name()); }

  friend constexpr bool operator==(Platform, Platform) noexcept = default;
};

inline constexpr Platform Platform::desktop{0};
inline constexpr Platform Platform::phone{1};
inline constexpr Platform Platform::television{3};
inline constexpr Platform Platform::wrist{4};
inline constexpr Platform Platform::headset{7};

namespace coding {
/// A platform is its bare integer code; decoding fails only for a value that is not an integer.
template <>
struct Coding<Platform> {
  static void encode(Platform value, boost::json::value& out) { out = value.code; }
  static Platform decode(const boost::json::value& in, const CodingPath& path) {
    return Platform{detail::decodeInt64(in, path)};
  }
};
}  // namespace coding

}  // namespace corvane

template <>
struct std::hash<corvane::Platform> {
  std::size_t operator()(corvane::Platform value) const noexcept {
    return std::hash<std::int64_t>{}(value.code);
  }
};

/// Formats a platform as its text form.
template <>
struct fmt::formatter<corvane::Platform> : fmt::formatter<std::string_view> {
  auto format(corvane::Platform value, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(value.name(), ctx);
  }
};
