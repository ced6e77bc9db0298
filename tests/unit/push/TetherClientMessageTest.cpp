#include "unit/model/ValueTesting.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/platform/Log.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/push/MessageSending.hpp>

#include <fmt/format.h>

#include <limits>

namespace corvane::testing {
namespace {

using MessageType = TetherClientMessage::MessageType;

constexpr std::string_view uuidText = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

// A receiver that keeps every batch it is handed.
class RecordingReceiver final : public TetherClientProtocol {
 public:
  void handleMessages(Bytes messages) override { batches.push_back(std::move(messages)); }
  std::vector<Bytes> batches;
};

TEST(TetherClientMessage, BatchOfEveryKindRoundTrips) {
  const std::string batch = fmt::format(R"([[
    {{"type": {{"appProgress": {{"progress": {{
        "state": {{"paused": {{"_0": {{"downloading": {{"_0": 0.25}}}}}}}},
        "bundleID": "dev.corvane.a", "uuid": "{}"}}}}}}}},
    {{"type": {{"connectionEstablished": {{}}}}}},
    {{"type": {{"log": {{"log": "daemon says hi"}}}}}},
    {{"type": {{"managedAppCatalog": {{"_0": [{{"declarationIdentifier": "D", "bundleID": "b",
        "platform": 1, "name": "n", "genres": [], "languages": [], "screenshots": [],
        "hasLicenseAgreement": false}}]}}}}}},
    {{"type": {{"managedAppCatalog": {{"_1": {{"networkError": {{}}}}}}}}}},
    {{"type": {{"managedAppCatalog": {{}}}}}}
  ]])",
                                        uuidText);
  const auto [messages] = TetherDecoder<std::vector<TetherClientMessage>>::decode(bytesOf(batch));
  ASSERT_EQ(messages.size(), 6U);
  const auto& progress = std::get<MessageType::AppProgressCase>(messages[0].type.cases()).progress;
  EXPECT_EQ(progress.state, AppState::paused(AppState::downloading(0.25)));
  EXPECT_EQ(coding::uuidString(progress.uuid), uuidText);
  const auto& catalog = std::get<MessageType::ManagedAppCatalog>(messages[3].type.cases());
  ASSERT_TRUE(catalog._0);
  EXPECT_EQ(catalog._0->at(0).id(), "b");
  EXPECT_FALSE(catalog._1);
  EXPECT_EQ(std::get<MessageType::ManagedAppCatalog>(messages[4].type.cases())._1,
            CorvaneError::networkError);
  const auto& neither = std::get<MessageType::ManagedAppCatalog>(messages[5].type.cases());
  EXPECT_FALSE(neither._0 || neither._1);
  EXPECT_EQ(parseJson(TetherEncoder::encode(messages)), parseJson(batch));
}

TEST(TetherClientMessage, CatalogWithBothPayloadsWritesBoth) {
  const TetherClientMessage message{
      MessageType::managedAppCatalog(std::vector<ManagedApp>{}, CorvaneError::deviceNotManaged)};
  EXPECT_EQ(coding::encode(message), parseJson(R"({"type": {"managedAppCatalog":
      {"_0": [], "_1": {"deviceNotManaged": {}}}}})"));
}

TEST(TetherClientMessage, EmptyBatchIsValid) {
  const Bytes empty = TetherEncoder::encode(std::vector<TetherClientMessage>{});
  EXPECT_EQ(parseJson(empty), parseJson("[[]]"));
  EXPECT_TRUE(std::get<0>(TetherDecoder<std::vector<TetherClientMessage>>::decode(empty)).empty());
}

TEST(TetherClientMessage, MalformedMessagesFail) {
  const std::string oneKey(oneKeyExpected);
  const std::vector<std::pair<std::string, Failure>> table = {
      {R"({"type": {}})", {Kind::typeMismatch, "type", oneKey}},
      {R"({"type": {"shutdown": {}}})", {Kind::typeMismatch, "type", oneKey}},
      {R"({"type": {"log": {}, "connectionEstablished": {}}})",
       {Kind::typeMismatch, "type", oneKey}},
      {R"({"kind": {"log": {"log": "x"}}})",
       {Kind::keyNotFound, "", "No value associated with key \"type\"."}},
      {R"({"type": {"log": {}}})",
       {Kind::keyNotFound, "type.log", "No value associated with key \"log\"."}},
      {fmt::format(R"({{"type": {{"appProgress": {{"progress": {{"state": {{"installed": {{}}}},
          "uuid": "{}"}}}}}}}})",
                   uuidText),
       {Kind::keyNotFound, "type.appProgress.progress",
        "No value associated with key \"bundleID\"."}},
      {R"({"type": {"managedAppCatalog": {"_1": {"offline": {}}}}})",
       {Kind::typeMismatch, "type.managedAppCatalog._1", oneKey}},
      {R"({"type": {"managedAppCatalog": {"_0": [{"bundleID": "b"}]}}})",
       {Kind::keyNotFound, "type.managedAppCatalog._0[0]",
        "No value associated with key \"declarationIdentifier\"."}},
  };
  for (const auto& [document, failure] : table) {
    EXPECT_EQ(failureOf<TetherClientMessage>(document), failure) << document;
  }
}

TEST(MessageSending, DeliversOneBatch) {
  RecordingReceiver receiver;
  sendLog(receiver, "line one");
  send(receiver, TetherClientMessage{MessageType::connectionEstablished()});
  send(receiver, std::vector<TetherClientMessage>{});
  ASSERT_EQ(receiver.batches.size(), 3U);
  EXPECT_EQ(parseJson(receiver.batches[0]),
            parseJson(R"([[{"type": {"log": {"log": "line one"}}}]])"));
  EXPECT_EQ(parseJson(receiver.batches[1]),
            parseJson(R"([[{"type": {"connectionEstablished": {}}}]])"));
  EXPECT_EQ(parseJson(receiver.batches[2]), parseJson("[[]]"));
}

TEST(MessageSending, EncodingFailureDeliversNothingAndLogs) {
  RecordingReceiver receiver;
  const platform::ScopedLogCapture capture;
  AppProgress progress;
  progress.state = AppState::downloading(std::numeric_limits<double>::quiet_NaN());
  progress.bundleID = "dev.corvane.a";
  send(receiver, TetherClientMessage{MessageType::appProgress(progress)});
  EXPECT_TRUE(receiver.batches.empty());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].level, platform::LogLevel::error);
  EXPECT_EQ(records[0].category, LogCategory::tether().category());
  EXPECT_TRUE(
      records[0].message.starts_with("Failed to encode Tether client messages: "
                                     "[appProgress(dev.corvane.a: Downloading (nan%))]: "))
      << records[0].message;
}

}  // namespace
}  // namespace corvane::testing
