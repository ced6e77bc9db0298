#pragma once

// Raw values of described enums whose raw value is the case name (or its integer value): the
// text written on the wire and the construction of a case from it.

#include <boost/describe/enum.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/mp11/algorithm.hpp>

#include <array>
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
}  // namespace detail

/// The case whose name equals `raw` exactly (case-sensitive, no trimming); empty otherwise.
template <class E>
requires boost::describe::has_describe_enumerators<E>::value
    [[nodiscard]] constexpr std::optional<E>
    fromCaseName(std::string_view raw) noexcept {
  // A loop over a table rather than a comparison unrolled per case: quicker for long enums.
  for (const auto& [name, value] : detail::namedCases<E>) {
    if (name == raw) return value;
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
