#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CorvaneError.hpp>

#include <boost/describe/class.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace corvane {

/// The reply envelope of every remote operation: the operation's value, or the daemon's error.
/// Coded as {"success": {"_0": value}} or {"failure": {"_0": {"networkError": {}}}}; the "_0" key
/// is always written, for `ServiceResult<None>` as an explicit null, and is required on reading.
///
/// A failure may also say why, for a person to read:
/// {"failure": {"_0": {"networkError": {}}, "reason": "item 42 is not in the catalogue"}}. The
/// "reason" key sits beside "_0", where a decoder that does not know it ignores it, so a peer that
/// sends or expects the plain envelope is unaffected.
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
    /// Why the daemon refused, in words; absent when it did not say.
    std::optional<std::string> reason;
    friend bool operator==(const Failure&, const Failure&) = default;
    BOOST_DESCRIBE_CLASS(Failure, (), (_0, reason), (), ())
  };
  using Cases = std::variant<Success, Failure>;

  explicit ServiceResult(Cases cases) : cases_(std::move(cases)) {}
  [[nodiscard]] static ServiceResult success(Value value) {
    return ServiceResult(Cases(Success{std::move(value)}));
  }
  [[nodiscard]] static ServiceResult failure(CorvaneError error,
                                             std::optional<std::string> reason = std::nullopt) {
    return ServiceResult(Cases(Failure{error, std::move(reason)}));
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
  /// The reason a failure gave; empty for a success or a failure without one.
  [[nodiscard]] const std::optional<std::string>& reason() const noexcept {
    static const std::optional<std::string> none;
    const auto* f = std::get_if<Failure>(&cases_);
    return f ? f->reason : none;
  }
  /// The caller's outcome: the value of a success. Throws `corvane::Error` with the error of a
  /// failure, and its reason as the error's `cause()`.
  [[nodiscard]] Value valueOrThrow() && {
    if (auto* s = std::get_if<Success>(&cases_)) return std::move(s->_0);
    auto& failure = std::get<Failure>(cases_);
    throw Error(failure._0, std::move(failure.reason).value_or(std::string()));
  }

  friend bool operator==(const ServiceResult&, const ServiceResult&) = default;

 private:
  Cases cases_;
};

}  // namespace corvane
