#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/detail/Tape.hpp>

#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/storage_ptr.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace corvane::coding::detail {

/// Thrown by `TapeReader` for a value that the generic coding would not decode as it stands.
struct Unread {};

/// Whether `Coding<T>` is the coder's own, generic one (not a type's own wire form).
template <class T>
concept HasGenericCoding = std::derived_from<Coding<T>, GenericCodingOf<T>>;

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

/// Decodes values straight from the tokens of a document. For every value it returns, it returns
/// what `Coding<T>::decode` returns for the same document; for a value that `decode` would reject
/// it throws `Unread` (or what `decode` throws, for a value decoded through a type's own coding),
/// so that the caller decodes the document through `decode` again to learn what is wrong and
/// where. It follows the generic codings structure by structure and hands every other value
/// (numbers, booleans, null and the types with a wire form of their own) to `Coding<T>::decode`
/// as a value built from its tokens.
class TapeReader {
 public:
  static constexpr std::size_t absent = static_cast<std::size_t>(-1);

  explicit TapeReader(const Tape& tape) noexcept : tape_(tape) {}

  /// Decodes the value whose first token is at `at`.
  template <class T>
  [[nodiscard]] T read(std::size_t at) const;

  /// The value of the last entry under `key` of the object at `object` (the one a tree of values
  /// keeps), or `absent`.
  [[nodiscard]] std::size_t find(std::size_t object, std::string_view key) const noexcept {
    std::size_t found = absent;
    for (std::size_t i = object + 1; i < tape_[object].next; i = tape_[i + 1].next) {
      if (tape_[i].text == key) found = i + 1;
    }
    return found;
  }

 private:
  void expect(std::size_t at, Tape::Kind kind) const {
    if (tape_[at].kind != kind) throw Unread();
  }

  /// The value at `at` (or null for `absent`) as a tree, whose strings and containers live in
  /// `storage`.
  [[nodiscard]] boost::json::value toValue(std::size_t at, boost::json::storage_ptr storage) const;
  template <class T>
  [[nodiscard]] T readThroughCoding(std::size_t at) const;

  // One pass over the entries finds every member's value (the last of duplicate keys, as a tree
  // of values keeps); keys are tried in declaration order first, the order they are written in.
  template <class T>
  void readMembers(T& value, std::size_t object) const {
    using Members = boost::describe::describe_members<T, allMembers>;
    static constexpr auto names = []<template <class...> class L, class... M>(L<M...>) {
      return std::array<std::string_view, sizeof...(M)>{M::name...};
    }(Members());
    std::array<std::size_t, names.size()> found;
    found.fill(absent);
    std::size_t expected = 0;
    for (std::size_t i = object + 1; i < tape_[object].next; i = tape_[i + 1].next) {
      const std::string_view key = tape_[i].text;
      std::size_t member = expected;
      if (member >= names.size() || names[member] != key) {
        member = static_cast<std::size_t>(std::ranges::find(names, key) - names.begin());
        if (member == names.size()) continue;  // unknown keys are ignored
      }
      found[member] = i + 1;
      expected = member + 1;
    }
    boost::mp11::mp_for_each<boost::mp11::mp_iota<boost::mp11::mp_size<Members>>>([&](auto index) {
      using Member = boost::mp11::mp_at<Members, decltype(index)>;
      using Field = std::remove_cvref_t<decltype(value.*Member::pointer)>;
      value.*Member::pointer = readField<Field>(found[index]);
    });
  }

  // As `decodeField`, for the value at `found` (`absent` when the key is).
  template <class T>
  [[nodiscard]] T readField(std::size_t found) const {
    if constexpr (writesNothing<T>) {
      return readThroughCoding<T>(found);
    } else if constexpr (IsOptional<T>::value) {
      if (found == absent || tape_[found].kind == Tape::Kind::null) return std::nullopt;
      return read<typename T::value_type>(found);
    } else {
      if (found == absent) throw Unread();
      return read<T>(found);
    }
  }

  template <class E>
  [[nodiscard]] E readEnum(std::size_t at) const;
  template <class T>
  [[nodiscard]] T readCases(std::size_t at) const;

  const Tape& tape_;
};

template <class T>
T TapeReader::read(std::size_t at) const {
  // NOLINTNEXTLINE(bugprone-branch-clone): distinct instantiations, not repeated code
  if constexpr (!HasGenericCoding<T>) {
    return readThroughCoding<T>(at);
  } else if constexpr (std::same_as<T, std::string>) {
    expect(at, Tape::Kind::string);
    return std::string(tape_[at].text);
  } else if constexpr (IsOptional<T>::value) {
    if (tape_[at].kind == Tape::Kind::null) return std::nullopt;
    return read<typename T::value_type>(at);
  } else if constexpr (IsVector<T>::value) {
    expect(at, Tape::Kind::array);
    T out;
    out.reserve(tape_[at].size);
    for (std::size_t i = at + 1; i < tape_[at].next; i = tape_[i].next) {
      out.push_back(read<typename T::value_type>(i));
    }
    return out;
  } else if constexpr (IsStringMap<T>::value) {
    // Every entry in order, so that the last of duplicate keys wins as in a tree of values.
    expect(at, Tape::Kind::object);
    T out;
    for (std::size_t i = at + 1; i < tape_[at].next; i = tape_[i + 1].next) {
      out.insert_or_assign(std::string(tape_[i].text), read<typename T::mapped_type>(i + 1));
    }
    return out;
  } else if constexpr (IsSharedConst<T>::value) {
    return std::make_shared<typename T::element_type>(
        read<std::remove_const_t<typename T::element_type>>(at));
  } else if constexpr (DescribedEnum<T>) {
    return readEnum<T>(at);
  } else if constexpr (CaseKeyed<T>) {
    return readCases<T>(at);
  } else if constexpr (DescribedRecord<T>) {
    expect(at, Tape::Kind::object);
    T value = Access::make<T>();
    readMembers(value, at);
    return value;
  } else {
    // Numbers, booleans and null: their codings' checks are taken as they are.
    return readThroughCoding<T>(at);
  }
}

template <class T>
T TapeReader::readThroughCoding(std::size_t at) const {
  const CodingPath top;  // paths matter only for errors, which are decoded again
  if (at == absent) return Coding<T>::decode(boost::json::value(), top);
  const Tape::Token& token = tape_[at];
  switch (token.kind) {
    case Tape::Kind::int64:
      return Coding<T>::decode(boost::json::value(token.int64()), top);
    case Tape::Kind::uint64:
      return Coding<T>::decode(boost::json::value(token.uint64()), top);
    case Tape::Kind::double_:
      return Coding<T>::decode(boost::json::value(token.double_()), top);
    case Tape::Kind::bool_:
      return Coding<T>::decode(boost::json::value(token.bool_()), top);
    case Tape::Kind::null:
      return Coding<T>::decode(boost::json::value(), top);
    default: {
      boost::json::monotonic_resource scratch;
      return Coding<T>::decode(toValue(at, &scratch), top);
    }
  }
}

template <class E>
E TapeReader::readEnum(std::size_t at) const {
  if constexpr (enumCoding<E> == EnumCoding::stringRawValue) {
    expect(at, Tape::Kind::string);
    if (auto found = fromCaseName<E>(tape_[at].text)) return *found;
    throw Unread();
  } else if constexpr (enumCoding<E> == EnumCoding::caseKeyed) {
    // Only keys that name a case count; exactly one must be present, its payload an object.
    expect(at, Tape::Kind::object);
    std::optional<E> found;
    int cases = 0;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
      if (find(at, d.name) != absent) {
        ++cases;
        found = d.value;
      }
    });
    if (cases != 1) throw Unread();
    const std::size_t payload = find(at, caseNameOf(*found));
    if (payload == absent) throw Unread();
    expect(payload, Tape::Kind::object);
    return *found;
  } else {
    return readThroughCoding<E>(at);
  }
}

template <class T>
T TapeReader::readCases(std::size_t at) const {
  using Cases = typename T::Cases;
  constexpr std::size_t count = std::variant_size_v<Cases>;
  // Only keys that name a case count; exactly one must be present, its payload an object.
  expect(at, Tape::Kind::object);
  std::size_t chosen = count;
  int cases = 0;
  boost::mp11::mp_for_each<boost::mp11::mp_iota_c<count>>([&](auto index) {
    if (find(at, std::variant_alternative_t<index, Cases>::caseName) != absent) {
      ++cases;
      chosen = index;
    }
  });
  if (cases != 1) throw Unread();
  return boost::mp11::mp_with_index<count>(chosen, [&](auto index) {
    using Case = std::variant_alternative_t<index, Cases>;
    const std::size_t payload = find(at, Case::caseName);
    expect(payload, Tape::Kind::object);
    Case c{};
    if constexpr (Described<Case>) readMembers(c, payload);
    return T(Cases(std::in_place_index<index>, std::move(c)));
  });
}

}  // namespace corvane::coding::detail
