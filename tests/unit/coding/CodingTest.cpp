#include "support/Json.hpp"
#include "support/SampleRecords.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace corvane::testing {
namespace {

using Kind = CodingError::Kind;

Sample sampleWithEverything() {
  Sample s;
  s.title = "t";
  s.note = "n";
  s.items = {Inner{"a", 1}, Inner{"b", std::nullopt}};
  s.choice = Choice(Choice::Pair{Inner{"p", 7}, Colour::green});
  s.spare = Choice(Choice::Nested{std::make_shared<const Choice>(Choice::Number{0.25})});
  s.shade = Shade::dark;
  s.level = Level::high;
  s.flag = true;
  return s;
}

template <class T>
T decodeOne(std::string_view document) {
  return std::get<0>(TetherDecoder<T>::decode(bytesOf(document)));
}

template <class T>
void decodeAs(std::string_view document) {
  (void)decodeOne<T>(document);
}

// Runs `f` and returns the CodingError it throws; fails the test when it throws nothing.
template <class F>
CodingError codingErrorOf(F&& f) {
  try {
    f();
  } catch (const CodingError& e) {
    return e;
  }
  ADD_FAILURE() << "expected a CodingError";
  return {Kind::dataCorrupted, "", "none thrown"};
}

TEST(Envelope, OneValueIsAListOfOneElementAndDecodesBack) {
  const Sample s = sampleWithEverything();
  const Bytes buffer = TetherEncoder::encode(s);
  EXPECT_EQ(parseJson(buffer), parseJson(R"([{
      "title": "t", "note": "n",
      "items": [{"name": "a", "count": 1}, {"name": "b"}],
      "choice": {"pair": {"_0": {"name": "p", "count": 7}, "colour": {"green": {}}}},
      "spare": {"nested": {"_0": {"number": {"_0": 0.25}}}},
      "shade": "dark", "level": 3, "flag": true}])"));
  EXPECT_EQ(decodeOne<Sample>(buffer.view()), s);
}

TEST(Envelope, KeysAreWrittenInDeclarationOrder) {
  const boost::json::value document = parseJson(TetherEncoder::encode(sampleWithEverything()));
  const auto& object = document.as_array().at(0).as_object();
  std::vector<std::string> keys;
  for (const auto& entry : object) keys.emplace_back(entry.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"title", "note", "items", "choice", "spare", "shade",
                                            "level", "flag"}));
}

TEST(Envelope, SeveralValuesKeepTheirOrderAndExtraElementsAreNotRead) {
  const Bytes pair = TetherEncoder::encode(std::vector<std::string>{"x", "y"}, std::string("id"));
  EXPECT_EQ(parseJson(pair), parseJson(R"([["x", "y"], "id"])"));
  const auto [list, id] = TetherDecoder<std::vector<std::string>, std::string>::decode(pair);
  EXPECT_EQ(list, (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(id, "id");
  EXPECT_EQ(decodeOne<std::vector<std::string>>(pair.view()), (std::vector<std::string>{"x", "y"}));
}

TEST(Envelope, RecordWithOnlyEmptyOptionalsIsAnEmptyContainer) {
  EXPECT_EQ(parseJson(TetherEncoder::encode(Inner{"", std::nullopt}).view()),
            parseJson(R"([{"name": ""}])"));
  EXPECT_EQ(parseJson(TetherEncoder::encode(std::optional<Inner>()).view()), parseJson("[null]"));
}

struct Failure {
  const char* name;
  const char* document;
  Kind kind;
  const char* path;
  const char* description;  // a fragment of the description, or nullptr
};

void PrintTo(const Failure& f, std::ostream* os) {
  *os << f.name;
}

class EnvelopeFailures : public ::testing::TestWithParam<Failure> {};

TEST_P(EnvelopeFailures, SayWhatAndWhere) {
  const Failure& f = GetParam();
  const CodingError e = codingErrorOf([&] { (void)decodeOne<Sample>(f.document); });
  EXPECT_EQ(e.kind(), f.kind) << toString(e.kind()) << ": " << e.description();
  EXPECT_EQ(e.codingPath(), f.path);
  if (f.description != nullptr) {
    EXPECT_NE(e.description().find(f.description), std::string::npos) << e.description();
  }
}

constexpr const char* kChoice = R"("choice": {"nothing": {}})";

INSTANTIATE_TEST_SUITE_P(
    Decoding, EnvelopeFailures,
    ::testing::Values(
        Failure{"NotJson", "{nope", Kind::dataCorrupted, "", "not a valid JSON document"},
        Failure{"EmptyBuffer", "", Kind::dataCorrupted, "", nullptr},
        Failure{"TrailingGarbage", "[] x", Kind::dataCorrupted, "", nullptr},
        Failure{"TopLevelNotAList", R"({"title": "t"})", Kind::typeMismatch, "", "an array"},
        Failure{"EmptyList", "[]", Kind::valueNotFound, "[0]", nullptr},
        Failure{"MissingRequiredKey", R"([{"items": []}])", Kind::keyNotFound, "[0]", "\"title\""},
        Failure{"NullForRequired", R"([{"title": null}])", Kind::valueNotFound, "[0].title",
                nullptr},
        Failure{"WrongKind", R"([{"title": 5}])", Kind::typeMismatch, "[0].title",
                "Expected a string but found a number"},
        Failure{"NestedElement", R"([{"title": "t", "items": [{"name": "a"}, {"count": 2}]}])",
                Kind::keyNotFound, "[0].items[1]", "\"name\""},
        Failure{"TwoCaseKeys",
                R"([{"title": "t", "items": [], "choice": {"nothing": {}, "number": {"_0": 1}}}])",
                Kind::typeMismatch, "[0].choice", "Invalid number of keys found, expected one."},
        Failure{"NoCaseKey", R"([{"title": "t", "items": [], "choice": {}}])", Kind::typeMismatch,
                "[0].choice", "Invalid number of keys found, expected one."},
        Failure{"OnlyUnknownKey", R"([{"title": "t", "items": [], "choice": {"other": {}}}])",
                Kind::typeMismatch, "[0].choice", "Invalid number of keys found, expected one."},
        Failure{"CasePayloadNotAContainer",
                R"([{"title": "t", "items": [], "choice": {"nothing": true}}])", Kind::typeMismatch,
                "[0].choice.nothing", "an object"},
        Failure{"MissingUnlabelledPayload",
                R"([{"title": "t", "items": [], "choice": {"number": {}}}])", Kind::keyNotFound,
                "[0].choice.number", "\"_0\""},
        Failure{"MissingLabelledPayload",
                R"([{"title": "t", "items": [], "choice": {"pair": {"_0": {"name": "x"}}}}])",
                Kind::keyNotFound, "[0].choice.pair", "\"colour\""},
        Failure{"PlainEnumAsString",
                R"([{"title": "t", "items": [], "choice": {"pair": {"_0": {"name": "x"},
                     "colour": "red"}}}])",
                Kind::typeMismatch, "[0].choice.pair.colour", "an object"},
        Failure{"UnknownStringRawValue",
                R"([{"title": "t", "items": [], )"
                R"("choice": {"nothing": {}}, "shade": "Dark"}])",
                Kind::dataCorrupted, "[0].shade", "\"Dark\""},
        Failure{"UnknownIntegerRawValue",
                R"([{"title": "t", "items": [], "choice": {"nothing": {}}, "shade": "dark",
                     "level": 2}])",
                Kind::dataCorrupted, "[0].level", "2"},
        Failure{"RecursiveCaseError",
                R"([{"title": "t", "items": [], "choice": {"nested": {"_0": {"nested": {"_0":
                     {"number": {"_0": "x"}}}}}}}])",
                Kind::typeMismatch, "[0].choice.nested._0.nested._0.number._0", "a number"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(Records, UnknownKeysAreIgnoredAndNullOptionalsAreEmpty) {
  const auto s = decodeOne<Sample>(std::string(R"([{"title": "t", "extra": [1, 2], "note": null,
      "items": [], "spare": null, )")
                                   + kChoice + R"(, "shade": "light", "level": 1,
      "flag": false}])");
  EXPECT_EQ(s.title, "t");
  EXPECT_FALSE(s.note.has_value());
  EXPECT_FALSE(s.spare.has_value());
}

TEST(Records, OneCaseKeyBesideAnUnknownKeyDecodes) {
  const auto c = decodeOne<Choice>(R"([{"zzz": 1, "number": {"_0": 2, "junk": 0}}])");
  EXPECT_EQ(c, Choice(Choice::Number{2}));
}

TEST(Records, DuplicateKeysKeepTheLastOne) {
  EXPECT_EQ(decodeOne<Inner>(R"([{"name": "first", "name": "last"}])").name, "last");
}

TEST(Numbers, IntegersAreCheckedNeverWrapped) {
  EXPECT_EQ(decodeOne<std::int64_t>("[9223372036854775807]"),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(decodeOne<std::int64_t>("[-9223372036854775808]"),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decodeOne<std::int64_t>("[5.0]"), 5);
  EXPECT_EQ(decodeOne<std::uint64_t>("[18446744073709551615]"),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(decodeOne<std::int32_t>("[-7]"), -7);
  EXPECT_EQ(decodeOne<std::int64_t>("[-9223372036854774784]"), -9223372036854774784);
  EXPECT_EQ(decodeOne<std::int64_t>("[-9.223372036854774784e18]"), -9223372036854774784);
  // Integers up to 1,024 below the range are read as the double -2^63.
  for (const char* bad :
       {"[9223372036854775808]", "[9.223372036854775808e18]", "[5.5]", "[1e300]",
        "[-9223372036854775809]", "[-9223372036854776832]", "[-9223372036854775808.5]",
        "[-9.223372036854775809e18]", "[-9223372036854776833]", "[-1e300]", "[\"5\"]", "[true]"}) {
    EXPECT_EQ(codingErrorOf([&] { (void)decodeOne<std::int64_t>(bad); }).kind(), Kind::typeMismatch)
        << bad;
  }
  for (const char* bad : {"[-1]", "[1.5]", "[18446744073709551616]", "[1.8446744073709551616e19]",
                          "[-9223372036854775808]", "[-9223372036854775809]", "[-1e300]"}) {
    EXPECT_EQ(codingErrorOf([&] { (void)decodeOne<std::uint64_t>(bad); }).kind(),
              Kind::typeMismatch)
        << bad;
  }
  const std::vector<std::pair<std::string_view, void (*)(std::string_view)>> narrower = {
      {"[2147483648]", &decodeAs<std::int32_t>},
      {"[-2147483649]", &decodeAs<std::int32_t>},
      {"[4294967296]", &decodeAs<std::int32_t>},
      {"[-9223372036854775809]", &decodeAs<std::int32_t>},
      {"[4294967296]", &decodeAs<std::uint32_t>},
      {"[-1]", &decodeAs<std::uint32_t>},
      {"[128]", &decodeAs<std::int8_t>},
      {"[-129]", &decodeAs<std::int8_t>},
      {"[-9223372036854775809]", &decodeAs<std::int8_t>},
      {"[65536]", &decodeAs<std::uint16_t>},
      {"[-1]", &decodeAs<std::uint16_t>},
  };
  for (const auto& row : narrower) {
    EXPECT_EQ(codingErrorOf([&] { row.second(row.first); }).kind(), Kind::typeMismatch)
        << row.first;
  }
}

TEST(Numbers, DoublesMustBeFinite) {
  EXPECT_EQ(decodeOne<double>("[3]"), 3.0);
  EXPECT_EQ(decodeOne<double>("[0.5]"), 0.5);
  EXPECT_EQ(codingErrorOf([] { (void)decodeOne<double>("[1e400]"); }).kind(), Kind::dataCorrupted);
  for (double bad : {std::nan(""), std::numeric_limits<double>::infinity()}) {
    const CodingError e = codingErrorOf([&] { (void)TetherEncoder::encode(bad); });
    EXPECT_EQ(e.kind(), Kind::invalidValue);
  }
  Sample s;
  s.choice = Choice(Choice::Number{std::nan("")});
  EXPECT_EQ(codingErrorOf([&] { (void)TetherEncoder::encode(s); }).kind(), Kind::invalidValue);
}

TEST(Numbers, DoublesSurviveTheRoundTripExactly) {
  // Each of these is the shortest text of its double; the parser must give back the same bits.
  for (const char* text : {"8.888888888888889E40", "8.888888888888889E102", "0.30000000000000004",
                           "2.2250738585072014E-308", "4.9406564584124654E-324",
                           "1.7976931348623157E308", "0.4567", "123456789012345680000"}) {
    const double expected = std::strtod(text, nullptr);
    const double decoded = decodeOne<double>(std::string("[") + text + "]");
    EXPECT_EQ(decoded, expected) << text;
    EXPECT_EQ(decodeOne<double>(TetherEncoder::encode(decoded).view()), decoded) << text;
  }
}

TEST(Robustness, DeepNestingFailsCleanly) {
  std::string deep(100000, '[');
  EXPECT_EQ(codingErrorOf([&] { (void)decodeOne<Sample>(deep); }).kind(), Kind::dataCorrupted);
  std::string nested = "[";
  for (int i = 0; i < 60; ++i) nested += R"({"nested": {"_0": )";
  nested += R"({"nothing": {}})";
  for (int i = 0; i < 60; ++i) nested += "}}";
  nested += "]";
  EXPECT_NO_THROW((void)decodeOne<Choice>(nested));
}

}  // namespace
}  // namespace corvane::testing
