#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/coding/Coding.hpp>
#include <corvane/coding/detail/TextReader.hpp>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace corvane {

namespace coding::detail {
/// Parses a buffer into a document (its values in `storage`) and checks that its top level is a
/// list of at least `expected` elements. Throws `CodingError` otherwise.
boost::json::value parseEnvelope(std::span<const std::byte> buffer,
                                 boost::json::storage_ptr storage, std::size_t expected);

/// Decodes the values through a tree of values, whose errors say what is wrong and where.
template <class... Ts>
std::tuple<Ts...> decodeFromTree(std::span<const std::byte> buffer) {
  // Small documents (most replies) parse without touching the heap.
  std::array<unsigned char, 2048> initial;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  boost::json::monotonic_resource scratch(initial.data(), initial.size());
  const boost::json::value document = parseEnvelope(buffer, &scratch, sizeof...(Ts));
  const auto& list = document.get_array();
  const CodingPath root;
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return std::tuple<Ts...>{decode<Ts>(list[I], CodingPath(root, I))...};
  }
  (std::index_sequence_for<Ts...>{});
}

/// Decodes the values straight from the buffer's text: the values `decodeFromTree` gives, or
/// empty where it would throw (and for the few texts the direct reading leaves to it).
template <class... Ts>
std::optional<std::tuple<Ts...>> decodeDirectly(std::span<const std::byte> buffer) noexcept {
  try {
    return readList<Ts...>(
        std::string_view(reinterpret_cast<const char*>(buffer.data()), buffer.size()));  // NOLINT
  } catch (...) {
    return std::nullopt;
  }
}
}  // namespace coding::detail

/// Takes values of the types `Ts...` out of one buffer, in order. Elements beyond the expected
/// ones are not read.
template <class... Ts>
struct TetherDecoder {
  /// Decodes the buffer. Throws `CodingError` for a buffer that is not a JSON document, a top level
  /// that is not a list, a list shorter than `sizeof...(Ts)`, or any value that does not decode;
  /// the error's coding path starts at the list ("[0].app").
  [[nodiscard]] static std::tuple<Ts...> decode(std::span<const std::byte> buffer) {
    // Valid documents decode straight from their text; any other is decoded again through a
    // tree of values, which says what is wrong and where.
    if (auto values = coding::detail::decodeDirectly<Ts...>(buffer)) return std::move(*values);
    return coding::detail::decodeFromTree<Ts...>(buffer);
  }
  [[nodiscard]] static std::tuple<Ts...> decode(const Bytes& buffer) {
    return decode(buffer.span());
  }
};

}  // namespace corvane
