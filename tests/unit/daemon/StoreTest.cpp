// The store on a real SQLite file: what is put survives closing and reopening, a database of an
// older schema is brought up to date, and one of a newer schema is refused rather than misread.

#include "Store.hpp"
#include "support/TemporaryDirectory.hpp"

#include <boost/uuid/string_generator.hpp>
#include <gtest/gtest.h>

#include <fstream>
#include <sqlite3.h>

namespace corvane::sim {
namespace {

using testing::TemporaryDirectory;

AppRecord record(std::string bundleID, Phase phase) {
  AppRecord app;
  app.bundleID = std::move(bundleID);
  app.declarationIdentifier = "D";
  app.declarationKey = "K";
  app.name = "Name";
  app.phase = phase;
  app.reasons = {ManagedAppStatus::Reason::downloadFailed, ManagedAppStatus::Reason::notAnApp};
  app.versionID = 9'000'000'000;
  app.version = "2.1";
  app.uuid = boost::uuids::string_generator()("0F5C3C57-7E09-4F4B-9B0C-2E1D7C6A9B11");
  return app;
}

TEST(Store, EverythingPutIsThereAfterReopening) {
  const TemporaryDirectory directory;
  const auto file = directory.path() / "state.db";
  {
    Store store(file);
    store.transaction([&] {
      store.putDeclaration({"D1", "K1", R"({"a":1})"});
      store.putDeclaration({"D2", "K2", R"({"b":2})"});
      store.putApp(record("x", Phase::failed));
      store.putApp(record("y", Phase::managed));
      store.addHistory("x", "failed");
    });
    store.putDeclaration({"D1", "K1b", R"({"a":3})"});  // replaces
    store.removeDeclaration("D2");
    store.removeApp("y");
  }
  Store reopened(file);
  const auto declarations = reopened.declarations();
  ASSERT_EQ(declarations.size(), 1U);
  EXPECT_EQ(declarations[0].identifier, "D1");
  EXPECT_EQ(declarations[0].key, "K1b");
  EXPECT_EQ(declarations[0].document, R"({"a":3})");
  const auto apps = reopened.apps();
  ASSERT_EQ(apps.size(), 1U);
  const AppRecord expected = record("x", Phase::failed);
  EXPECT_EQ(apps[0].bundleID, expected.bundleID);
  EXPECT_EQ(apps[0].phase, Phase::failed);
  EXPECT_EQ(apps[0].reasons, expected.reasons);
  EXPECT_EQ(apps[0].versionID, expected.versionID);
  EXPECT_EQ(apps[0].version, "2.1");
  EXPECT_EQ(apps[0].uuid, expected.uuid);
  EXPECT_EQ(reopened.historySize(), 1);
  reopened.clearHistory();
  EXPECT_EQ(reopened.historySize(), 0);
}

TEST(Store, AnOlderDatabaseGainsTheManifestsAndKeepsWhatItHolds) {
  const TemporaryDirectory directory;
  const auto file = directory.path() / "state.db";
  {
    // A version 2 database: everything but the manifests.
    Store store(file);
    store.putDeclaration({"D1", "K1", "{}"});
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(
        sqlite3_exec(db, "DROP TABLE manifests; PRAGMA user_version=2", nullptr, nullptr, nullptr),
        SQLITE_OK);
    sqlite3_close(db);
  }
  {
    Store store(file);
    EXPECT_EQ(store.declarations().size(), 1U);
    store.putManifest({"a.b", "http://h/a.flatpakref", "[Flatpak Ref]\nName=a.b\n"});
    store.putManifest({"c.d", "file:///c.flatpakref", "x"});
    store.putManifest({"a.b", "http://h/a2.flatpakref", "y"});  // replaces
    store.removeManifest("c.d");
  }
  const auto manifests = Store(file).manifests();
  ASSERT_EQ(manifests.size(), 1U);
  EXPECT_EQ(manifests[0].bundleID, "a.b");
  EXPECT_EQ(manifests[0].url, "http://h/a2.flatpakref");
  EXPECT_EQ(manifests[0].contents, "y");
}

TEST(Store, ATransactionThatThrowsLeavesNothingBehind) {
  Store store({});  // in memory
  EXPECT_THROW(store.transaction([&] {
    store.putDeclaration({"D1", "K1", "{}"});
    throw std::runtime_error("stop");
  }),
               std::runtime_error);
  EXPECT_TRUE(store.declarations().empty());
}

TEST(Store, RefusesANewerSchemaAndAFileThatIsNoDatabase) {
  const TemporaryDirectory directory;
  const auto newer = directory.path() / "newer.db";
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(newer.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "PRAGMA user_version=99", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  try {
    Store store(newer);
    FAIL() << "a newer schema was accepted";
  } catch (const StoreError& error) {
    EXPECT_NE(std::string(error.what()).find("schema version 99"), std::string::npos);
  }
  const auto garbage = directory.path() / "garbage.db";
  std::ofstream(garbage) << std::string(4096, 'x');
  EXPECT_THROW(Store{garbage}, StoreError);
  EXPECT_THROW(Store{directory.path() / "missing" / "x.db"}, StoreError);
}

}  // namespace
}  // namespace corvane::sim
