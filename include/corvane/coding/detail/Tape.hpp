#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::coding::detail {

/// One JSON document as the flat list of its tokens in text order, so that values can be decoded
/// without first building a tree of them. A container's token is followed by its contents (an
/// object's as key, value, key, value, ...) and knows where they end, so a value of any size is
/// skipped in one step. Keys and strings are kept unescaped.
class Tape {
 public:
  enum class Kind : std::uint8_t {
    object,
    array,
    key,
    string,
    int64,
    uint64,
    double_,
    bool_,
    null
  };

  struct Token {
    Kind kind = Kind::null;
    /// The number of elements or entries of a container.
    std::uint32_t size = 0;
    /// The index of the token after this value and all it contains.
    std::size_t next = 0;
    /// A key's or string's text.
    std::string_view text;
    /// A number's or boolean's bits.
    std::uint64_t bits = 0;

    [[nodiscard]] std::int64_t int64() const noexcept { return std::bit_cast<std::int64_t>(bits); }
    [[nodiscard]] std::uint64_t uint64() const noexcept { return bits; }
    [[nodiscard]] double double_() const noexcept { return std::bit_cast<double>(bits); }
    [[nodiscard]] bool bool_() const noexcept { return bits != 0; }
  };

  Tape() = default;
  // Tokens point into the tape's own text.
  Tape(const Tape&) = delete;
  Tape& operator=(const Tape&) = delete;
  ~Tape() = default;

  /// Reads `text` as `coding::parseDocument` does (the same texts are accepted, the same numbers
  /// read); false for anything that is not one such document. Keys and strings without escapes
  /// point into `text`, which must outlive the tokens.
  [[nodiscard]] bool parse(std::string_view text);

  [[nodiscard]] const Token& operator[](std::size_t index) const noexcept { return tokens_[index]; }

 private:
  std::vector<Token> tokens_;
  // The keys and strings that had escapes (or came in parts), unescaped.
  std::string strings_;
};

}  // namespace corvane::coding::detail
