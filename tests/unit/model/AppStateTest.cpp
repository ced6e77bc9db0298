#include "unit/model/ValueTesting.hpp"

#include <corvane/model/AppState.hpp>

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace corvane::testing {
namespace {

using Availability = AppState::Availability;

TEST(AppState, PausedDownloadIsNestedCaseContainers) {
  const AppState state = AppState::paused(AppState::downloading(0.25));
  constexpr std::string_view document = R"({"paused": {"_0": {"downloading": {"_0": 0.25}}}})";
  EXPECT_EQ(coding::encode(state), parseJson(document));
  EXPECT_EQ(decodeJson<AppState>(document), state);
}

TEST(AppState, EveryCaseRoundTrips) {
  const std::vector<std::pair<AppState, std::string_view>> table = {
      {AppState::available(Availability::available), R"({"available": {"_0": {"available": {}}}})"},
      {AppState::available(Availability::redownload),
       R"({"available": {"_0": {"redownload": {}}}})"},
      {AppState::available(Availability::update), R"({"available": {"_0": {"update": {}}}})"},
      {AppState::downloading(0.5), R"({"downloading": {"_0": 0.5}})"},
      {AppState::installing(1), R"({"installing": {"_0": 1.0}})"},
      {AppState::paused(AppState::paused(AppState::installed())),
       R"({"paused": {"_0": {"paused": {"_0": {"installed": {}}}}}})"},
      {AppState::installed(), R"({"installed": {}})"},
      {AppState::managed(), R"({"managed": {}})"},
      {AppState::waiting(), R"({"waiting": {}})"},
  };
  for (const auto& [state, document] : table) {
    SCOPED_TRACE(document);
    EXPECT_EQ(coding::encode(state), parseJson(document));
    EXPECT_EQ(decodeJson<AppState>(document), state);
  }
}

TEST(AppState, TextForms) {
  const std::vector<std::pair<AppState, std::string_view>> table = {
      {AppState::available(Availability::available), "Available"},
      {AppState::available(Availability::redownload), "Redownload"},
      {AppState::available(Availability::update), "Update"},
      {AppState::downloading(0), "Downloading (0.00%)"},
      {AppState::downloading(0.4567), "Downloading (45.67%)"},
      {AppState::downloading(0.999999), "Downloading (100.00%)"},
      {AppState::downloading(1.5), "Downloading (150.00%)"},
      {AppState::installing(1), "Installing (100.00%)"},
      {AppState::paused(AppState::downloading(0.4567)), "Paused at state Downloading (45.67%)"},
      {AppState::paused(AppState::paused(AppState::installed())),
       "Paused at state Paused at state Installed"},
      {AppState::installed(), "Installed"},
      {AppState::managed(), "Managed"},
      {AppState::waiting(), "Waiting"},
  };
  for (const auto& [state, text] : table) {
    EXPECT_EQ(state.description(), text);
    EXPECT_EQ(fmt::format("{}", state), text);
  }
}

TEST(AppState, EqualityComparesCaseAndPayload) {
  EXPECT_EQ(AppState::downloading(0.5), AppState::downloading(0.5));
  EXPECT_NE(AppState::downloading(0.5), AppState::installing(0.5));
  EXPECT_NE(AppState::downloading(0.5), AppState::downloading(0.25));
  EXPECT_NE(AppState::paused(AppState::waiting()), AppState::paused(AppState::managed()));
  EXPECT_EQ(AppState::paused(AppState::waiting()), AppState::paused(AppState::waiting()));
  EXPECT_NE(AppState::available(Availability::update),
            AppState::available(Availability::available));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_NE(AppState::downloading(nan), AppState::downloading(nan));
}

TEST(AppState, CopiesShareThePausedCell) {
  const AppState state = AppState::paused(AppState::installed());
  const AppState copy = state;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(std::get<AppState::Paused>(state.cases())._0.get(),
            std::get<AppState::Paused>(copy.cases())._0.get());
}

TEST(AppState, MalformedDocumentsFail) {
  const std::vector<std::pair<std::string_view, Failure>> table = {
      {R"({"installed": {}, "managed": {}})",
       {Kind::typeMismatch, "", std::string(oneKeyExpected)}},
      {R"({})", {Kind::typeMismatch, "", std::string(oneKeyExpected)}},
      {R"({"sleeping": {}})", {Kind::typeMismatch, "", std::string(oneKeyExpected)}},
      {R"({"downloading": {}})",
       {Kind::keyNotFound, "downloading", "No value associated with key \"_0\"."}},
      {R"({"downloading": {"_0": "half"}})",
       {Kind::typeMismatch, "downloading._0", "Expected a number but found a string instead."}},
      {R"({"available": {"_0": {"update": {}, "redownload": {}}}})",
       {Kind::typeMismatch, "available._0", std::string(oneKeyExpected)}},
      {R"({"paused": {"_0": {"paused": {"_0": {}}}}})",
       {Kind::typeMismatch, "paused._0.paused._0", std::string(oneKeyExpected)}},
  };
  for (const auto& [document, failure] : table) {
    EXPECT_EQ(failureOf<AppState>(document), failure) << document;
  }
}

TEST(AppState, NonFiniteProgressCannotBeEncoded) {
  try {
    (void)coding::encode(AppState::downloading(std::numeric_limits<double>::infinity()));
    ADD_FAILURE() << "encoded an infinite progress";
  } catch (const CodingError& e) {
    EXPECT_EQ(e.kind(), Kind::invalidValue);
  }
}

}  // namespace
}  // namespace corvane::testing
