#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CorvaneError.hpp>

#include <boost/describe/class.hpp>

#include <optional>
#include <string_view>
#include <utility>
#include <variant>

namespace corvane {

/// The reply envelope of every remote operation: the operation's value, or the daemon's error.
/// Coded as {"success": {"_0": value}} or {"failure": {"_0": {"networkError": {}}}}; the "_0" key
/// is always written, for `ServiceResult<None>` as an explicit null, and is required on reading.
template <class Value>
class ServiceResult {
 public:
  struct Success {
    static constexpr std::string_view caseName = "success";
    Value _0;
    friend bool operator==(const Success&, const Success&) = default;
    BOOST_DESCRIBE_CLASS(Success, (), (_0), (), ())
  };
  struct Failure {
    static constexpr std::string_view caseName = "failure";
    CorvaneError _0{CorvaneError::unrecoverableError};
    friend bool operator==(const Failure&, const Failure&) = default;
    BOOST_DESCRIBE_CLASS(Failure, (), (_0), (), ())
  };
  using Cases = std::variant<Success, Failure>;

  explicit ServiceResult(Cases cases) : cases_(std::move(cases)) {}
  [[nodiscard]] static ServiceResult success(Value value) {
    return ServiceResult(Cases(Success{std::move(value)}));
  }
  [[nodiscard]] static ServiceResult failure(CorvaneError error) {
    return ServiceResult(Cases(Failure{error}));
  }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }
  [[nodiscard]] bool isSuccess() const noexcept { return cases_.index() == 0; }
  /// The value of a success; nullptr for a failure.
  [[nodiscard]] const Value* value() const noexcept {
    const auto* s = std::get_if<Success>(&cases_);
    return s ? &s->_0 : nullptr;
  }
  /// The error of a failure; empty for a success.
  [[nodiscard]] std::optional<CorvaneError> error() const noexcept {
    const auto* f = std::get_if<Failure>(&cases_);
    return f ? std::optional(f->_0) : std::nullopt;
  }
  /// The caller's outcome: the value of a success. Throws `corvane::Error` with the error of a
  /// failure.
  [[nodiscard]] Value valueOrThrow() && {
    if (auto* s = std::get_if<Success>(&cases_)) return std::move(s->_0);
    throw Error(std::get<Failure>(cases_)._0);
  }

  friend bool operator==(const ServiceResult&, const ServiceResult&) = default;

 private:
  Cases cases_;
};

}  // namespace corvane
