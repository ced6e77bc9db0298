#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace corvane {

/// The compact installation state of one app, as the daemon pushes it. A paused state holds the
/// state it was paused in, in a shared immutable cell: copies share it.
/// Coded case-keyed: {"downloading": {"_0": 0.25}}, {"paused": {"_0": {...}}}, {"installed": {}}.
class AppState {
 public:
  /// Whether the app can be obtained for the first time, again, or as an update. Coded
  /// case-keyed: {"update": {}}.
  enum class Availability { available, redownload, update };
  BOOST_DESCRIBE_NESTED_ENUM(Availability, available, redownload, update)

  struct Available {
    static constexpr std::string_view caseName = "available";
    Availability _0 = Availability::available;
    BOOST_DESCRIBE_CLASS(Available, (), (_0), (), ())
  };
  struct Downloading {
    static constexpr std::string_view caseName = "downloading";
    double _0 = 0;  ///< progress as a fraction, 1.0 = complete
    BOOST_DESCRIBE_CLASS(Downloading, (), (_0), (), ())
  };
  struct Installing {
    static constexpr std::string_view caseName = "installing";
    double _0 = 0;  ///< progress as a fraction
    BOOST_DESCRIBE_CLASS(Installing, (), (_0), (), ())
  };
  struct Paused {
    static constexpr std::string_view caseName = "paused";
    std::shared_ptr<const AppState> _0;  ///< never null
    BOOST_DESCRIBE_CLASS(Paused, (), (_0), (), ())
  };
  struct Installed {
    static constexpr std::string_view caseName = "installed";
  };
  struct Managed {
    static constexpr std::string_view caseName = "managed";
  };
  struct Waiting {
    static constexpr std::string_view caseName = "waiting";
  };
  using Cases =
      std::variant<Available, Downloading, Installing, Paused, Installed, Managed, Waiting>;

  /// Wraps one case. Throws std::invalid_argument for a paused case without an inner state.
  explicit AppState(Cases cases);

  [[nodiscard]] static AppState available(Availability availability) {
    return AppState(Cases(Available{availability}));
  }
  [[nodiscard]] static AppState downloading(double progress) {
    return AppState(Cases(Downloading{progress}));
  }
  [[nodiscard]] static AppState installing(double progress) {
    return AppState(Cases(Installing{progress}));
  }
  [[nodiscard]] static AppState paused(AppState state);
  [[nodiscard]] static AppState installed() { return AppState(Cases(Installed{})); }
  [[nodiscard]] static AppState managed() { return AppState(Cases(Managed{})); }
  [[nodiscard]] static AppState waiting() { return AppState(Cases(Waiting{})); }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }

  /// "Available", "Downloading (45.67%)", "Paused at state Installed", ...
  [[nodiscard]] std::string description() const;

  /// Same case and equal payloads; progress compares as a double (NaN equals nothing) and a
  /// paused state compares its inner state by this same rule.
  friend bool operator==(const AppState& a, const AppState& b) noexcept;

 private:
  Cases cases_;
};

/// The text form of an availability: "Available", "Redownload", "Update".
[[nodiscard]] std::string_view description(AppState::Availability availability) noexcept;

}  // namespace corvane

/// Formats an app state as its text form.
template <>
struct fmt::formatter<corvane::AppState> : fmt::formatter<std::string_view> {
  auto format(const corvane::AppState& state, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(state.description(), ctx);
  }
};
