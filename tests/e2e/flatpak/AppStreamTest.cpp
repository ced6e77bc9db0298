// The AppStream reader over the catalogue the test repository publishes, and over files that are
// not catalogues.

#include "AppStream.hpp"
#include "FlatpakError.hpp"
#include "Installation.hpp"
#include "support/TestRepository.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

namespace corvane::flatpak {
namespace {

using testing::TemporaryDirectory;
using testing::TestRepository;

TEST(AppStreamTest, TheRemoteCatalogueGivesEveryField) {
  auto& repository = TestRepository::get();
  const TemporaryDirectory dir;
  auto installation = Installation::openAt(dir.path());
  installation.addRemote("corvane-test", repository.url());
  const auto xml = installation.updateAppStream("corvane-test");

  std::map<std::string, AppStreamComponent> byId;
  for (auto& component : readAppStream(xml)) byId[component.id] = std::move(component);
  ASSERT_EQ(byId.size(), 4U);

  struct Expected {
    std::string id, name, summary, version, licence;
    std::vector<std::string> categories, languages;
  };
  const std::vector<Expected> expected{
      {"org.corvane.Test.Hello",
       "Corvane Hello",
       "Writes a marker file when it runs",
       "1.0",
       "MIT",
       {"Utility"},
       {"en", "de", "fr"}},
      {"org.corvane.Test.Big",
       "Corvane Big",
       "Large enough to cancel while it downloads",
       "1.0",
       "GPL-3.0-or-later",
       {"Game", "ArcadeGame"},
       {"en"}},
      {"org.corvane.Test.Broken",
       "Corvane Broken",
       "Needs a runtime nobody has",
       "1.0",
       "MIT",
       {"Development"},
       {"en"}},
      {"org.corvane.Test.Quiet",
       "Corvane Quiet",
       "Does nothing, quietly",
       "3.1.4",
       "Apache-2.0",
       {"Office", "Viewer"},
       {"en", "ja"}},
  };
  for (const auto& want : expected) {
    SCOPED_TRACE(want.id);
    ASSERT_TRUE(byId.contains(want.id));
    const auto& got = byId.at(want.id);
    EXPECT_EQ(got.name, want.name);
    EXPECT_EQ(got.summary, want.summary);
    EXPECT_EQ(got.developerName, "Corvane Test Developers");
    EXPECT_EQ(got.version, want.version);
    EXPECT_EQ(got.projectLicence, want.licence);
    EXPECT_EQ(got.categories, want.categories);
    EXPECT_EQ(got.languages, want.languages);
    EXPECT_EQ(got.screenshots,
              (std::vector<std::string>{"https://corvane.test/screenshots/" + want.id + "/1.png",
                                        "https://corvane.test/screenshots/" + want.id + "/2.png"}));
    EXPECT_EQ(got.bundle, appRef(want.id, "stable"));
    EXPECT_EQ(got.iconPath.filename(), want.id + ".png");
    EXPECT_EQ(testing::readFile(got.iconPath).substr(1, 3), "PNG");
  }
}

TEST(AppStreamTest, NewestReleaseTranslationsAndRemoteIcons) {
  const TemporaryDirectory dir;
  const auto xml = dir.path() / "appstream.xml";
  std::ofstream(xml) << R"(<?xml version="1.0"?>
<components version="0.14">
  <component><name>No ID, skipped</name></component>
  <component>
    <id>org.example.A</id>
    <name xml:lang="de">Deutsch</name><name>English</name>
    <icon type="remote">https://example.org/a.png</icon>
    <icon type="cached" width="64" height="64">missing.png</icon>
    <screenshots>
      <screenshot><image type="thumbnail">https://t/2</image><image type="source">https://s/2</image></screenshot>
      <screenshot type="default"><image>https://s/1</image></screenshot>
    </screenshots>
    <releases><release version="1.0" timestamp="1000"/><release version="1.2" timestamp="3000"/>
      <release version="1.1" timestamp="2000"/></releases>
  </component>
</components>)";
  const auto components = readAppStream(xml);
  ASSERT_EQ(components.size(), 1U);
  EXPECT_EQ(components[0].name, "English");
  EXPECT_EQ(components[0].iconUrl, "https://example.org/a.png");
  EXPECT_TRUE(components[0].iconPath.empty());
  EXPECT_EQ(components[0].screenshots, (std::vector<std::string>{"https://s/1", "https://s/2"}));
  EXPECT_EQ(components[0].version, "1.2");

  // The same compressed, as repositories without the uncompressed branch publish it.
  testing::runScript({"gzip", "-k", xml.native()});
  const auto compressed = readAppStream(xml.native() + ".gz");
  ASSERT_EQ(compressed.size(), 1U);
  EXPECT_EQ(compressed[0].version, "1.2");
  EXPECT_EQ(compressed[0].screenshots, components[0].screenshots);
}

TEST(AppStreamTest, WhatIsNotACatalogueFailsWithItsReason) {
  const TemporaryDirectory dir;
  const std::vector<std::pair<std::string, std::string>> cases{
      {"<components><component>", "line 1: "},
      {"<?xml version=\"1.0\"?>\n<application/>",
       "not an AppStream catalogue (the root is <application>"},
      {"", "Document is empty"},
  };
  for (const auto& [text, says] : cases) {
    SCOPED_TRACE(text);
    const auto xml = dir.path() / "bad.xml";
    std::ofstream(xml) << text;
    try {
      (void)readAppStream(xml);
      ADD_FAILURE() << "no error";
    } catch (const AppStreamError& error) {
      EXPECT_NE(std::string(error.what()).find(says), std::string::npos) << error.what();
      EXPECT_NE(std::string(error.what()).find(xml.native()), std::string::npos) << error.what();
    }
  }
  EXPECT_THROW((void)readAppStream(dir.path() / "absent.xml"), AppStreamError);
}

}  // namespace
}  // namespace corvane::flatpak
