#include "unit/model/ValueTesting.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/requests/DDMAppOrUpdateManagedAppRequest.hpp>
#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <fmt/format.h>

namespace corvane::testing {
namespace {

constexpr std::string_view completeDeclaration = R"({"declarationKey": "K",
  "declarationIdentifier": "I", "managementScope": {"system": {}},
  "installBehavior": {"installTiming": {"immediately": {}}, "isAccountPromptAllowed": false,
    "purchaseMethod": {"volumePurchaseProgram": {"_0": {"itemID": {"_0": 361309726}},
                                                 "license": {"device": {}}}}},
  "backupBehavior": {"backupAppData": true}, "updateBehavior": {"automaticallyUpdate": {}},
  "platform": 1})";

// The complete declaration with one field's value replaced.
std::string declarationWith(std::string_view key, std::string_view valueJson) {
  auto document = parseJson(completeDeclaration);
  document.as_object()[key] = parseJson(valueJson);
  return boost::json::serialize(document);
}

InstallBehavior vppBehavior() {
  return {InstallTimingEnum::onDemand, true,
          PurchaseMethodEnum::volumePurchaseProgram(StoreAppIdentifier::bundleID("dev.corvane.a"))};
}

TEST(ManagedAppDeclaration, CompleteExampleDecodesAndReencodesUnchanged) {
  const auto declaration = decodeJson<ManagedAppDeclaration>(completeDeclaration);
  EXPECT_EQ(declaration.managementScope, ManagementScope::system);
  EXPECT_FALSE(declaration.personaIdentifier);
  EXPECT_EQ(declaration.installBehavior.installTiming, InstallTimingEnum::immediately);
  const auto& vpp = std::get<PurchaseMethodEnum::VolumePurchaseProgram>(
      declaration.installBehavior.purchaseMethod.cases());
  EXPECT_EQ(vpp._0, StoreAppIdentifier::itemID(361309726));
  EXPECT_EQ(vpp.license, LicenseEnum::device);
  EXPECT_FALSE(declaration.updateBehavior.evid());
  EXPECT_EQ(declaration.platform, Platform::phone);
  EXPECT_EQ(coding::encode(declaration), parseJson(completeDeclaration));
}

TEST(ManagedAppDeclaration, ConstructionFormsWithoutScopeUseTheUserScope) {
  const auto update = UpdateBehaviorEnum::automaticallyUpdate(77);
  const ManagedAppDeclaration all("K", "I", ManagementScope::system, "P", vppBehavior(), {false},
                                  update, Platform::desktop);
  const ManagedAppDeclaration noScope("K", "I", "P", vppBehavior(), {false}, update,
                                      Platform::desktop);
  const ManagedAppDeclaration withRemoval("K", "I", "P", vppBehavior(), {false}, update,
                                          RemovalBehavior{}, Platform::desktop);
  const ManagedAppDeclaration noPersona("K", "I", vppBehavior(), {false}, update, RemovalBehavior{},
                                        Platform::desktop);
  EXPECT_EQ(all.managementScope, ManagementScope::system);
  EXPECT_EQ(noScope.managementScope, ManagementScope::user);
  EXPECT_EQ(withRemoval.managementScope, ManagementScope::user);
  EXPECT_EQ(noPersona.managementScope, ManagementScope::user);
  EXPECT_EQ(withRemoval.personaIdentifier, "P");
  EXPECT_FALSE(noPersona.personaIdentifier);
  EXPECT_EQ(coding::encode(noPersona), parseJson(R"({"declarationKey": "K",
      "declarationIdentifier": "I", "managementScope": {"user": {}},
      "installBehavior": {"installTiming": {"onDemand": {}}, "isAccountPromptAllowed": true,
        "purchaseMethod": {"volumePurchaseProgram": {"_0": {"bundleID": {"_0": "dev.corvane.a"}},
                                                     "license": {"user": {}}}}},
      "backupBehavior": {"backupAppData": false},
      "updateBehavior": {"automaticallyUpdate": {"evid": 77}}, "platform": 0})"));
  const auto persona = coding::encode(noScope);
  EXPECT_EQ(persona.as_object().at("personaIdentifier"), boost::json::value("P"));
}

TEST(ManagedAppDeclaration, FieldsAreWritable) {
  auto declaration = decodeJson<ManagedAppDeclaration>(completeDeclaration);
  declaration.personaIdentifier = "persona-1";
  declaration.installBehavior.purchaseMethod =
      PurchaseMethodEnum::manifest(*coding::parseUrl("https://corvane.dev/m.plist"));
  const auto encoded = coding::encode(declaration);
  const auto& object = encoded.as_object();
  EXPECT_EQ(object.at("personaIdentifier"), boost::json::value("persona-1"));
  EXPECT_EQ(object.at("installBehavior").at("purchaseMethod"),
            parseJson(R"({"manifest": {"_0": "https://corvane.dev/m.plist"}})"));
  // Persona comes right after the scope.
  std::vector<std::string_view> keys;
  for (const auto& entry : object) keys.push_back(entry.key());
  EXPECT_EQ(keys,
            (std::vector<std::string_view>{
                "declarationKey", "declarationIdentifier", "managementScope", "personaIdentifier",
                "installBehavior", "backupBehavior", "updateBehavior", "platform"}));
}

TEST(ManagedAppDeclaration, MalformedDocumentsFail) {
  const std::string oneKey(oneKeyExpected);
  const std::vector<std::pair<std::string, Failure>> table = {
      {declarationWith("managementScope", R"({"system": {}, "user": {}})"),
       {Kind::typeMismatch, "managementScope", oneKey}},
      {declarationWith("managementScope", R"({"admin": {}})"),
       {Kind::typeMismatch, "managementScope", oneKey}},
      {declarationWith("managementScope", R"({})"),
       {Kind::typeMismatch, "managementScope", oneKey}},
      {declarationWith("managementScope", R"({"user": true})"),
       {Kind::typeMismatch, "managementScope.user",
        "Expected an object but found a boolean instead."}},
      {declarationWith("updateBehavior", R"({"rawValue": {"automaticallyUpdate": {}}})"),
       {Kind::typeMismatch, "updateBehavior", oneKey}},
      {declarationWith("installBehavior", R"({"installTiming": {"immediately": {}},
          "isAccountPromptAllowed": false,
          "purchaseMethod": {"volumePurchaseProgram": {"_0": {"itemID": {"_0": 1}}}}})"),
       {Kind::keyNotFound, "installBehavior.purchaseMethod.volumePurchaseProgram",
        "No value associated with key \"license\"."}},
      {declarationWith("installBehavior", R"({"installTiming": {"immediately": {}},
          "isAccountPromptAllowed": false, "purchaseMethod": {"manifest": {"_0": "no url"}}})"),
       {Kind::dataCorrupted, "installBehavior.purchaseMethod.manifest._0",
        "Invalid URL string \"no url\"."}},
      {declarationWith("installBehavior", R"({"installTiming": {"immediately": {}},
          "purchaseMethod": {"manifest": {"_0": "https://x.dev/m"}}})"),
       {Kind::keyNotFound, "installBehavior",
        "No value associated with key \"isAccountPromptAllowed\"."}},
      {declarationWith("backupBehavior", R"({})"),
       {Kind::keyNotFound, "backupBehavior", "No value associated with key \"backupAppData\"."}},
      {declarationWith("platform", R"("phone")"),
       {Kind::typeMismatch, "platform", "Expected an integer but found a string instead."}},
      {declarationWith("declarationKey", "null"),
       {Kind::valueNotFound, "declarationKey", "Expected a string but found null instead."}},
  };
  for (const auto& [document, failure] : table) {
    EXPECT_EQ(failureOf<ManagedAppDeclaration>(document), failure) << document;
  }
}

TEST(ManagedAppDeclaration, NothingBeyondTheCodingIsValidated) {
  const auto declaration = decodeJson<ManagedAppDeclaration>(declarationWith(
      "updateBehavior", R"({"automaticallyUpdate": {"evid": -5, "note": "ignored"}})"));
  EXPECT_EQ(declaration.updateBehavior.evid(), -5);
  const auto unknown = declarationWith("extra", R"({"anything": [1, 2]})");
  EXPECT_EQ(reencode<ManagedAppDeclaration>(unknown), parseJson(completeDeclaration));
  const auto scopeWithExtras = decodeJson<ManagedAppDeclaration>(
      declarationWith("managementScope", R"({"user": {"ignored": 1}, "other": {}})"));
  EXPECT_EQ(scopeWithExtras.managementScope, ManagementScope::user);
}

TEST(UpdateBehavior, WrapperCodesUnderRawValue) {
  const UpdateBehavior wrapper{UpdateBehaviorEnum::automaticallyUpdate(12)};
  constexpr std::string_view document = R"({"rawValue": {"automaticallyUpdate": {"evid": 12}}})";
  EXPECT_EQ(coding::encode(wrapper), parseJson(document));
  EXPECT_EQ(decodeJson<UpdateBehavior>(document).rawValue.evid(), 12);
  EXPECT_EQ(failureOf<UpdateBehavior>(R"({"automaticallyUpdate": {}})").kind, Kind::keyNotFound);
}

TEST(RemovalBehavior, CodesAsNothing) {
  EXPECT_EQ(parseJson(TetherEncoder::encode(RemovalBehavior{false})), parseJson("[]"));
  EXPECT_EQ(parseJson(TetherEncoder::encode(std::string("a"), RemovalBehavior{}, 1)),
            parseJson(R"(["a", 1])"));
  for (std::string_view anything : {"null", "17", R"({"enabled": false})", "[]"}) {
    EXPECT_TRUE(decodeJson<RemovalBehavior>(anything).enabled) << anything;
  }
}

TEST(DDMAppOrUpdateManagedAppRequest, WrapsTheDeclarationUnderApp) {
  const std::string document = fmt::format(R"({{"app": {}}})", completeDeclaration);
  const auto request = decodeJson<DDMAppOrUpdateManagedAppRequest>(document);
  EXPECT_EQ(request.app.declarationIdentifier, "I");
  EXPECT_EQ(coding::encode(request), parseJson(document));
  EXPECT_EQ(failureOf<DDMAppOrUpdateManagedAppRequest>(R"({"declaration": {}})"),
            (Failure{Kind::keyNotFound, "", "No value associated with key \"app\"."}));

  // Through the envelope, the path starts at the list.
  const std::string broken =
      fmt::format(R"([{{"app": {}}}])", declarationWith("installBehavior", R"({"installTiming": {},
          "isAccountPromptAllowed": true, "purchaseMethod": {"manifest": {"_0": "https://x.dev"}}})"));
  try {
    (void)TetherDecoder<DDMAppOrUpdateManagedAppRequest>::decode(bytesOf(broken));
    ADD_FAILURE() << "decoded a declaration without an install timing";
  } catch (const CodingError& e) {
    EXPECT_EQ(e.kind(), Kind::typeMismatch);
    EXPECT_EQ(e.codingPath(), "[0].app.installBehavior.installTiming");
  }
}

}  // namespace
}  // namespace corvane::testing
