#pragma once

// Raw values of described enums whose raw value is the case name (or its integer value): the
// text written on the wire and the construction of a case from it.

#include <corvane/coding/detail/SameText.hpp>

#include <boost/describe/enum.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/mp11/algorithm.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace corvane::coding {

/// The case name of a described enum value ("managedButUninstalled"); empty for a value that
/// names no case. Never throws.
template <class E>
requires boost::describe::has_describe_enumerators<E>::value
    [[nodiscard]] constexpr std::string_view
    caseNameOf(E value) noexcept {
  std::string_view name;
  boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
    if (d.value == value) name = d.name;
  });
  return name;
}

namespace detail {
/// Every case of a described enum with its name, in declaration order.
template <class E>
inline constexpr auto namedCases = []<template <class...> class L, class... D>(L<D...>) {
  return std::array<std::pair<std::string_view, E>, sizeof...(D)>{
      std::pair<std::string_view, E>{D::name, D::value}...};
}(boost::describe::describe_enumerators<E>());

/// The cases of a described enum ordered by the length of their names, and where each length
/// starts, so that a name is compared only with the few cases as long as it.
template <class E>
struct CasesByLength {
  static constexpr auto cases = [] {
    auto sorted = namedCases<E>;
    // Insertion sort, stable and usable at compile time.
    for (std::size_t i = 1; i < sorted.size(); ++i) {
      for (std::size_t j = i; j > 0 && sorted[j - 1].first.size() > sorted[j].first.size(); --j) {
        std::swap(sorted[j - 1], sorted[j]);
      }
    }
    return sorted;
  }();
  static constexpr std::size_t longest = cases.empty() ? 0 : cases.back().first.size();
  // first[n]: the index of the first case whose name has n or more characters.
  static constexpr auto first = [] {
    std::array<std::size_t, longest + 2> out{};
    std::size_t index = 0;
    for (std::size_t size = 0; size < out.size(); ++size) {
      while (index < cases.size() && cases[index].first.size() < size) ++index;
      out[size] = index;
    }
    return out;
  }();
};
}  // namespace detail

/// The case whose name equals `raw` exactly (case-sensitive, no trimming); empty otherwise.
template <class E>
requires boost::describe::has_describe_enumerators<E>::value
    [[nodiscard]] constexpr std::optional<E>
    fromCaseName(std::string_view raw) noexcept {
  using Index = detail::CasesByLength<E>;
  const std::size_t size = raw.size();
  if (size > Index::longest) return std::nullopt;
  for (std::size_t i = Index::first[size]; i < Index::first[size + 1]; ++i) {
    const auto& [name, value] = Index::cases[i];
    if (detail::sameText(name, raw)) return value;
  }
  return std::nullopt;
}

/// The case whose integer value equals `raw`; empty otherwise.
template <class E>
requires boost::describe::has_describe_enumerators<E>::value
    [[nodiscard]] constexpr std::optional<E>
    fromIntegerValue(std::int64_t raw) noexcept {
  std::optional<E> found;
  boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
    if (!found && static_cast<std::int64_t>(d.value) == raw) found = d.value;
  });
  return found;
}

}  // namespace corvane::coding
