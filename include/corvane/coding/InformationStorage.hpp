#pragma once

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <string_view>

namespace corvane {

/// A measurement of information storage (a file size): a number and its unit. Coded as
/// {"value": <number>, "unit": "<symbol>"}; a value that is not finite cannot be encoded.
struct InformationStorage {
  /// The unit symbols as written on the wire.
  enum class Unit { bit, B, kB, MB, GB, TB, KiB, MiB, GiB, TiB };
  BOOST_DESCRIBE_NESTED_ENUM(Unit, bit, B, kB, MB, GB, TB, KiB, MiB, GiB, TiB)

  double value = 0;
  Unit unit = Unit::B;

  /// The measurement converted to bytes (a bit is an eighth of a byte).
  [[nodiscard]] double bytes() const noexcept;

  friend bool operator==(const InformationStorage&, const InformationStorage&) = default;
};
BOOST_DESCRIBE_STRUCT(InformationStorage, (), (value, unit))

}  // namespace corvane

namespace corvane::coding {
template <>
inline constexpr EnumCoding enumCoding<InformationStorage::Unit> = EnumCoding::stringRawValue;
}  // namespace corvane::coding
