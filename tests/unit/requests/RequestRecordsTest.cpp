#include "unit/model/ValueTesting.hpp"

#include <corvane/requests/AppLaunchRequest.hpp>
#include <corvane/requests/DDMDeclarationKeysRequest.hpp>
#include <corvane/requests/DDMDeclarationStatusRequest.hpp>
#include <corvane/requests/DDMPollForUpdatesRequest.hpp>
#include <corvane/requests/DDMRemoveManagedAppRequest.hpp>
#include <corvane/requests/DDMResetManagedAppInstallHistoryRequest.hpp>
#include <corvane/requests/EnterpriseApp.hpp>
#include <corvane/requests/InstallEnterpriseManifestRequest.hpp>
#include <corvane/requests/ManagedAppCancelRequest.hpp>
#include <corvane/requests/VPPInstallRequest.hpp>

#include <fmt/format.h>

namespace corvane::testing {
namespace {

using RequestType = VPPInstallRequest::RequestType;

TEST(DDMDeclarationStatusRequest, KeyIsOptional) {
  EXPECT_EQ(coding::encode(DDMDeclarationStatusRequest{}), parseJson("{}"));
  EXPECT_EQ(coding::encode(DDMDeclarationStatusRequest{"K"}),
            parseJson(R"({"declarationKey": "K"})"));
  EXPECT_FALSE(decodeJson<DDMDeclarationStatusRequest>("{}").declarationKey);
  EXPECT_FALSE(
      decodeJson<DDMDeclarationStatusRequest>(R"({"declarationKey": null})").declarationKey);
  EXPECT_EQ(failureOf<DDMDeclarationStatusRequest>(R"({"declarationKey": 3})"),
            (Failure{Kind::typeMismatch, "declarationKey",
                     "Expected a string but found a number instead."}));
}

TEST(DDMDeclarationKeysRequest, EncodesEmptyAndDecodesFromAnything) {
  EXPECT_EQ(coding::encode(DDMDeclarationKeysRequest{}), parseJson("{}"));
  for (std::string_view anything : {"{}", R"({"a": 1})", R"("text")", "null", "[1]"}) {
    EXPECT_NO_THROW((void)decodeJson<DDMDeclarationKeysRequest>(anything)) << anything;
  }
}

TEST(ManagedAppCancelRequest, IdentifierIsOptional) {
  EXPECT_EQ(coding::encode(ManagedAppCancelRequest{}), parseJson("{}"));
  EXPECT_EQ(reencode<ManagedAppCancelRequest>(R"({"declarationIdentifier": "D"})"),
            parseJson(R"({"declarationIdentifier": "D"})"));
}

TEST(VPPInstallRequest, EncodesOnlyPresentOptionalKeys) {
  const VPPInstallRequest request(StoreAppIdentifier::itemID(9), RequestType::update);
  const auto encoded = coding::encode(request);
  std::vector<std::string_view> keys;
  for (const auto& entry : encoded.as_object()) keys.push_back(entry.key());
  EXPECT_EQ(keys, (std::vector<std::string_view>{"id", "appIdentifier", "requestType"}));
  EXPECT_EQ(encoded.at("requestType"), boost::json::value(2));
  EXPECT_EQ(encoded.at("id"), boost::json::value(coding::uuidString(request.id())));

  const VPPInstallRequest full(StoreAppIdentifier::bundleID("b"), RequestType::uninstall,
                               18446744073709551615ULL, 77);
  EXPECT_EQ(coding::encode(full),
            parseJson(fmt::format(R"({{"id": "{}", "accountIdentifier": 18446744073709551615,
                "appIdentifier": {{"bundleID": {{"_0": "b"}}}}, "requestType": 3, "evid": 77}})",
                                  coding::uuidString(full.id()))));
}

TEST(VPPInstallRequest, IdentityIsFreshAndSurvivesCoding) {
  const VPPInstallRequest a(StoreAppIdentifier::itemID(1), RequestType::install);
  const VPPInstallRequest b(StoreAppIdentifier::itemID(1), RequestType::install);
  EXPECT_NE(a.id(), b.id());
  const auto decoded = coding::decode<VPPInstallRequest>(coding::encode(a));
  EXPECT_EQ(decoded.id(), a.id());
  EXPECT_EQ(decoded.appIdentifier(), a.appIdentifier());
  EXPECT_FALSE(decoded.accountIdentifier());
}

TEST(VPPInstallRequest, RequestTypeRawValues) {
  const auto document = [](std::string_view requestType) {
    return fmt::format(R"({{"id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
        "appIdentifier": {{"itemID": {{"_0": 1}}}}, "requestType": {}}})",
                       requestType);
  };
  for (std::string_view accepted : {"1", "2", "3"}) {
    EXPECT_EQ(reencode<VPPInstallRequest>(document(accepted)), parseJson(document(accepted)));
  }
  const std::vector<std::pair<std::string_view, Failure>> table = {
      {"0", {Kind::dataCorrupted, "requestType", "Cannot initialize from invalid raw value 0."}},
      {"4", {Kind::dataCorrupted, "requestType", "Cannot initialize from invalid raw value 4."}},
      {"-1", {Kind::dataCorrupted, "requestType", "Cannot initialize from invalid raw value -1."}},
      {R"("1")",
       {Kind::typeMismatch, "requestType", "Expected an integer but found a string instead."}},
      {R"({"install": {}})",
       {Kind::typeMismatch, "requestType", "Expected an integer but found an object instead."}},
  };
  for (const auto& [raw, failure] : table) {
    EXPECT_EQ(failureOf<VPPInstallRequest>(document(raw)), failure) << raw;
  }
  EXPECT_EQ(VPPInstallRequest::requestTypeFromRawValue(2), RequestType::update);
  EXPECT_FALSE(VPPInstallRequest::requestTypeFromRawValue(0));
  EXPECT_FALSE(VPPInstallRequest::requestTypeFromRawValue(-3));
  EXPECT_EQ(VPPInstallRequest::rawValue(RequestType::uninstall), 3);
}

TEST(VPPInstallRequest, MissingOrMalformedFieldsFail) {
  EXPECT_EQ(failureOf<VPPInstallRequest>(R"({"appIdentifier": {"itemID": {"_0": 1}},
      "requestType": 1})"),
            (Failure{Kind::keyNotFound, "", "No value associated with key \"id\"."}));
  EXPECT_EQ(failureOf<VPPInstallRequest>(R"({"id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
      "appIdentifier": {}, "requestType": 1})"),
            (Failure{Kind::typeMismatch, "appIdentifier", std::string(oneKeyExpected)}));
  // Integers outside the range of their field.
  const std::vector<std::pair<std::string_view, std::string_view>> table = {
      {R"("appIdentifier": {"itemID": {"_0": 1}}, "accountIdentifier": -1)", "accountIdentifier"},
      {R"("appIdentifier": {"itemID": {"_0": 1}}, "accountIdentifier": -9223372036854775809)",
       "accountIdentifier"},
      {R"("appIdentifier": {"itemID": {"_0": 1}}, "accountIdentifier": 18446744073709551616)",
       "accountIdentifier"},
      {R"("appIdentifier": {"itemID": {"_0": 9223372036854775808}})", "appIdentifier.itemID._0"},
      {R"("appIdentifier": {"itemID": {"_0": -9223372036854775809}})", "appIdentifier.itemID._0"},
      {R"("appIdentifier": {"itemID": {"_0": -9223372036854776832}})", "appIdentifier.itemID._0"},
  };
  for (const auto& [fields, path] : table) {
    const Failure failure = failureOf<VPPInstallRequest>(fmt::format(
        R"({{"id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "requestType": 1, {}}})", fields));
    EXPECT_EQ(failure.kind, Kind::typeMismatch) << fields << ": " << failure;
    EXPECT_EQ(failure.path, path) << fields;
  }
  EXPECT_EQ(failureOf<VPPInstallRequest>(R"({"id": "not-a-uuid",
      "appIdentifier": {"itemID": {"_0": 1}}, "requestType": 1})")
                .kind,
            Kind::dataCorrupted);
}

TEST(EnterpriseApp, CodesItsManifestAddress) {
  constexpr std::string_view document = R"({"manifestURL": "https://corvane.dev/apps/x.plist"})";
  const auto app = decodeJson<EnterpriseApp>(document);
  EXPECT_EQ(app.manifestURL().buffer(), "https://corvane.dev/apps/x.plist");
  EXPECT_EQ(coding::encode(app), parseJson(document));
  EXPECT_EQ(failureOf<EnterpriseApp>("{}").kind, Kind::keyNotFound);
  EXPECT_EQ(failureOf<EnterpriseApp>(R"({"manifestURL": "x.plist"})").kind, Kind::dataCorrupted);
  const InstallEnterpriseManifestRequest request(app);
  EXPECT_EQ(request.app().manifestURL(), app.manifestURL());
}

TEST(UncodedRequests, HoldTheirFields) {
  EXPECT_EQ(DDMRemoveManagedAppRequest{"D"}.declarationIdentifier, "D");
  EXPECT_EQ(AppLaunchRequest{"dev.corvane.a"}.bundleID, "dev.corvane.a");
  static_assert(std::is_empty_v<DDMResetManagedAppInstallHistoryRequest>);
  static_assert(std::is_empty_v<DDMPollForUpdatesRequest>);
}

}  // namespace
}  // namespace corvane::testing
