#pragma once

#include <corvane/coding/Coding.hpp>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace corvane {

/// A short printable tag that ties together the log lines of one piece of work: an area prefix
/// followed by a random hexadecimal number ("GEN1A2B"), or an arbitrary text (the form a decoded
/// key takes). Coded as its text form; decoding always gives a text key.
struct LogKey {
  /// The area of work a key belongs to.
  enum class Prefix { general, vpp, manifest, ddm, update, edp, unknown, appReview, cvnctl };

  /// A key's two forms.
  class Representation {
   public:
    struct Prefixed {
      Prefix prefix = Prefix::general;
      std::uint32_t number = 0;
      friend bool operator==(const Prefixed&, const Prefixed&) = default;
    };
    struct Text {
      std::string _0;
      friend bool operator==(const Text&, const Text&) = default;
    };
    using Cases = std::variant<Prefixed, Text>;

    explicit Representation(Cases cases) noexcept : cases_(std::move(cases)) {}
    [[nodiscard]] static Representation prefixed(Prefix prefix, std::uint32_t number) noexcept {
      return Representation(Cases(Prefixed{prefix, number}));
    }
    [[nodiscard]] static Representation text(std::string text) noexcept {
      return Representation(Cases(Text{std::move(text)}));
    }
    [[nodiscard]] const Cases& cases() const noexcept { return cases_; }

    friend bool operator==(const Representation&, const Representation&) = default;

   private:
    Cases cases_;
  };

  Representation representation;

  /// A new key for `prefix` with a number from the system's random source (the low 32 bits of
  /// 64 random bits). Two keys made in a row differ with overwhelming likelihood, not certainly.
  explicit LogKey(Prefix prefix);
  explicit LogKey(Representation value) noexcept : representation(std::move(value)) {}

  /// The prefix's raw value followed by the number in upper-case hexadecimal without leading
  /// zeros ("GEN100", "VPPAB", "CVNCTL0"); or the text itself.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const LogKey&, const LogKey&) = default;
};

/// "GEN", "VPP", "MAN", "DDM", "UPD", "EDP", "???", "APR", "CVNCTL".
[[nodiscard]] std::string_view rawValue(LogKey::Prefix prefix) noexcept;
/// The prefix whose raw value is exactly `raw` (case-sensitive); empty otherwise.
[[nodiscard]] std::optional<LogKey::Prefix> logKeyPrefix(std::string_view raw) noexcept;
/// "General", "VPP", "Manifest", "DDM", "UPD", "EDP", "???", "App Review", "cvnctl".
[[nodiscard]] std::string_view description(LogKey::Prefix prefix) noexcept;

namespace coding {
/// A key is coded as its text form; decoding reads a string and gives a text key.
template <>
struct Coding<LogKey> {
  static void encode(const LogKey& value, boost::json::value& out) { out = value.description(); }
  static LogKey decode(const boost::json::value& in, const CodingPath& path) {
    return LogKey(LogKey::Representation::text(coding::decode<std::string>(in, path)));
  }
};
}  // namespace coding

}  // namespace corvane

/// Hashes a prefix by its raw value.
template <>
struct std::hash<corvane::LogKey::Prefix> {
  std::size_t operator()(corvane::LogKey::Prefix prefix) const noexcept {
    return std::hash<std::string_view>{}(corvane::rawValue(prefix));
  }
};

/// Formats a key as its text form.
template <>
struct fmt::formatter<corvane::LogKey> : fmt::formatter<std::string_view> {
  auto format(const corvane::LogKey& key, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(key.description(), ctx);
  }
};
