#pragma once

// Small records that exercise every shape of the generic coder: required and optional fields,
// nested records, lists, a raw-value enum, a case-keyed enum with labelled and unlabelled payloads,
// and a recursive case held in a shared cell. Shared by the coding tests and the fuzz target.

#include <corvane/coding/Coding.hpp>

#include <boost/describe/class.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace corvane::testing {

enum class Colour { red, green };
BOOST_DESCRIBE_ENUM(Colour, red, green)

enum class Shade { light, dark };
BOOST_DESCRIBE_ENUM(Shade, light, dark)

enum class Level : std::int64_t { low = 1, high = 3 };
BOOST_DESCRIBE_ENUM(Level, low, high)

struct Inner {
  std::string name;
  std::optional<std::int64_t> count;
  friend bool operator==(const Inner&, const Inner&) = default;
};
BOOST_DESCRIBE_STRUCT(Inner, (), (name, count))

/// A case-keyed enumeration: a unit case, an unlabelled payload, two payloads (one labelled),
/// and a recursive case.
class Choice {
 public:
  struct Nothing {
    static constexpr std::string_view caseName = "nothing";
    friend bool operator==(const Nothing&, const Nothing&) = default;
  };
  struct Number {
    static constexpr std::string_view caseName = "number";
    double _0 = 0;
    friend bool operator==(const Number&, const Number&) = default;
    BOOST_DESCRIBE_CLASS(Number, (), (_0), (), ())
  };
  struct Pair {
    static constexpr std::string_view caseName = "pair";
    Inner _0;
    Colour colour = Colour::red;
    friend bool operator==(const Pair&, const Pair&) = default;
    BOOST_DESCRIBE_CLASS(Pair, (), (_0, colour), (), ())
  };
  struct Nested {
    static constexpr std::string_view caseName = "nested";
    std::shared_ptr<const Choice> _0;
    friend bool operator==(const Nested& a, const Nested& b) {
      return a._0 && b._0 ? *a._0 == *b._0 : a._0 == b._0;
    }
    BOOST_DESCRIBE_CLASS(Nested, (), (_0), (), ())
  };
  using Cases = std::variant<Nothing, Number, Pair, Nested>;

  explicit Choice(Cases cases) : cases_(std::move(cases)) {}
  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }
  friend bool operator==(const Choice&, const Choice&) = default;

 private:
  Cases cases_;
};

struct Sample {
  std::string title;
  std::optional<std::string> note;
  std::vector<Inner> items;
  Choice choice{Choice::Cases(Choice::Nothing{})};
  std::optional<Choice> spare;
  Shade shade = Shade::light;
  Level level = Level::low;
  bool flag = false;
  friend bool operator==(const Sample&, const Sample&) = default;
};
BOOST_DESCRIBE_STRUCT(Sample, (), (title, note, items, choice, spare, shade, level, flag))

}  // namespace corvane::testing

namespace corvane::coding {
template <>
inline constexpr EnumCoding enumCoding<testing::Shade> = EnumCoding::stringRawValue;
template <>
inline constexpr EnumCoding enumCoding<testing::Level> = EnumCoding::integerRawValue;
}  // namespace corvane::coding
