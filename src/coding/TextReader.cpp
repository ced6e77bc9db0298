#include <corvane/coding/detail/TextReader.hpp>

#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>
#include <utility>

namespace corvane::coding::detail {
namespace {

[[nodiscard]] constexpr bool inRange(unsigned char c, unsigned char low, unsigned char high) {
  return c >= low && c <= high;
}

// The length of the well-formed UTF-8 sequence at `at` (its first byte 0x80 or above), or 0.
[[nodiscard]] std::size_t sequenceLength(const char* at, const char* end) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(at[i]); };
  const auto available = static_cast<std::size_t>(end - at);
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (inRange(lead, 0xC2, 0xDF)) {
    length = 2;
  } else if (inRange(lead, 0xE0, 0xEF)) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (inRange(lead, 0xF0, 0xF4)) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // no overlong forms
    if (lead == 0xF4) high = 0x8F;  // nothing beyond U+10FFFF
  } else {
    return 0;
  }
  if (available < length || !inRange(byte(1), low, high)) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!inRange(byte(i), 0x80, 0xBF)) return 0;
  }
  return length;
}

[[nodiscard]] int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = static_cast<char>(c | 0x20);
  if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
  return -1;
}

// The character a one-letter escape ("\\n") stands for; '\0' for a letter that is none.
[[nodiscard]] char unescapedLetter(char letter) noexcept {
  constexpr std::array<std::pair<char, char>, 8> escapes{{{'"', '"'},
                                                          {'\\', '\\'},
                                                          {'/', '/'},
                                                          {'b', '\b'},
                                                          {'f', '\f'},
                                                          {'n', '\n'},
                                                          {'r', '\r'},
                                                          {'t', '\t'}}};
  for (const auto& [escape, stands] : escapes) {
    if (escape == letter) return stands;
  }
  return '\0';
}

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::string_view TextCursor::anyString() {
  if (peek() != '"') throw Unread();
  const char* start = ++at_;
  for (;;) {
    at_ = firstSpecial(at_, end_);
    if (at_ == end_) throw Unread();  // not terminated
    const auto c = static_cast<unsigned char>(*at_);
    if (c == '"') return {start, static_cast<std::size_t>(at_++ - start)};
    if (c == '\\') return escapedString(start);
    if (c < 0x20) throw Unread();  // control characters must be escaped
    multibyte();
  }
}

void TextCursor::multibyte() {
  const std::size_t length = sequenceLength(at_, end_);
  if (length == 0) throw Unread();  // not UTF-8
  at_ += length;
}

std::string_view TextCursor::escapedString(const char* start) {
  unescaped_.assign(start, at_);
  // Reads four hex digits after "\u".
  const auto unit = [&]() -> std::uint32_t {
    if (end_ - at_ < 4) throw Unread();
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const int digit = hexDigit(*at_++);
      if (digit < 0) throw Unread();
      value = value << 4U | static_cast<std::uint32_t>(digit);
    }
    return value;
  };
  for (;;) {
    const char* run = at_;
    at_ = firstSpecial(at_, end_);
    unescaped_.append(run, at_);
    if (at_ == end_) throw Unread();
    const auto c = static_cast<unsigned char>(*at_);
    if (c == '"') {
      ++at_;
      return unescaped_;
    }
    if (c < 0x20) throw Unread();
    if (c >= 0x80) {
      const char* sequence = at_;
      multibyte();
      unescaped_.append(sequence, at_);
      continue;
    }
    if (++at_ == end_) throw Unread();
    const char letter = *at_++;
    if (letter != 'u') {
      const char stands = unescapedLetter(letter);
      if (stands == '\0') throw Unread();
      unescaped_.push_back(stands);
      continue;
    }
    std::uint32_t cp = unit();
    if (cp >= 0xDC00 && cp <= 0xDFFF) throw Unread();  // a trailing surrogate alone
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      // Only a leading surrogate followed by a trailing one is taken.
      if (end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') throw Unread();
      at_ += 2;
      const std::uint32_t trailing = unit();
      if (trailing < 0xDC00 || trailing > 0xDFFF) throw Unread();
      cp = 0x10000 + ((cp - 0xD800) << 10U) + (trailing - 0xDC00);
    }
    appendUtf8(unescaped_, cp);
  }
}

void TextCursor::literal(std::string_view word) {
  if (static_cast<std::size_t>(end_ - at_) < word.size()
      || std::string_view(at_, word.size()) != word) {
    throw Unread();
  }
  at_ += word.size();
}

bool TextCursor::takeAfterSpace(char c) noexcept {
  if (peek() != c) return false;
  ++at_;
  return true;
}

bool TextCursor::takeNullAfterSpace() {
  if (peek() != 'n') return false;
  literal("null");
  return true;
}

boost::json::value TextCursor::scalar() {
  switch (peek()) {
    case 't':
      literal("true");
      return true;
    case 'f':
      literal("false");
      return false;
    case 'n':
      literal("null");
      return nullptr;
    default:
      break;
  }
  const auto digits = [&] {
    const char* first = at_;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
    return at_ - first;
  };
  const char* begin = at_;
  const bool negative = at_ != end_ && *at_ == '-';
  if (negative) ++at_;
  const char* integral = at_;
  if (at_ != end_ && *at_ == '0') {
    ++at_;  // no leading zeros: a digit after it ends the number
  } else if (digits() == 0) {
    throw Unread();
  }
  const char* integralEnd = at_;
  bool isInteger = true;
  if (at_ != end_ && *at_ == '.') {
    ++at_;
    if (digits() == 0) throw Unread();
    isInteger = false;
  }
  if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
    ++at_;
    if (at_ != end_ && (*at_ == '+' || *at_ == '-')) ++at_;
    // Exponents the parser might find too large are left to it.
    const auto exponentDigits = digits();
    if (exponentDigits == 0 || exponentDigits > 6) throw Unread();
    isInteger = false;
  }
  if (isInteger) {
    // Integers the parser reads as int64 or uint64; it reads any other as a double, left to it.
    if (integralEnd - integral > 20) throw Unread();
    std::uint64_t magnitude = 0;
    if (std::from_chars(integral, integralEnd, magnitude).ec != std::errc()) throw Unread();
    if (!negative) {
      if (magnitude <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return static_cast<std::int64_t>(magnitude);
      }
      return magnitude;
    }
    constexpr std::uint64_t lowest = std::uint64_t{1} << 63U;
    if (magnitude > lowest) throw Unread();
    return static_cast<std::int64_t>(~magnitude + 1);
  }
  // Correctly rounded, as the parser's numbers are; a value out of range is left to it.
  double value = 0;
  const auto [stop, ec] = std::from_chars(begin, at_, value);
  if (ec != std::errc() || stop != at_) throw Unread();
  return value;
}

void TextCursor::skip() {
  switch (peek()) {
    case '"':
      (void)string();
      return;
    case '{':
      open('{');
      if (closes('}')) return;
      do {
        (void)string();
        expect(':');
        skip();
      } while (take(','));
      close('}');
      return;
    case '[':
      open('[');
      if (closes(']')) return;
      do {
        skip();
      } while (take(','));
      close(']');
      return;
    default:
      (void)scalar();
  }
}

std::string_view TextCursor::skipped() {
  skipSpace();
  const char* begin = at_;
  skip();
  return {begin, static_cast<std::size_t>(at_ - begin)};
}

}  // namespace corvane::coding::detail
