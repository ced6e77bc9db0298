#include "unit/model/ValueTesting.hpp"

#include <corvane/model/ManagedAppStatus.hpp>

#include <fmt/format.h>

namespace corvane::testing {
namespace {

using State = ManagedAppStatus::State;
using Reason = ManagedAppStatus::Reason;
using UpdateState = ManagedAppStatus::UpdateState;

constexpr std::string_view fullStatus = R"({
  "bundleID": "dev.corvane.notes", "declarationIdentifier": "D1", "declarationKey": "K1",
  "state": "managedButUninstalled", "updateState": "promptingForUpdateLogin",
  "reasons": ["updateAvailable", "quillmartDisabled"], "name": "Notes",
  "installedVersionInfo": {"pomeralVersionID": 8812, "bundleVersion": "412",
                           "bundleShortVersion": "4.1.2"}})";

TEST(ManagedAppStatus, FullRecordDecodesAndReencodesUnchanged) {
  const auto status = decodeJson<ManagedAppStatus>(fullStatus);
  EXPECT_EQ(status.bundleID, "dev.corvane.notes");
  EXPECT_EQ(status.state, State::managedButUninstalled);
  EXPECT_EQ(static_cast<int>(status.state), 8);
  EXPECT_EQ(status.updateState, UpdateState::promptingForUpdateLogin);
  EXPECT_EQ(status.reasons,
            (std::vector<Reason>{Reason::updateAvailable, Reason::quillmartDisabled}));
  ASSERT_TRUE(status.installedVersionInfo);
  EXPECT_EQ(status.installedVersionInfo->pomeralVersionID, 8812);
  EXPECT_EQ(coding::encode(status), parseJson(fullStatus));
}

TEST(ManagedAppStatus, OptionalPartsAreLeftOutWhenAbsent) {
  constexpr std::string_view document = R"({"bundleID": "b", "declarationIdentifier": "d",
      "declarationKey": "k", "state": "queued", "reasons": [], "name": "n",
      "somethingNew": [1, 2, 3]})";
  const auto status = decodeJson<ManagedAppStatus>(document);
  EXPECT_FALSE(status.updateState);
  EXPECT_FALSE(status.installedVersionInfo);
  EXPECT_TRUE(status.reasons.empty());
  EXPECT_EQ(coding::encode(status), parseJson(R"({"bundleID": "b", "declarationIdentifier": "d",
      "declarationKey": "k", "state": "queued", "reasons": [], "name": "n"})"));
  // Explicit nulls read as absent too.
  const auto withNulls = decodeJson<ManagedAppStatus>(R"({"bundleID": "b",
      "declarationIdentifier": "d", "declarationKey": "k", "state": "queued",
      "updateState": null, "reasons": [], "name": "n", "installedVersionInfo": null})");
  EXPECT_FALSE(withNulls.updateState);
  EXPECT_FALSE(withNulls.installedVersionInfo);
}

TEST(ManagedAppStatus, EveryStateReasonAndUpdateStateRoundTrips) {
  const std::vector<std::string_view> states = {"optional",
                                                "queued",
                                                "promptingForConsent",
                                                "promptingForLogin",
                                                "promptingForManagement",
                                                "downloading",
                                                "installing",
                                                "managed",
                                                "managedButUninstalled",
                                                "failed"};
  const std::vector<std::string_view> updates = {"available", "promptingForUpdate",
                                                 "promptingForUpdateLogin", "updating", "failed"};
  const std::string allReasons = R"(["unmanagedAppAlreadyInstalled", "duplicateConfiguredApp",
      "quillmartDisabled", "couldNotVerifyAppID", "notAnApp", "notSupported", "licenseNotFound",
      "downloadFailed", "installFailed", "userRejected", "updateAvailable", "updateFailed"])";
  for (std::size_t i = 0; i < states.size(); ++i) {
    const std::string document = fmt::format(
        R"({{"bundleID": "b", "declarationIdentifier": "d", "declarationKey": "k",
            "state": "{}", "updateState": "{}", "reasons": {}, "name": "n"}})",
        states[i], updates[i % updates.size()], allReasons);
    SCOPED_TRACE(document);
    const auto status = decodeJson<ManagedAppStatus>(document);
    EXPECT_EQ(static_cast<std::size_t>(status.state), i);
    EXPECT_EQ(rawValue(status.state), states[i]);
    EXPECT_EQ(status.reasons.size(), 12U);
    EXPECT_EQ(coding::encode(status), parseJson(document));
  }
}

TEST(ManagedAppStatus, RawValuesMatchExactly) {
  EXPECT_EQ(fromRawValue<State>("managedButUninstalled"), State::managedButUninstalled);
  EXPECT_EQ(fromRawValue<State>("Managed"), std::nullopt);
  EXPECT_EQ(fromRawValue<State>(" managed"), std::nullopt);
  EXPECT_EQ(fromRawValue<UpdateState>("failed"), UpdateState::failed);
  EXPECT_EQ(fromRawValue<Reason>("notAnApp"), Reason::notAnApp);
  EXPECT_EQ(rawValue(Reason::couldNotVerifyAppID), "couldNotVerifyAppID");
}

TEST(ManagedAppStatus, MalformedRecordsFail) {
  const auto record = [](std::string_view fields) {
    return fmt::format(R"({{"bundleID": "b", "declarationIdentifier": "d", "name": "n", {}}})",
                       fields);
  };
  const std::vector<std::pair<std::string, Failure>> table = {
      {record(R"("declarationKey": "k", "state": "queued")"),
       {Kind::keyNotFound, "", "No value associated with key \"reasons\"."}},
      {record(R"("state": "queued", "reasons": [])"),
       {Kind::keyNotFound, "", "No value associated with key \"declarationKey\"."}},
      {record(R"("declarationKey": "k", "state": "Managed", "reasons": [])"),
       {Kind::dataCorrupted, "state", "Cannot initialize from invalid raw value \"Managed\"."}},
      {record(R"("declarationKey": "k", "state": "queued", "updateState": "soon", "reasons": [])"),
       {Kind::dataCorrupted, "updateState", "Cannot initialize from invalid raw value \"soon\"."}},
      {record(R"("declarationKey": "k", "state": "queued", "reasons": ["notAnApp", "tooBig"])"),
       {Kind::dataCorrupted, "reasons[1]", "Cannot initialize from invalid raw value \"tooBig\"."}},
      {record(R"("declarationKey": "k", "state": {"queued": {}}, "reasons": [])"),
       {Kind::typeMismatch, "state", "Expected a string but found an object instead."}},
      {record(R"("declarationKey": "k", "state": "queued", "reasons": [],
                 "installedVersionInfo": {"bundleVersion": "1"})"),
       {Kind::keyNotFound, "installedVersionInfo",
        "No value associated with key \"bundleShortVersion\"."}},
  };
  for (const auto& [document, failure] : table) {
    EXPECT_EQ(failureOf<ManagedAppStatus>(document), failure) << document;
  }
}

TEST(ManagedAppStatus, VersionInfoWithoutStoreVersionDecodes) {
  const auto info = decodeJson<ManagedAppStatus::InstalledVersionInfo>(
      R"({"bundleVersion": "1", "bundleShortVersion": "1.0"})");
  EXPECT_FALSE(info.pomeralVersionID);
  EXPECT_EQ(info.bundleShortVersion, "1.0");
}

}  // namespace
}  // namespace corvane::testing
