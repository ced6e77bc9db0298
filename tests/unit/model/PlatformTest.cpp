#include "unit/model/ValueTesting.hpp"

#include <corvane/model/ManagedApp.hpp>
#include <corvane/model/ManagedAppInstallRequest.hpp>
#include <corvane/model/Platform.hpp>

#include <fmt/format.h>

#include <unordered_set>

namespace corvane::testing {
namespace {

TEST(Platform, NamedCodesAndTextForms) {
  const std::vector<std::pair<Platform, std::string_view>> table = {
      {Platform::desktop, "desktop"},
      {Platform::phone, "phone"},
      {Platform::television, "television"},
      {Platform::wrist, "wrist"},
      {Platform::headset, "headset"},
      {Platform{2}, ""},
      {Platform{-1}, ""}};
  for (const auto& [platform, text] : table) {
    EXPECT_EQ(platform.description(), text);
    EXPECT_EQ(fmt::format("{}", platform), text);
  }
  EXPECT_EQ(Platform::headset.code, 7);
  EXPECT_EQ(Platform::television.code, 3);
}

TEST(Platform, CodedAsBareInteger) {
  EXPECT_EQ(coding::encode(Platform::headset), parseJson("7"));
  const auto unknown = decodeJson<Platform>("2");
  EXPECT_EQ(unknown.code, 2);
  for (Platform named : {Platform::desktop, Platform::phone, Platform::television, Platform::wrist,
                         Platform::headset}) {
    EXPECT_NE(unknown, named);
  }
  EXPECT_EQ(decodeJson<ManagedApp::Platform>("-9223372036854775808").code,
            std::numeric_limits<std::int64_t>::min());
  for (std::string_view bad :
       {R"({"code": 7})", "1.5", "9223372036854775808", "-9223372036854775809",
        "-9223372036854776832", "-9223372036854776833", "-18446744073709551616"}) {
    EXPECT_EQ(failureOf<Platform>(bad).kind, Kind::typeMismatch) << bad;
  }
}

TEST(Platform, HashesByCode) {
  const std::unordered_set<Platform> set{Platform::phone, Platform{1}, Platform{5}};
  EXPECT_EQ(set.size(), 2U);
}

TEST(ManagedAppInstallRequest, WritesOnlyPresentIdentifiers) {
  ManagedAppInstallRequest request(std::nullopt, std::nullopt);
  EXPECT_TRUE(request.userInitiated());
  EXPECT_EQ(coding::encode(request), parseJson(R"({"userInitiated": true})"));
  request.setUserInitiated(false);
  EXPECT_EQ(coding::encode(request), parseJson(R"({"userInitiated": false})"));

  const ManagedAppInstallRequest full("D1", "price=0&pg=1");
  EXPECT_EQ(coding::encode(full), parseJson(R"({"declarationIdentifier": "D1",
      "buyParams": "price=0&pg=1", "userInitiated": true})"));
  const auto decoded = decodeJson<ManagedAppInstallRequest>(
      R"({"declarationIdentifier": "D1", "userInitiated": false})");
  EXPECT_EQ(decoded.declarationIdentifier(), "D1");
  EXPECT_FALSE(decoded.buyParams());
  EXPECT_FALSE(decoded.userInitiated());
  EXPECT_EQ(failureOf<ManagedAppInstallRequest>(R"({"declarationIdentifier": "D1"})"),
            (Failure{Kind::keyNotFound, "", "No value associated with key \"userInitiated\"."}));
  EXPECT_EQ(failureOf<ManagedAppInstallRequest>(R"({"buyParams": 3, "userInitiated": true})").path,
            "buyParams");
}

}  // namespace
}  // namespace corvane::testing
