#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>

#include <optional>
#include <string>

namespace corvane {

/// Asks for the status of one declaration, or of all when `declarationKey` is absent.
/// Coded as {"declarationKey": "..."} or, without a key, {}.
struct DDMDeclarationStatusRequest {
  std::optional<std::string> declarationKey;
};
BOOST_DESCRIBE_STRUCT(DDMDeclarationStatusRequest, (), (declarationKey))

}  // namespace corvane
