#pragma once

// Raw values of described enums whose raw value is the case name (or its integer value): the
// text written on the wire and the construction of a case from it.

#include <boost/describe/enum.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/mp11/algorithm.hpp>

#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

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

/// The case whose name equals `raw` exactly (case-sensitive, no trimming); empty otherwise.
template <class E>
requires boost::describe::has_describe_enumerators<E>::value
    [[nodiscard]] constexpr std::optional<E>
    fromCaseName(std::string_view raw) noexcept {
  std::optional<E> found;
  boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
    if (!found && raw == d.name) found = d.value;
  });
  return found;
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
