#pragma once

#include <boost/describe/enum.hpp>
#include <fmt/format.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace corvane {

/// The library's four error kinds. Only the daemon produces the last three; every failure made
/// inside the library is `unrecoverableError`. The values start at 1 so that no kind reads as
/// "no error" in a std::error_code.
enum class CorvaneError {
  unrecoverableError = 1,
  networkError,
  deviceNotManaged,
  unsupportedPlatform,
};
BOOST_DESCRIBE_ENUM(CorvaneError, unrecoverableError, networkError, deviceNotManaged,
                    unsupportedPlatform)

/// The error category of `CorvaneError`; its `message()` is the localized description.
[[nodiscard]] const std::error_category& corvaneCategory() noexcept;
[[nodiscard]] std::error_code make_error_code(CorvaneError error) noexcept;

/// "networkError" and so on: the case name, as coded on the wire and written in logs.
[[nodiscard]] std::string_view caseName(CorvaneError error) noexcept;
/// "error.networkError" and so on: the key of the localized description.
[[nodiscard]] std::string_view localizationKey(CorvaneError error) noexcept;
/// The description in the current locale, looked up afresh on every call; the localization key
/// itself when the resource bundle has no translation.
[[nodiscard]] std::string localizedDescription(CorvaneError error);

/// The exception that carries a `CorvaneError`. `code()` is in `corvaneCategory()` and
/// `code().message()` is the localized description. The error also keeps its `cause`, in words:
/// for a failure made inside the library what went wrong underneath ("cannot connect to
/// /run/corvane/...: No such file or directory"), for a failure the daemon reported the reason it
/// gave ("item 42 is not in the catalogue"). `what()` adds it to the description so that a person
/// can act on it.
class Error : public std::system_error {
 public:
  /// `origin`: the error underneath a failure made inside the library, if it has one.
  explicit Error(CorvaneError error, std::string cause = {}, std::error_code origin = {});

  [[nodiscard]] CorvaneError error() const noexcept { return error_; }
  /// What went wrong underneath, or the reason the daemon gave; empty when there is none.
  [[nodiscard]] const std::string& cause() const noexcept { return *cause_; }
  /// The error underneath a failure made inside the library, for code to act on: the connection's
  /// `ipc::ConnectionError` (connectFailed, interrupted, timedOut, ...) when the call could not be
  /// completed, `boost::asio::error::operation_aborted` (equal to `std::errc::operation_canceled`)
  /// when the caller cancelled it. Empty for a failure the daemon reported and for the other local
  /// failures (switched off, an undecodable reply).
  [[nodiscard]] std::error_code origin() const noexcept { return origin_; }
  /// Whether the caller cancelled the call (see `origin`).
  [[nodiscard]] bool isCancellation() const noexcept {
    return origin_ == std::errc::operation_canceled;
  }
  /// The localized description (as it was when the error was made), then the cause if any.
  [[nodiscard]] const char* what() const noexcept override { return what_->c_str(); }
  /// The localized description, looked up afresh on every call.
  [[nodiscard]] std::string localizedDescription() const {
    return corvane::localizedDescription(error_);
  }
  /// The error kinds carry no reason, suggestion or help anchor.
  [[nodiscard]] std::optional<std::string> failureReason() const { return std::nullopt; }
  [[nodiscard]] std::optional<std::string> recoverySuggestion() const { return std::nullopt; }
  [[nodiscard]] std::optional<std::string> helpAnchor() const { return std::nullopt; }
  /// No recovery options are offered.
  [[nodiscard]] std::vector<std::string> recoveryOptions() const { return {}; }
  /// Recovery never succeeds.
  [[nodiscard]] bool attemptRecovery(std::size_t /*optionIndex*/) const noexcept { return false; }
  /// Calls `completion` once, on the calling thread, with false.
  void attemptRecovery(std::size_t /*optionIndex*/,
                       const std::function<void(bool)>& completion) const {
    if (completion) completion(false);
  }

 private:
  CorvaneError error_;
  std::error_code origin_;
  // Shared, so that copying the exception never throws.
  std::shared_ptr<const std::string> cause_;
  std::shared_ptr<const std::string> what_;
};

/// Maps any failure to a `CorvaneError`: a `corvane::Error` passes through unchanged, anything
/// else (including a null pointer) becomes `unrecoverableError`.
[[nodiscard]] CorvaneError toCorvaneError(const std::exception_ptr& failure) noexcept;

}  // namespace corvane

template <>
struct std::is_error_code_enum<corvane::CorvaneError> : std::true_type {};

/// Formats a `CorvaneError` as its case name.
template <>
struct fmt::formatter<corvane::CorvaneError> : fmt::formatter<std::string_view> {
  auto format(corvane::CorvaneError error, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(corvane::caseName(error), ctx);
  }
};
