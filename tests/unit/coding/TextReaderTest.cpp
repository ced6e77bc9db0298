// Decoding straight from a document's text must give exactly what decoding through a tree of
// values gives, and must leave every document the tree rejects to the tree (whose errors the
// coding tests check).

#include "support/SampleRecords.hpp"

#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/coding/detail/SameText.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/requests/DDMDeclarationKeysRequest.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::testing {
namespace {

std::span<const std::byte> bytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

// Both decodings of `document` as one T: the direct one must give a value, equal to the tree's.
template <class T>
void expectSameValue(std::string_view document) {
  const auto direct = coding::detail::decodeDirectly<T>(bytes(document));
  ASSERT_TRUE(direct.has_value()) << "left to the tree: " << document;
  const auto [tree] = coding::detail::decodeFromTree<T>(bytes(document));
  // Compared through their encodings, which every coded type has.
  EXPECT_EQ(TetherEncoder::encode(std::get<0>(*direct)), TetherEncoder::encode(tree)) << document;
}

struct Accepted {
  const char* name;
  const char* document;
};

void PrintTo(const Accepted& a, std::ostream* os) {
  *os << a.name;
}

class DirectReadingTakesWhatTheTreeTakes : public ::testing::TestWithParam<Accepted> {};

TEST_P(DirectReadingTakesWhatTheTreeTakes, WithTheSameSample) {
  expectSameValue<Sample>(GetParam().document);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, DirectReadingTakesWhatTheTreeTakes,
    ::testing::Values(
        Accepted{"Everything", R"([{"title": "t", "note": "n",
            "items": [{"name": "a", "count": 1}, {"name": "b"}],
            "choice": {"pair": {"_0": {"name": "p", "count": 7}, "colour": {"green": {}}}},
            "spare": {"nested": {"_0": {"number": {"_0": 0.25}}}},
            "shade": "dark", "level": 3, "flag": true}])"},
        Accepted{"KeysInAnyOrderUnknownKeysAndNulls",
                 R"([{"flag": false, "extra": {"title": 5}, "items": [], "note": null,
                      "spare": null, "choice": {"zzz": [], "nothing": {"x": 1}}, "level": 1,
                      "shade": "light", "title": "t"}])"},
        Accepted{"DuplicateKeysKeepTheLastOne",
                 R"([{"title": "first", "items": [{"name": "x", "name": "y"}], "title": "last",
                      "choice": {"number": {"_0": 1}, "number": {"_0": 2}}, "shade": "dark",
                      "level": 3, "flag": true, "flag": false}])"},
        Accepted{"EscapedKeysAndStrings",
                 R"([{"ti\u0074le": "a\"b\\c\u00e9\ud83d\ude00", "items": [{"name": "\n"}],
                      "choice": {"nothing": {}}, "shade": "d\u0061rk", "level": 1,
                      "flag": true}])"},
        Accepted{"IntegralDoublesAndLargeNumbers",
                 R"([{"title": "t", "items": [{"name": "a", "count": 1e3},
                      {"name": "b", "count": -9223372036854775808}],
                      "choice": {"number": {"_0": 8.888888888888889E40}}, "shade": "light",
                      "level": 1.0, "flag": false}])"},
        Accepted{"KeysSpacedOrLongerThanTheExpectedOne",
                 R"([{"title" : "t", "notes": 1, "note" :"n", "items": [{"name" :"a",
                      "counts": 5, "count":2}], "choice": {"nothing": {}},"shade":"dark",
                      "level" :1,"flag":true}])"},
        Accepted{"ElementsBeyondTheFirstAreNotRead",
                 R"([{"title": "t", "items": [], "choice": {"nothing": {}}, "shade": "light",
                      "level": 1, "flag": false}, {"junk": true}])"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(TextReader, TakesTheStatusReply) {
  expectSameValue<ServiceResult<std::vector<ManagedAppStatus>>>(R"([{"success": {"_0": [
      {"bundleID": "dev.corvane.app0", "declarationIdentifier": "D0", "declarationKey": "K0",
       "state": "managed", "updateState": "promptingForUpdateLogin",
       "reasons": ["updateAvailable", "updateFailed"], "name": "App 0",
       "installedVersionInfo": {"pomeralVersionID": 1000, "bundleVersion": "10",
                                "bundleShortVersion": "1.0"}},
      {"bundleID": "b", "declarationIdentifier": "D1", "declarationKey": "K1", "state": "failed",
       "reasons": [], "name": "App 1"}]}}])");
  expectSameValue<ServiceResult<None>>(R"([{"failure": {"_0": {"deviceNotManaged": {}}}}])");
}

TEST(TextReader, TakesTheStatusReplyAsTheEncoderWritesIt) {
  ManagedAppStatus status;
  status.bundleID = "dev.corvane.a-bundle-of-more-than-32-characters";
  status.state = ManagedAppStatus::State::managedButUninstalled;
  status.updateState = ManagedAppStatus::UpdateState::promptingForUpdateLogin;
  status.reasons = {ManagedAppStatus::Reason::notSupported, ManagedAppStatus::Reason::updateFailed};
  status.installedVersionInfo = ManagedAppStatus::InstalledVersionInfo{std::nullopt, "1", "1.0"};
  const std::vector<ManagedAppStatus> statuses(20, status);
  const Bytes reply =
      TetherEncoder::encode(ServiceResult<std::vector<ManagedAppStatus>>::success(statuses));
  expectSameValue<ServiceResult<std::vector<ManagedAppStatus>>>(reply.view());
  // Decoded and written again, the reply is the same text.
  const auto [decoded] = TetherDecoder<ServiceResult<std::vector<ManagedAppStatus>>>::decode(reply);
  EXPECT_EQ(TetherEncoder::encode(decoded), reply);
}

TEST(TextReader, HandsTypesWithTheirOwnFormToTheirCoding) {
  expectSameValue<std::map<std::string, boost::uuids::uuid>>(
      R"([{"a": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}])");
  expectSameValue<std::vector<TimePoint>>(R"([["2024-02-29T12:30:00Z"]])");
  // Its coding reads nothing, whatever the value.
  expectSameValue<DDMDeclarationKeysRequest>(R"([[1, {"a": null}]])");
}

TEST(TextReader, LeavesEveryDocumentTheTreeRejectsToTheTree) {
  for (const char* document : {
           "",
           "{nope",
           "[] x",
           R"({"title": "t"})",
           "[]",
           R"([{"items": []}])",  // a required key missing
           R"([{"title": null, "items": [], "choice": {"nothing": {}}}])",  // null for required
           R"([{"title": 5, "items": [], "choice": {"nothing": {}}}])",     // wrong kind
           R"([{"title": "t", "items": [{"count": 2}], "choice": {"nothing": {}}}])",
           R"([{"title": "t", "items": [], "choice": {"nothing": {}, "number": {"_0": 1}}}])",
           R"([{"title": "t", "items": [], "choice": {}}])",
           R"([{"title": "t", "items": [], "choice": {"nothing": true}}])",
           R"([{"title": "t", "items": [], "choice": {"number": {}}}])",
           R"([{"title": "t", "items": [], "choice": {"nothing": {}}, "shade": "grey"}])",
           R"([{"title": "t", "items": [], "choice": {"nothing": {}}, "level": 2}])",
           R"([{"title": "t", "items": [{"name": "a", "count": 5.5}], "choice": {"nothing": {}}}])",
           R"([{"title": "t", "items": [], "choice": {"pair": {"_0": {"name": "p"},
                "colour": {"red": {}, "green": {}}}}}])",
           // Written as the encoder writes, in order, but not well formed.
           R"([{"title":"t","items":[],"choice":{"nothing":{}},}])",
           R"([{"title":"t""items":[],"choice":{"nothing":{}}}])",
           R"([{"title""t","items":[],"choice":{"nothing":{}}}])",
           R"([{,"title":"t","items":[],"choice":{"nothing":{}}}])",
           R"([{"title":"t",,"items":[],"choice":{"nothing":{}}}])",
           R"([{"title":"t","items":[],"choice":{"nothing":{}})",
       }) {
    EXPECT_FALSE(coding::detail::decodeDirectly<Sample>(bytes(document)).has_value()) << document;
    EXPECT_THROW((void)coding::detail::decodeFromTree<Sample>(bytes(document)), CodingError)
        << document;
  }
  EXPECT_FALSE(coding::detail::decodeDirectly<std::vector<boost::uuids::uuid>>(bytes(R"([["x"]])"))
                   .has_value());
}

// Whether the direct reading takes a document of scalars, and if it does, that the tree takes it
// too and decodes the same value.
struct Lexical {
  const char* name;
  std::string_view document;
  bool taken;  // by the direct reading
};

void PrintTo(const Lexical& l, std::ostream* os) {
  *os << l.name;
}

// `asElement`: the document is the list's one element. `padding`: whitespace after it, so
// that every token is read with many bytes still ahead (strings are scanned a block at a time).
template <class T>
void expectLexical(const Lexical& c, bool asElement, std::size_t padding = 0) {
  const std::string document =
      (asElement ? "[" + std::string(c.document) + "]" : std::string(c.document))
      + std::string(padding, ' ');
  const auto direct = coding::detail::decodeDirectly<T>(bytes(document));
  EXPECT_EQ(direct.has_value(), c.taken) << document;
  if (!direct) return;
  const auto [tree] = coding::detail::decodeFromTree<T>(bytes(document));
  EXPECT_EQ(TetherEncoder::encode(std::get<0>(*direct)), TetherEncoder::encode(tree)) << document;
  if constexpr (std::same_as<T, std::vector<double>>) {
    // Encodings could hide a sign of zero.
    ASSERT_EQ(std::get<0>(*direct).size(), tree.size());
    for (std::size_t i = 0; i < tree.size(); ++i) {
      EXPECT_EQ(std::signbit(std::get<0>(*direct)[i]), std::signbit(tree[i])) << document;
    }
  }
}

class Strings : public ::testing::TestWithParam<Lexical> {};
TEST_P(Strings, AsTheParserReadsThem) {
  expectLexical<std::vector<std::string>>(GetParam(), true);
  expectLexical<std::vector<std::string>>(GetParam(), true, 40);
}
INSTANTIATE_TEST_SUITE_P(
    Lexical, Strings,
    ::testing::Values(
        Lexical{"Plain", R"(["", "a", "a string longer than sixteen bytes, to cross a block"])",
                true},
        Lexical{"Escapes", R"(["\" \\ \/ \b \f \n \r \t", "x\u0000y", "\u00e9\u20ac"])", true},
        Lexical{"SurrogatePair", R"(["\ud83d\ude00", "a\uD83D\uDE00b"])", true},
        Lexical{"Utf8", "[\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 and more text after it\"]", true},
        Lexical{"LoneLeadingSurrogate", R"(["\ud800"])", false},
        Lexical{"LoneTrailingSurrogate", R"(["\udc00x"])", false},
        Lexical{"LeadingSurrogateThenOther", R"(["\ud800\u0041"])", false},
        Lexical{"OverlongUtf8", "[\"\xc0\x80\"]", false},
        Lexical{"EncodedSurrogate", "[\"\xed\xa0\x80\"]", false},
        Lexical{"BeyondUnicode", "[\"\xf4\x90\x80\x80\"]", false},
        Lexical{"TruncatedSequence", "[\"abc\xe2\x82\"]", false},
        Lexical{"StrayContinuation", "[\"0123456789abcdef\x80\"]", false},
        Lexical{"RawControlCharacter", "[\"a\tb\"]", false},
        Lexical{"RawControlCharacterLater", "[\"0123456789abcdefghij\x01\"]", false},
        Lexical{"UnknownEscape", R"(["\x41"])", false},
        Lexical{"ShortUnicodeEscape", R"(["\u12"])", false},
        Lexical{"NotTerminated", R"(["abc)", false}, Lexical{"EscapeAtTheEnd", R"(["abc\)", false},
        Lexical{"SingleQuotes", "['a']", false}),
    [](const auto& p) { return std::string(p.param.name); });

class Numbers : public ::testing::TestWithParam<Lexical> {};
TEST_P(Numbers, AsTheParserReadsThem) {
  expectLexical<std::vector<std::int64_t>>(GetParam(), true);
}
INSTANTIATE_TEST_SUITE_P(
    Lexical, Numbers,
    ::testing::Values(
        Lexical{"Integers", "[0, -0, 7, -12, 9223372036854775807, -9223372036854775808]", true},
        Lexical{"IntegralDoubles", "[1e3, 2.0, -4E+1, 100e-2]", true},
        Lexical{"BeyondInt64", "[-9223372036854775809]", false},
        Lexical{"BeyondUint64", "[18446744073709551616]", false},
        Lexical{"TwentyOneDigits", "[100000000000000000000]", false},
        Lexical{"LeadingZero", "[01]", false}, Lexical{"LeadingPlus", "[+1]", false},
        Lexical{"BareMinus", "[-]", false}, Lexical{"NoFractionDigits", "[1.]", false},
        Lexical{"NoExponentDigits", "[1e]", false},
        Lexical{"HugeExponent", "[0e1000000000]", false}, Lexical{"Hex", "[0x10]", false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(TextReader, ChecksTheRangeOfNarrowIntegers) {
  expectLexical<std::vector<std::int32_t>>({"InRange", "[-2147483648, 2147483647, 0]", true}, true);
  expectLexical<std::vector<std::int32_t>>({"TooLarge", "[2147483648]", false}, true);
  expectLexical<std::vector<std::uint16_t>>({"Negative", "[-1]", false}, true);
  expectLexical<std::vector<std::uint16_t>>({"WrittenAsDouble", "[6.5e4]", true}, true);
}

class Doubles : public ::testing::TestWithParam<Lexical> {};
TEST_P(Doubles, AsTheParserReadsThem) {
  expectLexical<std::vector<double>>(GetParam(), true);
}
INSTANTIATE_TEST_SUITE_P(
    Lexical, Doubles,
    ::testing::Values(Lexical{"Rounded", "[0.1, 8.888888888888889E40, 2.2250738585072014e-308]",
                              true},
                      Lexical{"NegativeZero", "[-0.0, -0e0]", true},
                      Lexical{"LargeUnsigned", "[18446744073709551615, 9999999999999999999]", true},
                      Lexical{"OutOfRange", "[1e400]", false},
                      Lexical{"Underflow", "[1e-400]", false}),
    [](const auto& p) { return std::string(p.param.name); });

class Structure : public ::testing::TestWithParam<Lexical> {};
TEST_P(Structure, AsTheParserReadsIt) {
  expectLexical<std::vector<std::optional<bool>>>(GetParam(), false);
}
INSTANTIATE_TEST_SUITE_P(
    Lexical, Structure,
    ::testing::Values(
        Lexical{"Whitespace", " \t\r\n[ [ true ,\nfalse\t, null ] ] \n", true},
        Lexical{"LaterElementsChecked", "[[true], {\"a\": [1, \"\\u00e9\"]}]", true},
        Lexical{"LaterElementBroken", "[[true], {\"a\": [1, \"\\q\"]}]", false},
        Lexical{"TrailingComma", "[[true,]]", false},
        Lexical{"MissingComma", "[[true false]]", false},
        Lexical{"MisspeltLiteral", "[[tru]]", false}, Lexical{"LiteralRunOn", "[[nullx]]", false},
        Lexical{"Comment", "/* c */ [[true]]", false}, Lexical{"TrailingText", "[[true]] x", false},
        Lexical{"TwoDocuments", "[[true]] [[true]]", false}, Lexical{"Unclosed", "[[true]", false},
        Lexical{"NulByteAfter", std::string_view("[[true]]\0", 9), false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(SameText, ComparesEveryByteOfEveryLength) {
  for (std::size_t size = 0; size <= 40; ++size) {
    std::string a(size, ' ');
    for (std::size_t i = 0; i < size; ++i) a[i] = static_cast<char>('a' + i % 26);
    EXPECT_TRUE(coding::detail::sameText(a, std::string(a))) << size;
    EXPECT_FALSE(coding::detail::sameText(a, a + "a")) << size;
    for (std::size_t i = 0; i < size; ++i) {
      std::string b = a;
      b[i] = static_cast<char>(b[i] ^ 0x20);
      EXPECT_FALSE(coding::detail::sameText(a, b)) << size << " differing at " << i;
    }
  }
}

// Every case is found by its name, and a name that is any other is found as nothing: names of
// the same length, one letter changed, one letter more or less.
template <class E>
void expectEveryCaseNamed() {
  boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([](auto d) {
    const std::string name = d.name;
    EXPECT_EQ(coding::fromCaseName<E>(name), d.value) << name;
    std::string changed = name;
    changed.back() = static_cast<char>(changed.back() ^ 0x20);
    EXPECT_EQ(coding::fromCaseName<E>(changed), std::nullopt) << changed;
    EXPECT_EQ(coding::fromCaseName<E>(name + "s"), std::nullopt) << name;
    EXPECT_EQ(coding::fromCaseName<E>(name.substr(1)), std::nullopt) << name;
  });
  EXPECT_EQ(coding::fromCaseName<E>(""), std::nullopt);
}

TEST(CaseNames, EveryCaseIsFoundByItsNameAndNoOtherName) {
  expectEveryCaseNamed<ManagedAppStatus::State>();
  expectEveryCaseNamed<ManagedAppStatus::Reason>();  // three names of twelve letters
  expectEveryCaseNamed<ManagedAppStatus::UpdateState>();
}

TEST(TextReader, LeavesDeepNestingToTheParser) {
  // The parser takes 128 levels; the direct reading stops short of that and leaves the rest to it.
  const auto withNesting = [](int depth) {
    return "[true, " + std::string(static_cast<std::size_t>(depth), '[') + "1"
           + std::string(static_cast<std::size_t>(depth), ']') + "]";
  };
  EXPECT_TRUE(coding::detail::decodeDirectly<bool>(bytes(withNesting(99))).has_value());
  for (const int depth : {120, 200}) {
    EXPECT_FALSE(coding::detail::decodeDirectly<bool>(bytes(withNesting(depth))).has_value());
  }
  EXPECT_TRUE(std::get<0>(TetherDecoder<bool>::decode(bytes(withNesting(120)))));
  EXPECT_THROW((void)TetherDecoder<bool>::decode(bytes(withNesting(200))), CodingError);
}

}  // namespace
}  // namespace corvane::testing
