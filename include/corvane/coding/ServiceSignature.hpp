#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/asio/async_result.hpp>

#include <exception>
#include <type_traits>

namespace corvane {

/// The completion signature of a service call returning `Value`: `void(std::exception_ptr)`
/// for operations without a value (`None`), else `void(std::exception_ptr, Value)`. The
/// exception is empty on success; on failure it holds a `corvane::Error` (or, for an argument
/// that cannot be encoded, the encoder's `CodingError`) and the value is default-made.
template <class Value>
using ServiceSignature = std::conditional_t<std::is_same_v<Value, None>, void(std::exception_ptr),
                                            void(std::exception_ptr, Value)>;

/// The constraint on the token of every service call returning `Value`: any Asio completion token
/// for `ServiceSignature<Value>` (a callback, `use_future`, `use_awaitable`, `deferred`, ...).
template <class Token, class Value>
concept ServiceToken = boost::asio::completion_token_for<Token, ServiceSignature<Value>>;

}  // namespace corvane
