#include "unit/model/ValueTesting.hpp"

#include <corvane/model/ManagedApp.hpp>
#include <corvane/platform/DeviceInfo.hpp>

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace corvane::testing {
namespace {

using Artwork = ManagedApp::Artwork;
using Size = ManagedApp::Size;

// Fixes the screen scale for one test and restores "not overridden" afterwards.
class ScreenScale {
 public:
  explicit ScreenScale(std::optional<double> scale) {
    platform::DeviceInfo::overrideScreenScale(scale);
  }
  ~ScreenScale() { platform::DeviceInfo::clearScreenScaleOverride(); }
  ScreenScale(const ScreenScale&) = delete;
  ScreenScale& operator=(const ScreenScale&) = delete;
};

constexpr std::string_view fullEntry = R"({
  "declarationIdentifier": "D1", "bundleID": "dev.corvane.notes", "itemID": 1234567890,
  "externalVersionID": 8812, "platform": 1, "fileSize": {"value": 52.5, "unit": "MB"},
  "metadataLanguage": "en-GB", "name": "Notes", "subtitle": "Write things down",
  "seller": "Corvane Labs", "genres": ["Productivity", "Utilities"],
  "description": "A notebook.", "languages": ["en-GB", "de", "zh-Hant-TW"],
  "requirements": "Needs a screen.", "version": "4.1.2", "releaseDate": "2026-11-22T10:00:00.5Z",
  "releaseNotes": "Fixes.", "icon": {"urlTemplate": "https://img.corvane.dev/i/{w}x{h}{c}.{f}",
  "maxWidth": 1024, "maxHeight": 1024}, "iconURL": "https://img.corvane.dev/i/icon.png",
  "screenshots": [{"urlTemplate": "https://img.corvane.dev/s/1/{w}x{h}{c}.{f}", "maxWidth": 2048,
  "maxHeight": 1536}], "contentRating": "4+", "developerWebsite": "https://corvane.dev/notes",
  "privacyPolicy": "https://corvane.dev/privacy", "hasLicenseAgreement": true,
  "copyright": "(c) 2026 Corvane Labs", "buyParams": "productType=C&price=0"})";

constexpr std::string_view minimalEntry = R"({"declarationIdentifier": "D2", "bundleID": "b",
  "platform": 0, "name": "Bare", "genres": [], "languages": [], "screenshots": [],
  "hasLicenseAgreement": false})";

ManagedApp appWith(std::string_view extraFields) {
  return decodeJson<ManagedApp>(fmt::format(
      R"({{"declarationIdentifier": "D", "bundleID": "b", "platform": 1, "name": "n",
          "genres": [], "languages": [], {}}})",
      extraFields));
}

std::string text(const std::optional<boost::urls::url>& url) {
  return url ? std::string(url->buffer()) : std::string("<none>");
}

TEST(ManagedApp, FullEntryDecodesAndReencodesUnchanged) {
  const auto app = decodeJson<ManagedApp>(fullEntry);
  EXPECT_EQ(app.id(), "dev.corvane.notes");
  EXPECT_EQ(app.itemID(), 1234567890);
  EXPECT_EQ(app.platform(), Platform::phone);
  EXPECT_EQ(app.fileSize()->unit, InformationStorage::Unit::MB);
  EXPECT_EQ(app.languages().size(), 3U);
  EXPECT_EQ(app.metadataLanguage()->identifier(), "en-GB");
  EXPECT_EQ(app.buyParams(), "productType=C&price=0");
  EXPECT_EQ(coding::encode(app), parseJson(fullEntry));
}

TEST(ManagedApp, EntryWithEmptyArraysAndUnknownKeysDecodes) {
  std::string document(minimalEntry);
  document.insert(document.size() - 1, R"(, "futureField": {"x": 1})");
  const auto app = decodeJson<ManagedApp>(document);
  EXPECT_TRUE(app.genres().empty());
  EXPECT_TRUE(app.languages().empty());
  EXPECT_FALSE(app.itemID());
  EXPECT_EQ(coding::encode(app), parseJson(minimalEntry));
}

TEST(ManagedApp, MissingOrMalformedFieldsFail) {
  const auto without = [](std::string_view key) {
    auto document = parseJson(minimalEntry);
    document.as_object().erase(key);
    return std::string(boost::json::serialize(document));
  };
  const std::vector<std::pair<std::string, Failure>> table = {
      {without("genres"), {Kind::keyNotFound, "", "No value associated with key \"genres\"."}},
      {without("languages"),
       {Kind::keyNotFound, "", "No value associated with key \"languages\"."}},
      {without("screenshots"),
       {Kind::keyNotFound, "", "No value associated with key \"screenshots\"."}},
      {without("hasLicenseAgreement"),
       {Kind::keyNotFound, "", "No value associated with key \"hasLicenseAgreement\"."}},
      {without("platform"), {Kind::keyNotFound, "", "No value associated with key \"platform\"."}},
  };
  for (const auto& [document, failure] : table) {
    EXPECT_EQ(failureOf<ManagedApp>(document), failure) << document;
  }
  const auto fieldFailure = [](std::string_view fields) {
    return failureOf<ManagedApp>(fmt::format(
        R"({{"declarationIdentifier": "D", "bundleID": "b", "platform": 1, "name": "n",
            "genres": [], "languages": [], "hasLicenseAgreement": false, {}}})",
        fields));
  };
  EXPECT_EQ(fieldFailure(R"("screenshots": [{"urlTemplate": "u", "maxWidth": 1, "maxHeight": 1},
                                            {"urlTemplate": "u", "maxWidth": 1}])"),
            (Failure{Kind::keyNotFound, "screenshots[1]",
                     "No value associated with key \"maxHeight\"."}));
  EXPECT_EQ(fieldFailure(R"("screenshots": [], "icon": {"maxWidth": 1, "maxHeight": 1})").path,
            "icon");
  for (std::string_view field :
       {R"("itemID": "12")", R"("itemID": 9223372036854775808)",
        R"("itemID": -9223372036854775809)", R"("itemID": -9223372036854776832)",
        R"("externalVersionID": -9223372036854775809)"}) {
    const Failure failure = fieldFailure(fmt::format(R"("screenshots": [], {})", field));
    EXPECT_EQ(failure.kind, Kind::typeMismatch) << field << ": " << failure;
    EXPECT_TRUE(field.starts_with(fmt::format("\"{}\"", failure.path))) << field << ": " << failure;
  }
  EXPECT_EQ(fieldFailure(R"("screenshots": [], "iconURL": "not a url")"),
            (Failure{Kind::dataCorrupted, "iconURL", "Invalid URL string \"not a url\"."}));
  EXPECT_EQ(fieldFailure(R"("screenshots": [], "languages": ["en", ""])").path, "languages[1]");
}

TEST(ManagedApp, ReleaseDatesOfEveryYearKeepTheCatalogue) {
  using std::chrono::sys_days;
  using std::chrono::year;
  using namespace std::chrono_literals;
  const std::vector<std::pair<std::string_view, TimePoint>> table = {
      {"0001-01-01T00:00:00Z", TimePoint{sys_days{year{1} / 1 / 1}}},
      {"2026-11-22T10:00:00.5Z", TimePoint{sys_days{year{2026} / 11 / 22} + 10h + 500ms}},
      {"9999-12-31T23:59:59Z", TimePoint{sys_days{year{9999} / 12 / 31} + 23h + 59min + 59s}},
  };
  std::string catalogue = "[";
  for (const auto& [text, time] : table) {
    std::string entry(minimalEntry);
    entry.insert(entry.size() - 1, fmt::format(R"(, "releaseDate": "{}")", text));
    if (catalogue.size() > 1) catalogue += ", ";
    catalogue += entry;
  }
  catalogue += "]";
  const auto apps = decodeJson<std::vector<ManagedApp>>(catalogue);
  ASSERT_EQ(apps.size(), table.size());
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(apps[i].releaseDate(), table[i].second) << table[i].first;
  }
  EXPECT_EQ(coding::encode(apps), parseJson(catalogue));
}

TEST(ManagedApp, MemberwiseConstructionKeepsEveryField) {
  const ManagedApp app("D", "b", 42, std::nullopt, Platform::wrist, std::nullopt, std::nullopt,
                       "Name", std::nullopt, std::nullopt, {"Games"}, std::nullopt,
                       {LanguageIdentifier("fr")}, std::nullopt, "1.0", std::nullopt, std::nullopt,
                       std::nullopt, std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt,
                       true, std::nullopt, "bp");
  EXPECT_EQ(coding::encode(app), parseJson(R"({"declarationIdentifier": "D", "bundleID": "b",
      "itemID": 42, "platform": 4, "name": "Name", "genres": ["Games"], "languages": ["fr"],
      "version": "1.0", "screenshots": [], "hasLicenseAgreement": true, "buyParams": "bp"})"));
}

TEST(Artwork, FillsPlaceholdersForTheScreenScale) {
  const ScreenScale scale(3.0);
  const Artwork art{"https://img.corvane.dev/a/{w}x{h}{c}.{f}", 1024, 1024};
  EXPECT_EQ(text(art.url({60, 60}, "wd", "png")), "https://img.corvane.dev/a/180x180wd.png");
  EXPECT_EQ(text(art.url({400, 400}, "wd", "png")), "https://img.corvane.dev/a/1024x1024wd.png");
  EXPECT_EQ(text(art.url({100.1, 10}, "bb", "jpg")), "https://img.corvane.dev/a/301x30bb.jpg");
}

TEST(Artwork, PlaceholderScanRules) {
  const ScreenScale scale(2.0);
  struct Row {
    std::string_view urlTemplate;
    std::int64_t maxWidth;
    std::string_view filled;
  };
  const std::vector<Row> table = {
      {"https://x.dev/{w}/{w}-{h}", 1000, "https://x.dev/20/20-30"},
      {"https://x.dev/{w}", 0, "https://x.dev/0"},
      {"https://x.dev/{x}/{W}/{wh}/{w", 1000, "https://x.dev/{x}/{W}/{wh}/{w"},
      {"https://x.dev/{{w}}/{c}{f}", 1000, "https://x.dev/{20}/cropfmt"},
      {"https://x.dev/plain.png", 1000, "https://x.dev/plain.png"},
  };
  for (const auto& row : table) {
    const Artwork art{std::string(row.urlTemplate), row.maxWidth, 1000};
    EXPECT_EQ(art.fill({10, 15}, "crop", "fmt"), row.filled) << row.urlTemplate;
  }
  // A brace left in the filled text is not a valid address: no URL.
  EXPECT_FALSE(Artwork({"https://x.dev/{x}/{w}", 100, 100}).url({10, 10}, "c", "f"));
  EXPECT_EQ(text(Artwork({"https://x.dev/{w}", 100, 100}).url({-10.2, 1}, "c", "f")),
            "https://x.dev/-21");
}

TEST(Artwork, MissingScaleMeansOnePixelPerPoint) {
  const ScreenScale scale(std::nullopt);
  const Artwork art{"https://x.dev/{w}x{h}", 1000, 1000};
  EXPECT_EQ(text(art.url({59.5, 100.0}, "c", "f")), "https://x.dev/60x100");
}

TEST(Artwork, SizesOutsideTheIntegerRangeGiveNoURL) {
  const ScreenScale scale(2.0);
  const Artwork art{"https://x.dev/{w}x{h}", std::numeric_limits<std::int64_t>::max(),
                    std::numeric_limits<std::int64_t>::max()};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  for (const Size size :
       {Size{nan, 1}, Size{1, inf}, Size{-inf, 1}, Size{1e300, 1}, Size{4.7e18, 1},
        Size{1, -4.7e18}, Size{std::numeric_limits<double>::max(), 1}}) {
    EXPECT_FALSE(art.url(size, "c", "f")) << size.width << "x" << size.height;
  }
  EXPECT_EQ(text(art.url({4.0e18, 1}, "c", "f")), "https://x.dev/8000000000000000000x2");
}

TEST(ManagedApp, ResolvedIconFallsBackToTheStoredAddress) {
  const ScreenScale scale(3.0);
  const auto withIcon = appWith(R"("screenshots": [], "hasLicenseAgreement": false,
      "icon": {"urlTemplate": "https://img.corvane.dev/{w}x{h}{c}.{f}", "maxWidth": 512,
               "maxHeight": 512}, "iconURL": "https://img.corvane.dev/fallback.png")");
  EXPECT_EQ(text(withIcon.resolvedIconURL({60, 60})), "https://img.corvane.dev/180x180wd.png");
  const auto badIcon = appWith(R"("screenshots": [], "hasLicenseAgreement": false,
      "icon": {"urlTemplate": "https://img.corvane.dev/{q}/{w}", "maxWidth": 512, "maxHeight": 512},
      "iconURL": "https://img.corvane.dev/fallback.png")");
  EXPECT_EQ(text(badIcon.resolvedIconURL({60, 60})), "https://img.corvane.dev/fallback.png");
  const auto onlyURL = appWith(R"("screenshots": [], "hasLicenseAgreement": false,
      "iconURL": "https://img.corvane.dev/fallback.png")");
  EXPECT_EQ(text(onlyURL.resolvedIconURL({60, 60})), "https://img.corvane.dev/fallback.png");
  EXPECT_FALSE(
      appWith(R"("screenshots": [], "hasLicenseAgreement": false)").resolvedIconURL({1, 1}));
}

TEST(ManagedApp, ScreenshotsWithUnusableAddressesAreDropped) {
  const ScreenScale scale(1.0);
  const auto app = appWith(R"("hasLicenseAgreement": false, "screenshots": [
      {"urlTemplate": "https://s.dev/1/{w}x{h}{c}.{f}", "maxWidth": 900, "maxHeight": 900},
      {"urlTemplate": "not a template {w}", "maxWidth": 900, "maxHeight": 900},
      {"urlTemplate": "https://s.dev/3/{w}x{h}{c}.{f}", "maxWidth": 100, "maxHeight": 100}])");
  const auto urls = app.screenshotURLs({300, 200});
  ASSERT_EQ(urls.size(), 2U);
  EXPECT_EQ(urls[0].buffer(), "https://s.dev/1/300x200bb.png");
  EXPECT_EQ(urls[1].buffer(), "https://s.dev/3/100x100bb.png");
}

TEST(ManagedApp, LicenseAgreementNeedsTheFlagAndAnItemNumber) {
  EXPECT_FALSE(appWith(R"("screenshots": [], "hasLicenseAgreement": true)").licenseAgreementURL());
  EXPECT_FALSE(appWith(R"("screenshots": [], "hasLicenseAgreement": false, "itemID": 42)")
                   .licenseAgreementURL());
  const auto url = appWith(R"("screenshots": [], "hasLicenseAgreement": true, "itemID": 42)")
                       .licenseAgreementURL();
  EXPECT_EQ(text(url), std::string(licenseAgreementBaseURL) + "42");
}

}  // namespace
}  // namespace corvane::testing
