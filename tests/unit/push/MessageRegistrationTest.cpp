#include "unit/model/ValueTesting.hpp"

#include <corvane/push/MessageRegistration.hpp>

#include <fmt/format.h>

#include <unordered_set>

namespace corvane::testing {
namespace {

TEST(MessageRegistration, CasesCodeUnderTheirNames) {
  const std::vector<std::pair<MessageRegistration, std::string_view>> table = {
      {MessageRegistration::appCatalog(), R"({"appCatalog": {}})"},
      {MessageRegistration::appStateChangeByBundleID("dev.corvane.a"),
       R"({"appStateChangeByBundleID": {"bundleID": "dev.corvane.a"}})"},
      {MessageRegistration::globalAppProgress(), R"({"globalAppProgress": {}})"},
      {MessageRegistration::logging(), R"({"logging": {}})"},
  };
  for (const auto& [registration, document] : table) {
    EXPECT_EQ(coding::encode(registration), parseJson(document));
    EXPECT_EQ(decodeJson<MessageRegistration>(document), registration);
  }
  const std::string oneKey(oneKeyExpected);
  EXPECT_EQ(failureOf<MessageRegistration>(R"({"everything": {}})"),
            (Failure{Kind::typeMismatch, "", oneKey}));
  EXPECT_EQ(failureOf<MessageRegistration>(R"({"logging": {}, "appCatalog": {}})"),
            (Failure{Kind::typeMismatch, "", oneKey}));
  EXPECT_EQ(failureOf<MessageRegistration>(R"({"appStateChangeByBundleID": {}})"),
            (Failure{Kind::keyNotFound, "appStateChangeByBundleID",
                     "No value associated with key \"bundleID\"."}));
}

TEST(MessageRegistration, EqualityAndHashAreCaseSensitiveOnTheBundle) {
  const auto lower = MessageRegistration::appStateChangeByBundleID("a");
  EXPECT_EQ(lower, MessageRegistration::appStateChangeByBundleID("a"));
  EXPECT_NE(lower, MessageRegistration::appStateChangeByBundleID("A"));
  EXPECT_NE(MessageRegistration::appCatalog(), MessageRegistration::logging());
  const std::unordered_set<MessageRegistration> set{
      lower, MessageRegistration::appStateChangeByBundleID("A"),
      MessageRegistration::appStateChangeByBundleID("a"), MessageRegistration::appCatalog(),
      MessageRegistration::appCatalog()};
  EXPECT_EQ(set.size(), 3U);
}

TEST(MessageRegistration, TextForms) {
  EXPECT_EQ(MessageRegistration::appCatalog().description(), "App catalog changed");
  EXPECT_EQ(MessageRegistration::globalAppProgress().description(), "Global app progress");
  EXPECT_EQ(fmt::format("{}", MessageRegistration::logging()), "Logging");
  EXPECT_EQ(description(std::vector{MessageRegistration::appCatalog(),
                                    MessageRegistration::appStateChangeByBundleID("x")}),
            "[App catalog changed, App state changes: x]");
  EXPECT_EQ(description(std::vector<MessageRegistration>{}), "[]");
}

}  // namespace
}  // namespace corvane::testing
