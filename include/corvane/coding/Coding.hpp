#pragma once

// The generic keyed coder. Every value that crosses the connection is a JSON value built by
// `Coding<T>`:
//  - a described record (BOOST_DESCRIBE_STRUCT / BOOST_DESCRIBE_CLASS) is an object of its
//    members in declaration order; std::optional members are written only when present and read
//    as empty when absent or null; unknown keys are ignored; other members are required;
//  - a described enum is, by default, case-keyed: {"caseName": {}}; one declared with
//    `enumCoding<E> = EnumCoding::stringRawValue` is its bare case name, one declared with
//    `EnumCoding::integerRawValue` its bare integer value;
//  - a case-keyed enumeration with payloads (see `CaseKeyed` below) is
//    {"caseName": {payload members}}, unlabelled payloads named "_0", "_1", ...;
//  - std::string, bool, integers, finite doubles, std::vector, std::map<std::string, T>,
//    std::optional, std::shared_ptr<const T> (a boxed value, never null) and `None`.
// A type with its own wire form specialises `Coding<T>` with
//    static void encode(const T&, boost::json::value& out);   // `out` is null on entry
//    static T decode(const boost::json::value& in, const CodingPath& path);
// and may declare `static constexpr bool writesNothing = true` when it contributes no value.

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CodingPath.hpp>
#include <corvane/coding/RawValue.hpp>

#include <boost/describe/enum.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/describe/modifiers.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace corvane {

/// The value of operations that return nothing: it has exactly one value, coded as null.
struct None {
  friend constexpr bool operator==(None, None) noexcept = default;
};

namespace coding {

/// How a described enum is written.
enum class EnumCoding {
  caseKeyed,        ///< {"caseName": {}}
  stringRawValue,   ///< "caseName"
  integerRawValue,  ///< the enumerator's integer value
};

/// Parses one JSON document (the whole text; trailing data is an error), nested at most 128
/// deep, with correctly rounded floating-point numbers. Throws `CodingError` (dataCorrupted, path
/// "") for anything else.
[[nodiscard]] boost::json::value parseDocument(std::string_view text,
                                               boost::json::storage_ptr storage = {});

/// Opt a described enum into a raw-value form by specialising this variable template.
template <class E>
inline constexpr EnumCoding enumCoding = EnumCoding::caseKeyed;

/// Grants the coder access to a record's private default constructor (`friend struct Access;`).
struct Access {
  template <class T>
  static T make() {
    return T();
  }
};

/// A case-keyed enumeration with payloads: `T::Cases` is a std::variant of case types, each a
/// described struct with `static constexpr std::string_view caseName`; T is constructible from
/// `Cases` and exposes them through `cases()`.
template <class T>
concept CaseKeyed = requires(const T& value) {
  typename T::Cases;
  { value.cases() } -> std::convertible_to<const typename T::Cases&>;
  requires std::constructible_from<T, typename T::Cases>;
};

template <class T>
struct Coding;

namespace detail {

[[noreturn]] void throwError(CodingError::Kind kind, const CodingPath& path,
                             std::string description);
[[noreturn]] void throwTypeMismatch(std::string_view expected, const boost::json::value& found,
                                    const CodingPath& path);
[[noreturn]] void throwInvalidNumberOfKeys(const CodingPath& path);
[[noreturn]] void throwUnknownRawValue(std::string_view found, const CodingPath& path);
[[noreturn]] void throwUnknownRawValue(std::int64_t found, const CodingPath& path);
/// The object at `in`, or a typeMismatch naming what was found instead.
const boost::json::object& expectObject(const boost::json::value& in, const CodingPath& path);
const boost::json::array& expectArray(const boost::json::value& in, const CodingPath& path);
std::int64_t decodeInt64(const boost::json::value& in, const CodingPath& path);
std::uint64_t decodeUInt64(const boost::json::value& in, const CodingPath& path);
double decodeDouble(const boost::json::value& in, const CodingPath& path);
void encodeDouble(double value, boost::json::value& out);
/// The value under `key`, or nullptr when the key is absent.
const boost::json::value* find(const boost::json::object& object, std::string_view key) noexcept;

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
concept Described = boost::describe::has_describe_members<T>::value;

template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>;

template <class E>
concept DescribedEnum = std::is_enum_v<E> && boost::describe::has_describe_enumerators<E>::value;

inline constexpr unsigned allMembers =
    boost::describe::mod_public | boost::describe::mod_protected | boost::describe::mod_private;

/// The base of the coder's own `Coding<T>` specialisations below, which decoding straight from a
/// document's text (see `TetherDecoder`) follows; a type with its own wire form is decoded
/// through its `Coding<T>::decode`.
template <class T>
struct GenericCodingOf {};

}  // namespace detail

/// True when the type's coding contributes no value at all (the field or element is skipped).
template <class T>
inline constexpr bool writesNothing = requires {
  requires Coding<T>::writesNothing;
};

/// Encodes one value as a JSON value.
template <class T>
void encode(const T& value, boost::json::value& out) {
  Coding<T>::encode(value, out);
}
template <class T>
[[nodiscard]] boost::json::value encode(const T& value) {
  boost::json::value out;
  Coding<T>::encode(value, out);
  return out;
}

/// Decodes one value of type T from `in`; `path` names where `in` stands in the document.
template <class T>
[[nodiscard]] T decode(const boost::json::value& in, const CodingPath& path = CodingPath()) {
  return Coding<T>::decode(in, path);
}

/// Writes `value` under `key` of `object` (skipping empty optionals and types that write nothing).
template <class T>
void encodeField(boost::json::object& object, std::string_view key, const T& value) {
  if constexpr (writesNothing<T>) {
    return;
  } else if constexpr (detail::IsOptional<T>::value) {
    if (value) encode(*value, object[key]);
  } else {
    encode(value, object[key]);
  }
}

/// Reads the field `key` of `object`: an optional is empty when the key is absent or null, any
/// other type is required (keyNotFound when absent).
template <class T>
[[nodiscard]] T decodeField(const boost::json::object& object, std::string_view key,
                            const CodingPath& parent) {
  const CodingPath path(parent, key);
  const boost::json::value* found = detail::find(object, key);
  if constexpr (writesNothing<T>) {
    static const boost::json::value null;
    return decode<T>(found ? *found : null, path);
  } else if constexpr (detail::IsOptional<T>::value) {
    if (found == nullptr || found->is_null()) return std::nullopt;
    return decode<typename T::value_type>(*found, path);
  } else {
    if (found == nullptr) {
      detail::throwError(CodingError::Kind::keyNotFound, parent,
                         "No value associated with key \"" + std::string(key) + "\".");
    }
    return decode<T>(*found, path);
  }
}

/// Encodes every described member of `value` into `object`, in declaration order.
template <detail::Described T>
void encodeMembers(const T& value, boost::json::object& object) {
  boost::mp11::mp_for_each<boost::describe::describe_members<T, detail::allMembers>>(
      [&](auto member) { encodeField(object, member.name, value.*member.pointer); });
}

/// Decodes every described member of `value` from `object`.
template <detail::Described T>
void decodeMembers(T& value, const boost::json::object& object, const CodingPath& path) {
  boost::mp11::mp_for_each<boost::describe::describe_members<T, detail::allMembers>>(
      [&](auto member) {
        using Field = std::remove_cvref_t<decltype(value.*member.pointer)>;
        value.*member.pointer = decodeField<Field>(object, member.name, path);
      });
}

// ---- scalars ----

template <>
struct Coding<std::string> : detail::GenericCodingOf<std::string> {
  static void encode(const std::string& value, boost::json::value& out) { out = value; }
  static std::string decode(const boost::json::value& in, const CodingPath& path) {
    if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
    const auto& s = in.get_string();
    return {s.data(), s.size()};
  }
};

template <>
struct Coding<bool> : detail::GenericCodingOf<bool> {
  static void encode(bool value, boost::json::value& out) { out = value; }
  static bool decode(const boost::json::value& in, const CodingPath& path) {
    if (!in.is_bool()) detail::throwTypeMismatch("a boolean", in, path);
    return in.get_bool();
  }
};

template <detail::Integer T>
struct Coding<T> : detail::GenericCodingOf<T> {
  static void encode(T value, boost::json::value& out) {
    if constexpr (std::is_signed_v<T>) {
      out = static_cast<std::int64_t>(value);
    } else {
      out = static_cast<std::uint64_t>(value);
    }
  }
  static T decode(const boost::json::value& in, const CodingPath& path) {
    if constexpr (std::is_signed_v<T>) {
      const std::int64_t v = detail::decodeInt64(in, path);
      if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) {
        detail::throwTypeMismatch("an integer in range", in, path);
      }
      return static_cast<T>(v);
    } else {
      const std::uint64_t v = detail::decodeUInt64(in, path);
      if (v > std::numeric_limits<T>::max()) {
        detail::throwTypeMismatch("an integer in range", in, path);
      }
      return static_cast<T>(v);
    }
  }
};

template <>
struct Coding<double> : detail::GenericCodingOf<double> {
  static void encode(double value, boost::json::value& out) { detail::encodeDouble(value, out); }
  static double decode(const boost::json::value& in, const CodingPath& path) {
    return detail::decodeDouble(in, path);
  }
};

template <>
struct Coding<None> : detail::GenericCodingOf<None> {
  static void encode(None /*value*/, boost::json::value& out) { out = nullptr; }
  static None decode(const boost::json::value& in, const CodingPath& path) {
    if (!in.is_null()) detail::throwTypeMismatch("null", in, path);
    return {};
  }
};

// ---- containers ----

template <class T>
struct Coding<std::optional<T>> : detail::GenericCodingOf<std::optional<T>> {
  static void encode(const std::optional<T>& value, boost::json::value& out) {
    if (value) {
      coding::encode(*value, out);
    } else {
      out = nullptr;
    }
  }
  static std::optional<T> decode(const boost::json::value& in, const CodingPath& path) {
    if (in.is_null()) return std::nullopt;
    return coding::decode<T>(in, path);
  }
};

template <class T>
struct Coding<std::vector<T>> : detail::GenericCodingOf<std::vector<T>> {
  static void encode(const std::vector<T>& values, boost::json::value& out) {
    auto& array = out.emplace_array();
    array.reserve(values.size());
    for (const auto& value : values) {
      if constexpr (!writesNothing<T>) coding::encode(value, array.emplace_back(nullptr));
    }
  }
  static std::vector<T> decode(const boost::json::value& in, const CodingPath& path) {
    const auto& array = detail::expectArray(in, path);
    std::vector<T> out;
    out.reserve(array.size());
    for (std::size_t i = 0; i < array.size(); ++i) {
      const CodingPath element(path, i);
      out.push_back(coding::decode<T>(array[i], element));
    }
    return out;
  }
};

template <class T>
struct Coding<std::map<std::string, T>> : detail::GenericCodingOf<std::map<std::string, T>> {
  static void encode(const std::map<std::string, T>& values, boost::json::value& out) {
    auto& object = out.emplace_object();
    for (const auto& [key, value] : values) encodeField(object, key, value);
  }
  static std::map<std::string, T> decode(const boost::json::value& in, const CodingPath& path) {
    std::map<std::string, T> out;
    for (const auto& entry : detail::expectObject(in, path)) {
      const std::string_view key = entry.key();
      const CodingPath element(path, key);
      out.insert_or_assign(std::string(key), coding::decode<T>(entry.value(), element));
    }
    return out;
  }
};

/// A boxed, immutable value (the payload of a recursive enumeration). Never null when encoded.
template <class T>
struct Coding<std::shared_ptr<const T>> : detail::GenericCodingOf<std::shared_ptr<const T>> {
  static void encode(const std::shared_ptr<const T>& value, boost::json::value& out) {
    if (!value) {
      throw CodingError(CodingError::Kind::invalidValue, "", "A boxed value is missing.");
    }
    coding::encode(*value, out);
  }
  static std::shared_ptr<const T> decode(const boost::json::value& in, const CodingPath& path) {
    return std::make_shared<const T>(coding::decode<T>(in, path));
  }
};

// ---- described enums ----

template <detail::DescribedEnum E>
struct Coding<E> : detail::GenericCodingOf<E> {
  static void encode(E value, boost::json::value& out) {
    if constexpr (enumCoding<E> == EnumCoding::integerRawValue) {
      out = static_cast<std::int64_t>(value);
    } else {
      const std::string_view name = caseNameOf(value);
      if (name.empty()) {
        throw CodingError(CodingError::Kind::invalidValue, "",
                          "The enumeration value names no case.");
      }
      if constexpr (enumCoding<E> == EnumCoding::stringRawValue) {
        out = name;
      } else {
        out.emplace_object()[name].emplace_object();
      }
    }
  }

  static E decode(const boost::json::value& in, const CodingPath& path) {
    if constexpr (enumCoding<E> == EnumCoding::integerRawValue) {
      const std::int64_t raw = detail::decodeInt64(in, path);
      if (auto found = fromIntegerValue<E>(raw)) return *found;
      detail::throwUnknownRawValue(raw, path);
    } else if constexpr (enumCoding<E> == EnumCoding::stringRawValue) {
      if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
      const std::string_view raw = in.get_string();
      if (auto found = fromCaseName<E>(raw)) return *found;
      detail::throwUnknownRawValue(raw, path);
    } else {
      // Only keys that name a case count; exactly one must be present.
      const auto& object = detail::expectObject(in, path);
      std::optional<E> found;
      int cases = 0;
      boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
        if (detail::find(object, d.name) != nullptr) {
          ++cases;
          found = d.value;
        }
      });
      if (cases != 1) detail::throwInvalidNumberOfKeys(path);
      const std::string_view name = caseNameOf(*found);
      const CodingPath casePath(path, name);
      detail::expectObject(*detail::find(object, name), casePath);
      return *found;
    }
  }
};

// ---- case-keyed enumerations with payloads ----

template <CaseKeyed T>
struct Coding<T> : detail::GenericCodingOf<T> {
  using Cases = typename T::Cases;

  static void encode(const T& value, boost::json::value& out) {
    std::visit(
        [&](const auto& c) {
          using Case = std::remove_cvref_t<decltype(c)>;
          auto& payload = out.emplace_object()[Case::caseName].emplace_object();
          if constexpr (detail::Described<Case>) encodeMembers(c, payload);
        },
        value.cases());
  }

  static T decode(const boost::json::value& in, const CodingPath& path) {
    const auto& object = detail::expectObject(in, path);
    // Only keys that name a case count; exactly one must be present.
    std::size_t chosen = std::variant_size_v<Cases>;
    int cases = 0;
    boost::mp11::mp_for_each<boost::mp11::mp_iota_c<std::variant_size_v<Cases>>>([&](auto index) {
      using Case = std::variant_alternative_t<index, Cases>;
      if (detail::find(object, Case::caseName) != nullptr) {
        ++cases;
        chosen = index;
      }
    });
    if (cases != 1) detail::throwInvalidNumberOfKeys(path);
    std::optional<T> result;
    boost::mp11::mp_with_index<std::variant_size_v<Cases>>(chosen, [&](auto index) {
      using Case = std::variant_alternative_t<index, Cases>;
      const CodingPath casePath(path, Case::caseName);
      const auto& payload = detail::expectObject(*detail::find(object, Case::caseName), casePath);
      Case c{};
      if constexpr (detail::Described<Case>) decodeMembers(c, payload, casePath);
      result.emplace(Cases(std::in_place_index<index>, std::move(c)));
    });
    return std::move(*result);
  }
};

// ---- described records ----

namespace detail {
template <class T>
concept DescribedRecord = Described<T> && std::is_class_v<T> && !CaseKeyed<T>;
}  // namespace detail

template <detail::DescribedRecord T>
struct Coding<T> : detail::GenericCodingOf<T> {
  static void encode(const T& value, boost::json::value& out) {
    encodeMembers(value, out.emplace_object());
  }
  static T decode(const boost::json::value& in, const CodingPath& path) {
    const auto& object = detail::expectObject(in, path);
    T value = Access::make<T>();
    decodeMembers(value, object, path);
    return value;
  }
};

}  // namespace coding
}  // namespace corvane
