#pragma once

#include <corvane/coding/Bytes.hpp>
#include <corvane/coding/Coding.hpp>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>

namespace corvane {

namespace coding {
/// Parses one JSON document (the whole text; trailing data is an error), nested at most 128
/// deep, with correctly rounded floating-point numbers. Throws `CodingError` (dataCorrupted, path
/// "") for anything else.
[[nodiscard]] boost::json::value parseDocument(std::string_view text,
                                               boost::json::storage_ptr storage = {});
}  // namespace coding

namespace coding::detail {
/// Parses a buffer into a document and checks that its top level is a list of at least
/// `expected` elements. Throws `CodingError` otherwise.
const boost::json::array& parseEnvelope(std::span<const std::byte> buffer,
                                        boost::json::value& document,
                                        boost::json::storage_ptr storage, std::size_t expected);
}  // namespace coding::detail

/// Takes values of the types `Ts...` out of one buffer, in order. Elements beyond the expected
/// ones are not read.
template <class... Ts>
struct TetherDecoder {
  /// Decodes the buffer. Throws `CodingError` for a buffer that is not a JSON document, a top level
  /// that is not a list, a list shorter than `sizeof...(Ts)`, or any value that does not decode;
  /// the error's coding path starts at the list ("[0].app").
  [[nodiscard]] static std::tuple<Ts...> decode(std::span<const std::byte> buffer) {
    // Small documents (most replies) parse without touching the heap.
    std::array<unsigned char, 2048> initial;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    boost::json::monotonic_resource scratch(initial.data(), initial.size());
    boost::json::value document;
    const auto& list = coding::detail::parseEnvelope(buffer, document, &scratch, sizeof...(Ts));
    const coding::CodingPath root;
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return std::tuple<Ts...>{decodeAt<Ts>(list, I, root)...};
    }
    (std::index_sequence_for<Ts...>{});
  }
  [[nodiscard]] static std::tuple<Ts...> decode(const Bytes& buffer) {
    return decode(buffer.span());
  }

 private:
  template <class T>
  static T decodeAt(const boost::json::array& list, std::size_t index,
                    const coding::CodingPath& root) {
    const coding::CodingPath path(root, index);
    return coding::decode<T>(list[index], path);
  }
};

}  // namespace corvane
