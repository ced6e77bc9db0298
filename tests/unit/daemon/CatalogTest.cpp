// The catalogue: the built-in sample, look-ups, the entry published for a declaration, and a
// file that does not decode.

#include "Catalog.hpp"

#include <gtest/gtest.h>

#include <set>

namespace corvane::sim {
namespace {

TEST(Catalog, TheSampleIsADozenDistinctAppsOnSeveralPlatforms) {
  const Catalog catalog = Catalog::sample();
  ASSERT_GE(catalog.apps().size(), 12U);
  std::set<std::string> bundles;
  std::set<std::int64_t> items;
  std::set<std::int64_t> platforms;
  bool licensed = false;
  for (const auto& app : catalog.apps()) {
    bundles.insert(app.bundleID());
    items.insert(app.itemID().value_or(-1));
    platforms.insert(app.platform().code);
    licensed = licensed || app.licenseAgreementURL().has_value();
    EXPECT_FALSE(app.screenshotURLs({100, 100}).empty()) << app.bundleID();
    EXPECT_TRUE(app.buyParams().has_value()) << app.bundleID();
  }
  EXPECT_EQ(bundles.size(), catalog.apps().size());
  EXPECT_EQ(items.size(), catalog.apps().size());
  EXPECT_GE(platforms.size(), 4U);
  EXPECT_TRUE(licensed);
}

TEST(Catalog, FindsByItemOrBundleAndRelabelsForADeclaration) {
  const Catalog catalog = Catalog::sample();
  const ManagedApp* byItem = catalog.find(StoreAppIdentifier::itemID(1000000001));
  ASSERT_NE(byItem, nullptr);
  EXPECT_EQ(catalog.find(StoreAppIdentifier::bundleID(byItem->bundleID())), byItem);
  EXPECT_EQ(catalog.find(StoreAppIdentifier::itemID(42)), nullptr);
  EXPECT_EQ(catalog.find(StoreAppIdentifier::bundleID("dev.corvane.unknown")), nullptr);

  const auto entry = catalog.entryFor(byItem->bundleID(), "my-declaration");
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->declarationIdentifier(), "my-declaration");
  EXPECT_EQ(entry->name(), byItem->name());
  EXPECT_EQ(entry->itemID(), byItem->itemID());
  EXPECT_FALSE(catalog.entryFor("dev.corvane.unknown", "x").has_value());
}

TEST(Catalog, ADocumentThatDoesNotDecodeNamesItsOriginAndPath) {
  struct Row {
    std::string document;
    std::string expected;
  };
  const std::vector<Row> table = {
      {"not json", "cat.json: the catalogue does not decode at the top level"},
      {R"({"a": 1})", "at the top level"},
      {R"([{"declarationIdentifier": "D", "bundleID": "b", "platform": "one", "name": "n",
           "genres": [], "languages": [], "screenshots": [], "hasLicenseAgreement": false}])",
       "at [0].platform"},
  };
  for (const auto& row : table) {
    try {
      (void)Catalog::parse(row.document, "cat.json");
      ADD_FAILURE() << row.document;
    } catch (const CatalogError& error) {
      EXPECT_NE(std::string(error.what()).find(row.expected), std::string::npos) << error.what();
    }
  }
  EXPECT_THROW((void)Catalog::load("/nonexistent/catalog.json"), CatalogError);
  EXPECT_TRUE(Catalog::parse("[]", "empty").apps().empty());
}

}  // namespace
}  // namespace corvane::sim
