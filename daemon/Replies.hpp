#pragma once

// How the daemon's operations answer: the encoded result envelopes, and the refusal that turns
// into a failure with a reason.

#include <corvane/base/Bytes.hpp>
#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <fmt/format.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace corvane::sim {

template <class Value>
[[nodiscard]] Bytes success(Value value) {
  return TetherEncoder::encode(ServiceResult<Value>::success(std::move(value)));
}
[[nodiscard]] inline Bytes done() {
  return success(None{});
}
[[nodiscard]] inline Bytes failure(CorvaneError error, std::optional<std::string> reason) {
  return TetherEncoder::encode(ServiceResult<None>::failure(error, std::move(reason)));
}

/// A failure of the request itself (an unknown declaration, an app in the wrong state): logged
/// and answered with `unrecoverableError`, its text as the reason. The text is a sentence the
/// caller can act on.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What was wrong with an argument that does not decode, for the caller.
[[nodiscard]] inline std::string malformedArgument(const CodingError& error) {
  const std::string where = error.codingPath().empty() ? "the top level" : error.codingPath();
  return fmt::format("the argument is malformed: {} at {}: {}", toString(error.kind()), where,
                     error.description());
}

/// The argument of an operation that takes one; a call without it is refused.
[[nodiscard]] inline const Bytes& required(const std::optional<Bytes>& argument) {
  if (!argument) throw Refusal("the call carries no argument");
  return *argument;
}

}  // namespace corvane::sim
