#include "unit/model/ValueTesting.hpp"

#include <corvane/coding/WireTypes.hpp>

#include <boost/uuid/uuid.hpp>

#include <chrono>
#include <cmath>
#include <limits>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

TEST(WireUuid, WrittenUpperCaseAndReadInEitherCase) {
  const auto uuid = decodeJson<boost::uuids::uuid>(R"("e621e1f8-c36c-495a-93fc-0c247a3e6e5f")");
  EXPECT_EQ(coding::encode(uuid), parseJson(R"("E621E1F8-C36C-495A-93FC-0C247A3E6E5F")"));
  EXPECT_EQ(decodeJson<boost::uuids::uuid>(R"("E621E1F8-C36C-495A-93FC-0C247A3E6E5F")"), uuid);
  for (std::string_view bad :
       {R"("E621E1F8C36C495A93FC0C247A3E6E5F")", R"("E621E1F8-C36C-495A-93FC-0C247A3E6E5")",
        R"("G621E1F8-C36C-495A-93FC-0C247A3E6E5F")", R"("E621E1F8-C36C-495A-93FC+0C247A3E6E5F")",
        R"("")"}) {
    EXPECT_EQ(failureOf<boost::uuids::uuid>(bad).kind, Kind::dataCorrupted) << bad;
  }
  EXPECT_EQ(failureOf<boost::uuids::uuid>("17").kind, Kind::typeMismatch);
}

TEST(WireUrl, AbsoluteAddressesOnly) {
  const auto url = decodeJson<boost::urls::url>(R"("https://corvane.dev/a?b=c#d")");
  EXPECT_EQ(url.host(), "corvane.dev");
  EXPECT_EQ(coding::encode(url), parseJson(R"("https://corvane.dev/a?b=c#d")"));
  for (std::string_view bad :
       {R"("no scheme here")", R"("/relative/path")", R"("")", R"("https://x.dev/{w}")"}) {
    EXPECT_EQ(failureOf<boost::urls::url>(bad).kind, Kind::dataCorrupted) << bad;
  }
}

TEST(WireTimePoint, WrittenInUtcWithFractionalSeconds) {
  const TimePoint base{std::chrono::sys_days{std::chrono::year{2026} / 11 / 22} + 10h};
  EXPECT_EQ(coding::rfc3339String(base + 500ms), "2026-11-22T10:00:00.5Z");
  EXPECT_EQ(coding::rfc3339String(base), "2026-11-22T10:00:00Z");
  EXPECT_EQ(coding::rfc3339String(base + 1us), "2026-11-22T10:00:00.000001Z");
  EXPECT_EQ(coding::rfc3339String(TimePoint{} - 1s), "1969-12-31T23:59:59Z");
  EXPECT_EQ(decodeJson<TimePoint>(R"("2026-11-22T10:00:00.5Z")"), base + 500ms);
  EXPECT_EQ(coding::encode(base + 250ms), parseJson(R"("2026-11-22T10:00:00.25Z")"));
}

TEST(WireTimePoint, AnyOffsetIsReadAndNormalisedToUtc) {
  const TimePoint base{std::chrono::sys_days{std::chrono::year{2026} / 11 / 22} + 10h};
  EXPECT_EQ(decodeJson<TimePoint>(R"("2026-11-22T11:30:00+01:30")"), base);
  EXPECT_EQ(decodeJson<TimePoint>(R"("2026-11-22t05:00:00-05:00")"), base);
  EXPECT_EQ(decodeJson<TimePoint>(R"("2026-11-22T10:00:00.1234567891z")"), base + 123456us);
  EXPECT_EQ(decodeJson<TimePoint>(R"("2016-12-31T23:59:60Z")"),
            TimePoint{std::chrono::sys_days{std::chrono::year{2017} / 1 / 1}});
}

TEST(WireTimePoint, EveryYearFromOneTo9999RoundTrips) {
  using std::chrono::sys_days;
  using std::chrono::year;
  const std::vector<std::pair<std::string_view, TimePoint>> table = {
      {"0001-01-01T00:00:00Z", TimePoint{sys_days{year{1} / 1 / 1}}},
      {"0001-01-01T00:00:00.000001Z", TimePoint{sys_days{year{1} / 1 / 1} + 1us}},
      {"1000-03-01T12:30:00.25Z", TimePoint{sys_days{year{1000} / 3 / 1} + 12h + 30min + 250ms}},
      {"1677-09-21T00:12:43Z", TimePoint{sys_days{year{1677} / 9 / 21} + 12min + 43s}},
      {"1677-09-21T00:12:44Z", TimePoint{sys_days{year{1677} / 9 / 21} + 12min + 44s}},
      {"2262-04-11T23:47:17Z", TimePoint{sys_days{year{2262} / 4 / 11} + 23h + 47min + 17s}},
      {"2262-04-12T00:00:00Z", TimePoint{sys_days{year{2262} / 4 / 12}}},
      {"9999-01-01T00:00:00Z", TimePoint{sys_days{year{9999} / 1 / 1}}},
      {"9999-12-31T23:59:59Z", TimePoint{sys_days{year{9999} / 12 / 31} + 23h + 59min + 59s}},
      {"9999-12-31T23:59:59.999999Z",
       TimePoint{sys_days{year{9999} / 12 / 31} + 23h + 59min + 59s + 999999us}},
  };
  for (const auto& [text, time] : table) {
    const std::string document = fmt::format("\"{}\"", text);
    EXPECT_EQ(decodeJson<TimePoint>(document), time) << text;
    EXPECT_EQ(coding::rfc3339String(time), text);
    EXPECT_EQ(reencode<TimePoint>(document), parseJson(document));
  }
  // Offsets may carry the time across the first or last year; read, it is the UTC time.
  EXPECT_EQ(decodeJson<TimePoint>(R"("0001-01-01T00:30:00+01:00")"),
            TimePoint{sys_days{year{0} / 12 / 31} + 23h + 30min});
  EXPECT_EQ(decodeJson<TimePoint>(R"("9999-12-31T23:30:00-01:00")"),
            TimePoint{sys_days{year{10000} / 1 / 1} + 30min});
}

TEST(WireTimePoint, TimesOutsideTheWritableYearsFailToEncode) {
  using std::chrono::sys_days;
  using std::chrono::year;
  EXPECT_EQ(coding::rfc3339String(TimePoint{sys_days{year{0} / 1 / 1}}), "0000-01-01T00:00:00Z");
  for (const TimePoint time :
       {TimePoint{sys_days{year{0} / 1 / 1}} - 1us, TimePoint{sys_days{year{10000} / 1 / 1}},
        TimePoint::min(), TimePoint::max()}) {
    try {
      (void)coding::encode(time);
      ADD_FAILURE() << "encoded " << time.time_since_epoch().count();
    } catch (const CodingError& e) {
      EXPECT_EQ(e.kind(), Kind::invalidValue) << e.description();
    }
  }
}

TEST(WireTimePoint, MalformedDatesFail) {
  for (std::string_view bad :
       {R"("2026-11-22")", R"("2026-11-22T10:00:00")", R"("2026-02-30T10:00:00Z")",
        R"("2026-11-22T24:00:00Z")", R"("2026-11-22T10:00:00.Z")", R"("2026-11-22 10:00:00Z")",
        R"("2026-11-22T10:00:00+0100")", R"("2026-11-22T10:00:00Z ")", R"("yesterday")",
        R"("10000-01-01T00:00:00Z")", R"("-001-01-01T00:00:00Z")"}) {
    const Failure failure = failureOf<TimePoint>(bad);
    EXPECT_EQ(failure.kind, Kind::dataCorrupted) << bad;
    EXPECT_TRUE(failure.description.starts_with("Expected date string to be RFC 3339-formatted"));
  }
  EXPECT_EQ(failureOf<TimePoint>("1700000000").kind, Kind::typeMismatch);
}

TEST(WireLanguage, LooselyCheckedBcp47) {
  for (std::string_view good : {"en", "en-GB", "zh-Hant-TW", "es-419", "x-private", "gsw"}) {
    EXPECT_TRUE(LanguageIdentifier::isValid(good)) << good;
    EXPECT_EQ(coding::encode(decodeJson<LanguageIdentifier>(fmt::format("\"{}\"", good))),
              boost::json::value(good));
  }
  for (std::string_view bad : {"", "e", "en-", "-en", "en--GB", "en_GB", "english language", "12",
                               "en-GB-toolongsubtag", "ü"}) {
    EXPECT_FALSE(LanguageIdentifier::isValid(bad)) << bad;
    EXPECT_FALSE(LanguageIdentifier::parse(bad));
  }
  EXPECT_THROW(LanguageIdentifier("en GB"), std::invalid_argument);
  EXPECT_EQ(failureOf<LanguageIdentifier>(R"("en_GB")"),
            (Failure{Kind::dataCorrupted, "", "Invalid language identifier \"en_GB\"."}));
}

TEST(WireInformationStorage, ValueAndUnitSymbol) {
  constexpr std::string_view document = R"({"value": 1.5, "unit": "GiB"})";
  const auto size = decodeJson<InformationStorage>(document);
  EXPECT_EQ(size.unit, InformationStorage::Unit::GiB);
  EXPECT_DOUBLE_EQ(size.bytes(), 1.5 * 1073741824.0);
  EXPECT_EQ(coding::encode(size), parseJson(document));
  for (std::string_view unit : {"B", "kB", "MB", "GB", "TB", "KiB", "MiB", "GiB", "TiB", "bit"}) {
    const std::string doc = fmt::format(R"({{"value": 2.0, "unit": "{}"}})", unit);
    EXPECT_EQ(reencode<InformationStorage>(doc), parseJson(doc));
  }
  EXPECT_EQ(
      failureOf<InformationStorage>(R"({"value": 1, "unit": "kb"})"),
      (Failure{Kind::dataCorrupted, "unit", "Cannot initialize from invalid raw value \"kb\"."}));
  EXPECT_EQ(failureOf<InformationStorage>(R"({"unit": "kB"})").kind, Kind::keyNotFound);
  EXPECT_THROW((void)coding::encode(InformationStorage{std::nan(""), InformationStorage::Unit::B}),
               CodingError);
}

}  // namespace
}  // namespace corvane::testing
