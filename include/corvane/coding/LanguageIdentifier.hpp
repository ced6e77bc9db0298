#pragma once

#include <corvane/coding/Coding.hpp>

#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvane {

/// A BCP 47 language identifier such as "en-GB" or "zh-Hant-TW", kept as written. The syntax is
/// checked loosely: hyphen-separated subtags of one to eight ASCII letters or digits, the first
/// of two to eight letters (or "x"/"i" for private and legacy tags). Coded as its string.
class LanguageIdentifier {
 public:
  /// Throws std::invalid_argument when `identifier` is not a language identifier.
  explicit LanguageIdentifier(std::string identifier);

  /// The identifier when `text` is one; empty otherwise. Never throws.
  [[nodiscard]] static std::optional<LanguageIdentifier> parse(std::string_view text);
  /// Whether `text` has the shape of a language identifier.
  [[nodiscard]] static bool isValid(std::string_view text) noexcept;

  /// The identifier as written ("en-GB").
  [[nodiscard]] const std::string& identifier() const noexcept { return identifier_; }
  /// Same as `identifier()`.
  [[nodiscard]] std::string description() const { return identifier_; }

  friend bool operator==(const LanguageIdentifier&, const LanguageIdentifier&) = default;

 private:
  struct Trusted {};
  LanguageIdentifier(Trusted /*unused*/, std::string identifier) noexcept
      : identifier_(std::move(identifier)) {}

  std::string identifier_;
};

namespace coding {
/// A language identifier is coded as its string; a malformed one is dataCorrupted.
template <>
struct Coding<LanguageIdentifier> {
  static void encode(const LanguageIdentifier& value, boost::json::value& out);
  static LanguageIdentifier decode(const boost::json::value& in, const CodingPath& path);
};
}  // namespace coding

}  // namespace corvane

template <>
struct std::hash<corvane::LanguageIdentifier> {
  std::size_t operator()(const corvane::LanguageIdentifier& value) const noexcept {
    return std::hash<std::string>{}(value.identifier());
  }
};

/// Formats a language identifier as written.
template <>
struct fmt::formatter<corvane::LanguageIdentifier> : fmt::formatter<std::string_view> {
  auto format(const corvane::LanguageIdentifier& value, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(value.identifier(), ctx);
  }
};
