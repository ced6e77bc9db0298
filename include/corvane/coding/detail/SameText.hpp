#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace corvane::coding::detail {

/// Whether two texts are equal; quicker than the library's comparison for the short texts that
/// keys and case names are: up to 32 bytes are compared a word at a time, without a call.
[[nodiscard, gnu::always_inline]] constexpr bool sameText(std::string_view a,
                                                          std::string_view b) noexcept {
  if (std::is_constant_evaluated()) return a == b;
  const std::size_t size = a.size();
  if (size != b.size()) return false;
  const auto word = [](const char* at) {
    std::uint64_t w = 0;
    std::memcpy(&w, at, sizeof w);
    return w;
  };
  const auto half = [](const char* at) {
    std::uint32_t w = 0;
    std::memcpy(&w, at, sizeof w);
    return w;
  };
  // The first and the last bytes of a width, overlapping when the text is shorter than twice it.
  const char* const x = a.data();
  const char* const y = b.data();
  if (size > 32) return std::memcmp(x, y, size) == 0;
  if (size > 16) {
    return ((word(x) ^ word(y)) | (word(x + 8) ^ word(y + 8))
            | (word(x + size - 16) ^ word(y + size - 16))
            | (word(x + size - 8) ^ word(y + size - 8)))
           == 0;
  }
  if (size >= 8) return ((word(x) ^ word(y)) | (word(x + size - 8) ^ word(y + size - 8))) == 0;
  if (size >= 4) return ((half(x) ^ half(y)) | (half(x + size - 4) ^ half(y + size - 4))) == 0;
  for (std::size_t i = 0; i < size; ++i) {
    if (x[i] != y[i]) return false;
  }
  return true;
}

}  // namespace corvane::coding::detail
