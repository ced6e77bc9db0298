#include "unit/model/ValueTesting.hpp"

#include <corvane/requests/StoreAppIdentifier.hpp>

#include <fmt/format.h>

#include <unordered_set>

namespace corvane::testing {
namespace {

TEST(StoreAppIdentifier, CasesCodeUnderTheirNames) {
  EXPECT_EQ(coding::encode(StoreAppIdentifier::itemID(42)), parseJson(R"({"itemID": {"_0": 42}})"));
  EXPECT_EQ(coding::encode(StoreAppIdentifier::bundleID("dev.corvane.a")),
            parseJson(R"({"bundleID": {"_0": "dev.corvane.a"}})"));
  EXPECT_EQ(decodeJson<StoreAppIdentifier>(R"({"bundleID": {"_0": "x"}, "note": 1})"),
            StoreAppIdentifier::bundleID("x"));
  EXPECT_EQ(failureOf<StoreAppIdentifier>(R"({"itemID": {"_0": 1}, "bundleID": {"_0": "x"}})"),
            (Failure{Kind::typeMismatch, "", std::string(oneKeyExpected)}));
  EXPECT_EQ(failureOf<StoreAppIdentifier>(R"({"itemID": {"_0": "1"}})").path, "itemID._0");
  EXPECT_EQ(failureOf<StoreAppIdentifier>(R"({"itemID": {"_0": 18446744073709551615}})").kind,
            Kind::typeMismatch);
}

TEST(StoreAppIdentifier, AccessorsEqualityHashAndDescription) {
  const auto item = StoreAppIdentifier::itemID(5);
  const auto bundle = StoreAppIdentifier::bundleID("5");
  EXPECT_EQ(item.itemIdentifier(), 5);
  EXPECT_FALSE(item.bundleIdentifier());
  EXPECT_EQ(bundle.bundleIdentifier(), "5");
  EXPECT_FALSE(bundle.itemIdentifier());
  EXPECT_NE(item, bundle);
  EXPECT_EQ(item, StoreAppIdentifier::itemID(5));
  EXPECT_NE(bundle, StoreAppIdentifier::bundleID("5 "));
  EXPECT_EQ(item.description(), "Item ID: 5");
  EXPECT_EQ(bundle.description(), "Bundle ID: 5");
  EXPECT_EQ(fmt::format("{}", StoreAppIdentifier::itemID(-3)), "Item ID: -3");
  const std::unordered_set<StoreAppIdentifier> set{item, bundle, StoreAppIdentifier::itemID(5)};
  EXPECT_EQ(set.size(), 2U);
}

}  // namespace
}  // namespace corvane::testing
