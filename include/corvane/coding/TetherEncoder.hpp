#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/coding/Coding.hpp>

#include <boost/json/array.hpp>

namespace corvane {

namespace coding::detail {
/// Serialises the envelope into one buffer.
Bytes serialize(const boost::json::value& envelope);
}  // namespace coding::detail

/// Puts values into one buffer: a JSON document whose top level is the list of the values in
/// order. One argument gives a list of one element.
struct TetherEncoder {
  /// Encodes `values` in order. Throws `CodingError` (kind invalidValue) when a value cannot be
  /// represented, for example a non-finite number; nothing is returned then.
  template <class... Ts>
  [[nodiscard]] static Bytes encode(const Ts&... values) {
    boost::json::value envelope;
    auto& list = envelope.emplace_array();
    list.reserve(sizeof...(Ts));
    (
        [&] {
          if constexpr (!coding::writesNothing<Ts>)
            coding::encode(values, list.emplace_back(nullptr));
        }(),
        ...);
    return coding::detail::serialize(envelope);
  }
};

}  // namespace corvane
