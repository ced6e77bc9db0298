#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>
#include <fmt/format.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvane {

/// What a client asks the daemon to tell it about.
/// Coded case-keyed: {"appCatalog": {}}, {"appStateChangeByBundleID": {"bundleID": "..."}},
/// {"globalAppProgress": {}}, {"logging": {}}.
class MessageRegistration {
 public:
  struct AppCatalog {
    static constexpr std::string_view caseName = "appCatalog";
  };
  struct AppStateChangeByBundleID {
    static constexpr std::string_view caseName = "appStateChangeByBundleID";
    std::string bundleID;
    BOOST_DESCRIBE_CLASS(AppStateChangeByBundleID, (), (bundleID), (), ())
  };
  struct GlobalAppProgress {
    static constexpr std::string_view caseName = "globalAppProgress";
  };
  struct Logging {
    static constexpr std::string_view caseName = "logging";
  };
  /// In case-index order (0 to 3), which hashing uses.
  using Cases = std::variant<AppCatalog, AppStateChangeByBundleID, GlobalAppProgress, Logging>;

  explicit MessageRegistration(Cases cases) noexcept : cases_(std::move(cases)) {}
  [[nodiscard]] static MessageRegistration appCatalog() noexcept {
    return MessageRegistration(Cases(AppCatalog{}));
  }
  [[nodiscard]] static MessageRegistration appStateChangeByBundleID(std::string bundleID) noexcept {
    return MessageRegistration(Cases(AppStateChangeByBundleID{std::move(bundleID)}));
  }
  [[nodiscard]] static MessageRegistration globalAppProgress() noexcept {
    return MessageRegistration(Cases(GlobalAppProgress{}));
  }
  [[nodiscard]] static MessageRegistration logging() noexcept {
    return MessageRegistration(Cases(Logging{}));
  }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }

  /// "App catalog changed", "App state changes: <bundle identifier>", "Global app progress",
  /// "Logging".
  [[nodiscard]] std::string description() const;

  /// Same case and, for `appStateChangeByBundleID`, the same bundle identifier (case-sensitive).
  friend bool operator==(const MessageRegistration& a, const MessageRegistration& b) noexcept;

 private:
  Cases cases_;
};

/// "[App catalog changed, App state changes: x]": the bracketed, comma-separated text forms.
[[nodiscard]] std::string description(const std::vector<MessageRegistration>& registrations);

}  // namespace corvane

/// Hashes the case index, then (for `appStateChangeByBundleID`) the bundle identifier.
template <>
struct std::hash<corvane::MessageRegistration> {
  std::size_t operator()(const corvane::MessageRegistration& value) const noexcept;
};

/// Formats a registration as its text form.
template <>
struct fmt::formatter<corvane::MessageRegistration> : fmt::formatter<std::string_view> {
  auto format(const corvane::MessageRegistration& value, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(value.description(), ctx);
  }
};
