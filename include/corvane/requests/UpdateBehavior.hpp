#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

namespace corvane {

/// How a declared app is updated. Its one case, `automaticallyUpdate`, may name the store
/// version to update to. Coded {"automaticallyUpdate": {"evid": 12}} or
/// {"automaticallyUpdate": {}}.
class UpdateBehaviorEnum {
 public:
  struct AutomaticallyUpdate {
    static constexpr std::string_view caseName = "automaticallyUpdate";
    std::optional<std::int64_t> evid;
    BOOST_DESCRIBE_CLASS(AutomaticallyUpdate, (), (evid), (), ())
  };
  using Cases = std::variant<AutomaticallyUpdate>;

  explicit UpdateBehaviorEnum(Cases cases) noexcept : cases_(cases) {}
  [[nodiscard]] static UpdateBehaviorEnum automaticallyUpdate(
      std::optional<std::int64_t> evid = std::nullopt) {
    return UpdateBehaviorEnum(Cases(AutomaticallyUpdate{evid}));
  }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }
  /// The external version to update to, when one is named.
  [[nodiscard]] std::optional<std::int64_t> evid() const noexcept {
    return std::get<AutomaticallyUpdate>(cases_).evid;
  }

 private:
  Cases cases_;
};

/// A wrapper of one update behaviour. Coded {"rawValue": {"automaticallyUpdate": {...}}}.
struct UpdateBehavior {
  UpdateBehaviorEnum rawValue = UpdateBehaviorEnum::automaticallyUpdate();
};
BOOST_DESCRIBE_STRUCT(UpdateBehavior, (), (rawValue))

}  // namespace corvane
