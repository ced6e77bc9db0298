// Decoding straight from a document's tokens must give exactly what decoding through a tree of
// values gives, and must leave every document the tree rejects to the tree (whose errors the
// coding tests check).

#include "support/SampleRecords.hpp"

#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/requests/DDMDeclarationKeysRequest.hpp>

#include <gtest/gtest.h>

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::testing {
namespace {

std::span<const std::byte> bytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

// Both decodings of `document` as one T: the tokens must give a value, equal to the tree's.
template <class T>
void expectSameValue(std::string_view document) {
  const auto direct = coding::detail::decodeFromTape<T>(bytes(document));
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

class TapeAcceptsWhatTheTreeAccepts : public ::testing::TestWithParam<Accepted> {};

TEST_P(TapeAcceptsWhatTheTreeAccepts, WithTheSameSample) {
  expectSameValue<Sample>(GetParam().document);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, TapeAcceptsWhatTheTreeAccepts,
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
        Accepted{"ElementsBeyondTheFirstAreNotRead",
                 R"([{"title": "t", "items": [], "choice": {"nothing": {}}, "shade": "light",
                      "level": 1, "flag": false}, {"junk": true}])"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(TapeReader, TakesTheStatusReply) {
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

TEST(TapeReader, HandsTypesWithTheirOwnFormToTheirCoding) {
  expectSameValue<std::map<std::string, boost::uuids::uuid>>(
      R"([{"a": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}])");
  expectSameValue<std::vector<TimePoint>>(R"([["2024-02-29T12:30:00Z"]])");
  // Its coding reads nothing, whatever the value.
  expectSameValue<DDMDeclarationKeysRequest>(R"([[1, {"a": null}]])");
}

TEST(TapeReader, LeavesEveryDocumentTheTreeRejectsToTheTree) {
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
       }) {
    EXPECT_FALSE(coding::detail::decodeFromTape<Sample>(bytes(document)).has_value()) << document;
    EXPECT_THROW((void)coding::detail::decodeFromTree<Sample>(bytes(document)), CodingError)
        << document;
  }
  EXPECT_FALSE(coding::detail::decodeFromTape<std::vector<boost::uuids::uuid>>(bytes(R"([["x"]])"))
                   .has_value());
}

}  // namespace
}  // namespace corvane::testing
