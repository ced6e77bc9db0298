#pragma once

#include <corvane/coding/Coding.hpp>

namespace corvane {

/// Asks for the current declaration keys. It has no fields.
struct DDMDeclarationKeysRequest {};

namespace coding {
/// Encodes as an empty object; decoding reads nothing and never fails, whatever the input.
template <>
struct Coding<DDMDeclarationKeysRequest> {
  static void encode(DDMDeclarationKeysRequest /*value*/, boost::json::value& out) {
    out.emplace_object();
  }
  static DDMDeclarationKeysRequest decode(const boost::json::value& /*in*/,
                                          const CodingPath& /*path*/) noexcept {
    return {};
  }
};
}  // namespace coding

}  // namespace corvane
