#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>

#include <optional>
#include <string>

namespace corvane {

/// Names the managed-app declaration whose installation is to be cancelled.
/// Coded as {"declarationIdentifier": "..."} or, without one, {}.
struct ManagedAppCancelRequest {
  std::optional<std::string> declarationIdentifier;
};
BOOST_DESCRIBE_STRUCT(ManagedAppCancelRequest, (), (declarationIdentifier))

}  // namespace corvane
