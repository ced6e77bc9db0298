#pragma once

#include <corvane/coding/CorvaneError.hpp>

#include <exception>
#include <optional>
#include <utility>
#include <variant>

namespace corvane {

/// The result box of a synchronous service call: written once by whichever of the reply and
/// error handlers runs, before the blocked call returns, and read by the caller after it; so no
/// lock is needed. `Failure` is what a failed call carries (the library's: the exception to
/// throw, holding a `corvane::Error`).
template <class Success, class Failure = std::exception_ptr>
class SyncTetherResult {
 public:
  /// Empty until a handler has run.
  std::optional<std::variant<Success, Failure>> result;

  /// The value of a success; rethrows a failure; an empty box (no handler ran) throws
  /// `corvane::Error` (unrecoverableError).
  Success valueOrThrow() && {
    if (!result)
      throw Error(CorvaneError::unrecoverableError, "the call returned without an outcome");
    if (auto* value = std::get_if<Success>(&*result)) return std::move(*value);
    if constexpr (std::is_same_v<Failure, std::exception_ptr>) {
      std::rethrow_exception(std::get<Failure>(*result));
    } else {
      throw Error(std::get<Failure>(*result));
    }
  }
};

}  // namespace corvane
