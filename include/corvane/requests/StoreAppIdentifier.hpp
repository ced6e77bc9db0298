#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>
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

/// A store app named by its store item number or by its bundle identifier.
/// Coded case-keyed: {"itemID": {"_0": 42}} or {"bundleID": {"_0": "com.example.app"}}.
class StoreAppIdentifier {
 public:
  struct ItemID {
    static constexpr std::string_view caseName = "itemID";
    std::int64_t _0 = 0;
    BOOST_DESCRIBE_CLASS(ItemID, (), (_0), (), ())
  };
  struct BundleID {
    static constexpr std::string_view caseName = "bundleID";
    std::string _0;
    BOOST_DESCRIBE_CLASS(BundleID, (), (_0), (), ())
  };
  using Cases = std::variant<ItemID, BundleID>;

  explicit StoreAppIdentifier(Cases cases) noexcept : cases_(std::move(cases)) {}
  [[nodiscard]] static StoreAppIdentifier itemID(std::int64_t itemID) {
    return StoreAppIdentifier(Cases(ItemID{itemID}));
  }
  [[nodiscard]] static StoreAppIdentifier bundleID(std::string bundleID) {
    return StoreAppIdentifier(Cases(BundleID{std::move(bundleID)}));
  }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }
  /// The item number of an `itemID`; empty for a `bundleID`.
  [[nodiscard]] std::optional<std::int64_t> itemIdentifier() const noexcept;
  /// The bundle identifier of a `bundleID`; empty for an `itemID`.
  [[nodiscard]] std::optional<std::string> bundleIdentifier() const;
  /// "Item ID: 42" or "Bundle ID: com.example.app".
  [[nodiscard]] std::string description() const;

  /// Same case and equal payload.
  friend bool operator==(const StoreAppIdentifier& a, const StoreAppIdentifier& b) noexcept;

 private:
  Cases cases_;
};

}  // namespace corvane

/// Hashes the case index, then the payload.
template <>
struct std::hash<corvane::StoreAppIdentifier> {
  std::size_t operator()(const corvane::StoreAppIdentifier& value) const noexcept;
};

/// Formats an identifier as its description.
template <>
struct fmt::formatter<corvane::StoreAppIdentifier> : fmt::formatter<std::string_view> {
  auto format(const corvane::StoreAppIdentifier& value, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(value.description(), ctx);
  }
};
