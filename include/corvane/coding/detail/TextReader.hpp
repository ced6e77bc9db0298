#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/detail/SameText.hpp>

#include <boost/describe/members.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace corvane::coding::detail {

/// Thrown by `TextReader` for a text it does not take as it stands: not JSON, not the shape the
/// generic coding expects, or merely unusual (a number the parser would read differently, a
/// nesting deeper than it likes). The caller decodes the document through a tree of values
/// instead, whose errors say what is wrong and where.
struct Unread {};

/// Whether `Coding<T>` is the coder's own, generic one (not a type's own wire form).
template <class T>
concept HasGenericCoding = std::derived_from<Coding<T>, GenericCodingOf<T>>;

/// Whether `TextReader` reads a T into an existing value (rather than making a new one).
template <class T>
concept ReadInPlace = HasGenericCoding<T> && !CaseKeyed<T>;

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};
template <class T>
struct IsStringMap : std::false_type {};
template <class T>
struct IsStringMap<std::map<std::string, T>> : std::true_type {};
template <class T>
struct IsSharedConst : std::false_type {};
template <class T>
struct IsSharedConst<std::shared_ptr<const T>> : std::true_type {};

/// Converts to a new T made by `Access`: a container given one constructs the T in place, where
/// `Access::make<T>()` itself would make a temporary to move in and destroy.
template <class T>
struct Made {
  // NOLINTNEXTLINE(google-explicit-constructor): the conversion is the point
  [[nodiscard]] operator T() const { return Access::make<T>(); }
};

/// Whether a string cannot simply contain `c`: a quote, a backslash, a control character or a
/// byte of a multibyte sequence.
[[nodiscard]] constexpr bool isSpecial(unsigned char c) noexcept {
  return c == '"' || c == '\\' || c < 0x20 || c >= 0x80;
}

/// The first byte from `at` that `isSpecial`; `end` if there is none. Sixteen bytes at a time.
[[nodiscard, gnu::always_inline]] inline const char* firstSpecial(const char* at,
                                                                  const char* end) noexcept {
#if defined(__SSE2__)
  const __m128i lastControl = _mm_set1_epi8(0x1F);
  while (end - at >= 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));  // NOLINT
    const __m128i marked = _mm_or_si128(
        _mm_or_si128(_mm_cmpeq_epi8(chunk, _mm_set1_epi8('"')),
                     _mm_cmpeq_epi8(chunk, _mm_set1_epi8('\\'))),
        // Bytes up to 0x1F; the chunk's own top bits mark the bytes from 0x80.
        _mm_or_si128(_mm_cmpeq_epi8(_mm_max_epu8(chunk, lastControl), lastControl), chunk));
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(marked));
    if (mask != 0) return at + std::countr_zero(mask);
    at += 16;
  }
#endif
  while (at != end && !isSpecial(static_cast<unsigned char>(*at))) ++at;
  return at;
}

/// The lexical half of `TextReader`: JSON tokens read one at a time from a text, each checked as
/// strictly as `coding::parseDocument` checks it (strings are valid UTF-8 without raw control
/// characters, numbers follow the grammar, nesting is bounded). It accepts no text that
/// `parseDocument` rejects, and reads every scalar as it reads it; a few texts that it would
/// accept are refused with `Unread` instead, where matching the parser exactly is not worth it
/// (integers beyond 64 bits, huge exponents, deep nesting, unpaired surrogates).
class TextCursor {
 public:
  explicit TextCursor(std::string_view text) noexcept
      : at_(text.data()), end_(text.data() + text.size()) {}
  TextCursor(const TextCursor&) = delete;
  TextCursor& operator=(const TextCursor&) = delete;
  ~TextCursor() = default;

  /// The first character of the next token, whitespace skipped; '\0' at the end of the text.
  [[nodiscard]] char peek() noexcept {
    skipSpace();
    return at_ == end_ ? '\0' : *at_;
  }
  /// Takes `c` as the next token if it is one.
  [[nodiscard, gnu::always_inline]] bool take(char c) noexcept {
    // Documents written by the encoder have no whitespace: that case first, inline.
    if (at_ != end_) {
      if (*at_ == c) {
        ++at_;
        return true;
      }
      if (static_cast<unsigned char>(*at_) > ' ') return false;
    }
    return takeAfterSpace(c);
  }
  /// Takes `c` as the next token; throws `Unread` if it is not.
  void expect(char c) {
    if (!take(c)) throw Unread();
  }
  /// Takes a '[' or '{' that opens a container.
  void open(char c) {
    expect(c);
    if (++depth_ > maxDepth) throw Unread();
  }
  /// Takes the ']' or '}' that closes a container if it comes next.
  [[nodiscard]] bool closes(char c) noexcept {
    if (!take(c)) return false;
    --depth_;
    return true;
  }
  /// Takes the ']' or '}' that closes a container; throws `Unread` if it does not come next.
  void close(char c) {
    if (!closes(c)) throw Unread();
  }
  /// Where the cursor stands in the text.
  [[nodiscard]] const char* position() const noexcept { return at_; }
  /// How many more values of the size of the one read since `start` the rest of the text would
  /// hold, at most `limit`.
  [[nodiscard]] std::size_t estimateMore(const char* start, std::size_t limit) const noexcept {
    const auto size = static_cast<std::size_t>(at_ - start);
    return size == 0 ? 0 : std::min(limit, static_cast<std::size_t>(end_ - at_) / size);
  }
  /// Whether the whole text has been read.
  [[nodiscard]] bool atEnd() noexcept {
    skipSpace();
    return at_ == end_;
  }

  /// Takes the next tokens if they are exactly `written`, a key as the encoder writes it: quoted,
  /// without escapes, and followed by its colon ("\"name\":").
  [[nodiscard, gnu::always_inline]] bool takeWritten(std::string_view written) noexcept {
    skipSpace();
    const std::size_t size = written.size();
    if (static_cast<std::size_t>(end_ - at_) < size
        || !sameText(std::string_view(at_, size), written)) {
      return false;
    }
    at_ += size;
    return true;
  }
  /// The next token, a string, unescaped. The view is valid until the next string is read.
  [[nodiscard]] std::string_view string() {
    // Most strings are plain: found here, without the general way's checks.
    if (at_ != end_ && *at_ == '"') {
      const char* at = firstSpecial(at_ + 1, end_);
      if (at != end_ && *at == '"') {
        const std::string_view text(at_ + 1, static_cast<std::size_t>(at - at_ - 1));
        at_ = at + 1;
        return text;
      }
    }
    return anyString();
  }
  /// Takes the next token if it is an integer of at most 18 digits (which the parser reads as an
  /// int64), and returns it; empty, having taken nothing, for any other token.
  [[nodiscard]] std::optional<std::int64_t> takeShortInteger() noexcept {
    skipSpace();
    const char* at = at_;
    const bool negative = at != end_ && *at == '-';
    if (negative) ++at;
    const char* first = at;
    // Nineteen digits at most, which an unsigned 64-bit integer always holds.
    const char* const stop = first + std::min<std::ptrdiff_t>(19, end_ - first);
    std::uint64_t magnitude = 0;
    while (at != stop && static_cast<unsigned char>(*at - '0') < 10) {
      magnitude = magnitude * 10 + static_cast<std::uint64_t>(*at++ - '0');
    }
    const auto digits = at - first;
    // Leading zeros, fractions, exponents and longer integers take the general way.
    if (digits == 0 || digits > 18 || (*first == '0' && digits > 1)
        || (at != end_ && (*at == '.' || *at == 'e' || *at == 'E'))) {
      return std::nullopt;
    }
    at_ = at;
    const auto value = static_cast<std::int64_t>(magnitude);  // below 10^18
    return negative ? -value : value;
  }
  /// The next token, a number, true, false or null, as a value (default storage, no allocation).
  [[nodiscard]] boost::json::value scalar();
  /// Takes the literal null if it comes next.
  [[nodiscard]] bool takeNull() {
    if (at_ != end_ && *at_ != 'n' && static_cast<unsigned char>(*at_) > ' ') return false;
    return takeNullAfterSpace();
  }
  /// Skips the next value of any kind, checking it as thoroughly as reading it would.
  void skip();
  /// Skips the next value, which must be an object.
  void skipObject() {
    if (peek() != '{') throw Unread();
    skip();
  }
  /// Skips the next value and returns its text.
  [[nodiscard]] std::string_view skipped();

 private:
  // Nesting beyond this is left to the parser, whose own limit is higher.
  static constexpr int maxDepth = 100;

  [[gnu::always_inline]] void skipSpace() noexcept {
    // Documents written by the encoder have no whitespace: that case inline.
    if (at_ != end_ && static_cast<unsigned char>(*at_) > ' ') return;
    skipSomeSpace();
  }
  void skipSomeSpace() noexcept {
    while (at_ != end_ && static_cast<unsigned char>(*at_) <= ' '
           && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) {
      ++at_;
    }
  }
  [[nodiscard]] bool takeAfterSpace(char c) noexcept;
  [[nodiscard]] bool takeNullAfterSpace();
  std::string_view anyString();
  std::string_view escapedString(const char* start);
  void literal(std::string_view word);
  void multibyte();

  const char* at_;
  const char* end_;
  int depth_ = 0;
  // The unescaped text of the last string that had escapes.
  std::string unescaped_;
};

/// The keys of the members `M...` as the encoder writes them, in order: quoted and followed by
/// their colon ("\"name\":"), so that the key expected next is taken with one comparison.
template <class... M>
struct WrittenKeys {
  static constexpr std::size_t length =
      ((std::char_traits<char>::length(M::name) + 3) + ... + std::size_t{0});
  static constexpr std::array<char, length> text = [] {
    std::array<char, length> out{};
    std::size_t at = 0;
    const auto put = [&](std::string_view name) {
      out[at++] = '"';
      for (const char c : name) out[at++] = c;
      out[at++] = '"';
      out[at++] = ':';
    };
    (put(M::name), ...);
    return out;
  }();
  static constexpr std::array<std::string_view, sizeof...(M)> keys = [] {
    std::array<std::string_view, sizeof...(M)> out{};
    std::size_t at = 0;
    std::size_t index = 0;
    const auto view = [&](std::string_view name) {
      out[index++] = std::string_view(text.data() + at, name.size() + 3);
      at += name.size() + 3;
    };
    (view(M::name), ...);
    return out;
  }();
};

/// Decodes values straight from a document's text, without building a tree of values first. For
/// every value it returns, it returns what `Coding<T>::decode` returns for the same document; for
/// a value that `decode` would reject it throws `Unread` (or what `decode` throws, for a value
/// decoded through a type's own coding), so that the caller decodes the document again through
/// `decode`. It follows the generic codings structure by structure, writing each value where it
/// belongs, and hands every other value (numbers, booleans, null and the types with a wire form
/// of their own) to `Coding<T>::decode` as a value built from its text.
class TextReader {
 public:
  explicit TextReader(std::string_view text) noexcept : cursor_(text) {}

  /// The next value, as `Coding<T>::decode` gives it.
  template <class T>
  [[nodiscard]] T value() {
    if constexpr (ReadInPlace<T>) {
      T out = Access::make<T>();
      read(out);
      return out;
    } else if constexpr (CaseKeyed<T>) {
      return readCases<T>();
    } else {
      return throughCoding<T>();
    }
  }

  [[nodiscard]] TextCursor& cursor() noexcept { return cursor_; }

 private:
  // Reads the next value into `out`, replacing all of it.
  template <class T>
  void read(T& out);
  // Kept out of line: its scratch buffers would otherwise weigh on every reader it is inlined in.
  template <class T>
  [[nodiscard, gnu::noinline]] T throughCoding();
  template <class T>
  void readMembers(T& out);
  template <class T>
  void readPresentField(T& out);
  template <class T>
  void readAbsentField(T& out);
  template <class E>
  [[nodiscard]] E readEnum();
  template <class T>
  [[nodiscard]] T readCases();

  // Calls `entry(key)` for each entry of the next object, the cursor at the entry's value; the
  // key's view lasts until the value's first string is read.
  template <class Entry>
  void forEachEntry(Entry&& entry) {
    cursor_.open('{');
    if (cursor_.closes('}')) return;
    do {
      const std::string_view key = cursor_.string();
      cursor_.expect(':');
      entry(key);
    } while (cursor_.take(','));
    cursor_.close('}');
  }
  // Calls `element()` for each element of the next array, the cursor at the element.
  template <class Element>
  void forEachElement(Element&& element) {
    cursor_.open('[');
    if (cursor_.closes(']')) return;
    do {
      element();
    } while (cursor_.take(','));
    cursor_.close(']');
  }

  // The most records a list reserves room for ahead (see `read`).
  static constexpr std::size_t maxReservedRecords = 15;

  TextCursor cursor_;
};

template <class T>
void TextReader::read(T& out) {
  // NOLINTNEXTLINE(bugprone-branch-clone): distinct instantiations, not repeated code
  if constexpr (!HasGenericCoding<T>) {
    out = throughCoding<T>();
  } else if constexpr (std::same_as<T, std::string>) {
    // Appending to an emptied string copies without the overlap checks of `assign`.
    const std::string_view text = cursor_.string();
    out.clear();
    out.append(text);
  } else if constexpr (IsOptional<T>::value) {
    using Value = typename T::value_type;
    if (cursor_.takeNull()) {
      out.reset();
    } else if constexpr (ReadInPlace<Value>) {
      if (!out) out.emplace(Made<Value>());
      read(*out);
    } else {
      out = value<Value>();
    }
  } else if constexpr (IsVector<T>::value) {
    using Element = typename T::value_type;
    out.clear();
    const char* start = cursor_.position();
    forEachElement([&] {
      if constexpr (ReadInPlace<Element>) {
        read(out.emplace_back(Made<Element>()));
      } else {
        out.push_back(value<Element>());
      }
      if constexpr (DescribedRecord<Element>) {
        // Records are large to move: room for as many more as would fit in the rest of the text
        // at the first one's size, up to a few, saves growing the list one doubling at a time.
        if (out.size() == 1) out.reserve(1 + cursor_.estimateMore(start, maxReservedRecords));
      }
    });
  } else if constexpr (IsStringMap<T>::value) {
    // Every entry in order, so that the last of duplicate keys wins as in a tree of values.
    out.clear();
    forEachEntry([&](std::string_view key) {
      std::string name(key);
      out.insert_or_assign(std::move(name), value<typename T::mapped_type>());
    });
  } else if constexpr (IsSharedConst<T>::value) {
    out = std::make_shared<typename T::element_type>(
        value<std::remove_const_t<typename T::element_type>>());
  } else if constexpr (DescribedEnum<T>) {
    out = readEnum<T>();
  } else if constexpr (CaseKeyed<T>) {
    out = readCases<T>();
  } else if constexpr (DescribedRecord<T>) {
    readMembers(out);
  } else if constexpr (Integer<T>) {
    // An integer written plainly is read here; its coding would take it as it stands if in range.
    if (const auto integer = cursor_.takeShortInteger()) {
      if (!std::in_range<T>(*integer)) throw Unread();
      out = static_cast<T>(*integer);
    } else {
      out = throughCoding<T>();
    }
  } else {
    // Numbers, booleans and null: their codings' checks are taken as they are.
    out = throughCoding<T>();
  }
}

template <class T>
T TextReader::throughCoding() {
  const CodingPath top;  // paths matter only for errors, which are decoded again
  switch (cursor_.peek()) {
    case '"': {
      const std::string_view text = cursor_.string();
      std::array<unsigned char, 256> initial;  // NOLINT(cppcoreguidelines-pro-type-member-init)
      boost::json::monotonic_resource scratch(initial.data(), initial.size());
      return Coding<T>::decode(boost::json::value(boost::json::string_view(text), &scratch), top);
    }
    case '{':
    case '[': {
      const std::string_view text = cursor_.skipped();
      std::array<unsigned char, 1024> initial;  // NOLINT(cppcoreguidelines-pro-type-member-init)
      boost::json::monotonic_resource scratch(initial.data(), initial.size());
      return Coding<T>::decode(parseDocument(text, &scratch), top);
    }
    default:
      return Coding<T>::decode(cursor_.scalar(), top);
  }
}

template <class T>
void TextReader::readPresentField(T& out) {
  if constexpr (writesNothing<T>) {
    out = throughCoding<T>();
  } else {
    // An optional field that is null is empty, as an optional value is.
    read(out);
  }
}

template <class T>
void TextReader::readAbsentField(T& out) {
  if constexpr (writesNothing<T>) {
    out = Coding<T>::decode(boost::json::value(), CodingPath());
  } else if constexpr (IsOptional<T>::value) {
    out.reset();
  } else {
    throw Unread();  // a required key is missing
  }
}

// A first pass takes the members in declaration order, the order the encoder writes them in,
// each key tried once against the text with its quotes and colon, without looking it up. Whatever
// it leaves (keys in another order, unknown, repeated or written otherwise) is read by a second
// pass over the remaining entries that looks each key up, trying the one expected next first
// (the last of duplicate keys wins, as in a tree of values).
template <class T>
void TextReader::readMembers(T& out) {
  using Members = boost::describe::describe_members<T, allMembers>;
  using Indices = boost::mp11::mp_iota<boost::mp11::mp_size<Members>>;
  static constexpr auto names = []<template <class...> class L, class... M>(L<M...>) {
    return std::array<std::string_view, sizeof...(M)>{M::name...};
  }(Members());
  static constexpr const auto& written = boost::mp11::mp_apply<WrittenKeys, Members>::keys;
  static_assert(names.size() <= 64, "one bit per member");
  std::uint64_t present = 0;
  cursor_.open('{');
  if (!cursor_.closes('}')) {
    bool more = true;
    boost::mp11::mp_for_each<Indices>([&](auto index) {
      if (more && cursor_.takeWritten(written[index])) {
        readPresentField(out.*boost::mp11::mp_at<Members, decltype(index)>::pointer);
        present |= std::uint64_t{1} << index;
        more = cursor_.take(',');
      }
    });
    std::size_t expected = 0;
    while (more) {
      std::size_t member = expected;
      if (member >= names.size() || !cursor_.takeWritten(written[member])) {
        const std::string_view key = cursor_.string();
        member = 0;
        while (member < names.size() && !sameText(names[member], key)) ++member;
        cursor_.expect(':');
      }
      if (member == names.size()) {
        cursor_.skip();  // unknown keys are ignored
      } else {
        boost::mp11::mp_with_index<names.size()>(member, [&](auto index) {
          readPresentField(out.*boost::mp11::mp_at<Members, decltype(index)>::pointer);
        });
        present |= std::uint64_t{1} << member;
        expected = member + 1;
      }
      more = cursor_.take(',');
    }
    cursor_.close('}');
  }
  constexpr std::uint64_t all =
      names.size() == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << names.size()) - 1;
  if (present == all) return;
  boost::mp11::mp_for_each<Indices>([&](auto index) {
    if ((present & (std::uint64_t{1} << index)) == 0) {
      readAbsentField(out.*boost::mp11::mp_at<Members, decltype(index)>::pointer);
    }
  });
}

template <class E>
E TextReader::readEnum() {
  if constexpr (enumCoding<E> == EnumCoding::stringRawValue) {
    if (auto found = fromCaseName<E>(cursor_.string())) return *found;
    throw Unread();
  } else if constexpr (enumCoding<E> == EnumCoding::caseKeyed) {
    // Only keys that name a case count; exactly one case must be named (as often as it likes),
    // its payload an object.
    std::optional<E> found;
    forEachEntry([&](std::string_view key) {
      const std::optional<E> named = fromCaseName<E>(key);
      if (!named) {
        cursor_.skip();
        return;
      }
      if (found && *found != *named) throw Unread();
      found = named;
      cursor_.skipObject();
    });
    if (!found) throw Unread();
    return *found;
  } else {
    return throughCoding<E>();
  }
}

template <class T>
T TextReader::readCases() {
  using Cases = typename T::Cases;
  constexpr std::size_t count = std::variant_size_v<Cases>;
  static constexpr auto names = []<std::size_t... I>(std::index_sequence<I...>) {
    return std::array<std::string_view, count>{std::variant_alternative_t<I, Cases>::caseName...};
  }
  (std::make_index_sequence<count>());
  // Only keys that name a case count; exactly one case must be named (as often as it likes), its
  // payload an object.
  std::optional<Cases> chosen;
  forEachEntry([&](std::string_view key) {
    std::size_t named = 0;
    while (named < count && !sameText(names[named], key)) ++named;
    if (named == count) {
      cursor_.skip();
      return;
    }
    if (chosen && chosen->index() != named) throw Unread();
    boost::mp11::mp_with_index<count>(named, [&](auto index) {
      using Case = std::variant_alternative_t<index, Cases>;
      if (!chosen) chosen.emplace(std::in_place_index<index>, Case{});
      if constexpr (Described<Case>) {
        readMembers(std::get<index>(*chosen));
      } else {
        cursor_.skipObject();
      }
    });
  });
  if (!chosen) throw Unread();
  return T(std::move(*chosen));
}

/// Decodes values of the types `Ts...` from the elements of the list that is the whole text,
/// in order; the elements beyond them are skipped (and checked).
template <class... Ts>
std::tuple<Ts...> readList(std::string_view text) {
  TextReader reader(text);
  TextCursor& cursor = reader.cursor();
  cursor.open('[');
  bool first = true;
  auto next = [&]<class T>(std::type_identity<T>) {
    if (!std::exchange(first, false)) cursor.expect(',');
    return reader.value<T>();
  };
  // Braced initialisation reads the elements in order.
  std::tuple<Ts...> values{next(std::type_identity<Ts>())...};
  if (sizeof...(Ts) == 0) {
    if (!cursor.closes(']')) {
      do {
        cursor.skip();
      } while (cursor.take(','));
      cursor.close(']');
    }
  } else {
    while (cursor.take(',')) cursor.skip();
    cursor.close(']');
  }
  if (!cursor.atEnd()) throw Unread();
  return values;
}

}  // namespace corvane::coding::detail
