#include "ipc/detail/Session.hpp"

#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/FrameDecoder.hpp>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace corvane::ipc::detail {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Wire = std::vector<std::byte>;

// ---- frames as the peer sends them --------------------------------------------------------------

Wire wire(FrameKind kind, std::uint64_t serial, std::string_view name,
          std::optional<std::string_view> payload) {
  Frame frame{kind, serial, std::string(name), std::nullopt};
  if (payload) frame.payload.emplace(*payload);
  return encodeFrame(frame);
}

Wire helloFrame(std::optional<std::string_view> payload = helloPayload) {
  return wire(FrameKind::hello, 0, {}, payload);
}
Wire callFrame(std::uint64_t serial, std::string_view name,
               std::optional<std::string_view> argument) {
  return wire(FrameKind::call, serial, name, argument);
}
Wire messageFrame(std::uint64_t serial, std::string_view name, std::string_view argument) {
  return wire(FrameKind::message, serial, name, argument);
}
Wire replyFrame(std::uint64_t serial, std::optional<std::string_view> reply) {
  return wire(FrameKind::reply, serial, {}, reply);
}
Wire faultFrame(std::uint64_t serial, std::string_view reason) {
  return wire(FrameKind::fault, serial, {}, reason);
}

Wire bytesOf(std::initializer_list<unsigned> values) {
  Wire out;
  for (auto v : values) out.push_back(static_cast<std::byte>(v));
  return out;
}

Wire joined(std::initializer_list<Wire> parts) {
  Wire out;
  for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

/// The fixed part and name of a CALL "op:" declaring `payloadSize` bytes of argument, followed by
/// zero bytes up to `totalBytes` in all: a frame that is still arriving.
Wire partialCall(std::uint64_t serial, std::size_t payloadSize, std::size_t totalBytes) {
  Wire out;
  encodeFrameHeader(out, FrameKind::call, serial, "op:", true, payloadSize);
  out.resize(totalBytes);
  return out;
}

// ---- driving the session as its owner does ------------------------------------------------------

/// Hands `bytes` to the session as one read.
void feed(Session& session, std::span<const std::byte> bytes) {
  auto room = session.receiveBuffer(bytes.size());
  ASSERT_GE(room.size(), bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  session.received(bytes.size());
}

/// Hands `bytes` to the session one read per byte, as long as it wants input.
void feedBytewise(Session& session, std::span<const std::byte> bytes) {
  for (const std::byte b : bytes) {
    if (!session.wantsInput()) return;
    feed(session, std::span(&b, 1));
  }
}

/// What the session has to write, without writing it.
Wire peek(const Session& session) {
  std::array<std::span<const std::byte>, 64> parts;
  const std::size_t count = session.gatherOutput(parts);
  Wire out;
  for (std::size_t i = 0; i < count; ++i) out.insert(out.end(), parts[i].begin(), parts[i].end());
  EXPECT_EQ(out.size(), session.pendingOutput());
  return out;
}

/// Writes out everything pending, at most `chunk` bytes per write, and returns what was written.
Wire drain(Session& session, std::size_t chunk = std::numeric_limits<std::size_t>::max()) {
  Wire out;
  std::array<std::span<const std::byte>, 3> parts;
  while (session.pendingOutput() > 0) {
    const std::size_t pending = session.pendingOutput();
    const std::size_t count = session.gatherOutput(parts);
    std::size_t taken = 0;
    for (std::size_t i = 0; i < count && taken < chunk; ++i) {
      const std::size_t take = std::min(parts[i].size(), chunk - taken);
      out.insert(out.end(), parts[i].begin(), parts[i].begin() + static_cast<std::ptrdiff_t>(take));
      taken += take;
    }
    if (taken == 0) {
      ADD_FAILURE() << pending << " bytes pending, but nothing to gather";
      break;
    }
    session.wrote(taken);
    if (!session.closed()) {
      EXPECT_EQ(session.pendingOutput(), pending - taken);
    }
  }
  return out;
}

std::string describe(const Frame& frame) {
  std::string text = fmt::format("{} {}", toString(frame.kind), frame.serial);
  if (!frame.name.empty()) text += " " + frame.name;
  text += frame.payload ? fmt::format(" '{}'", frame.payload->view()) : std::string(" -");
  return text;
}

/// The frames in `bytes`, described; every byte must belong to a whole, valid frame.
std::vector<std::string> framesIn(std::span<const std::byte> bytes) {
  FrameDecoder decoder;
  decoder.feed(bytes);
  std::vector<std::string> frames;
  Frame frame;
  FrameDecoder::Status status{};
  while ((status = decoder.next(frame)) == FrameDecoder::Status::frame) {
    frames.push_back(describe(frame));
  }
  EXPECT_EQ(status, FrameDecoder::Status::needMore) << decoder.violation();
  EXPECT_EQ(decoder.bufferedBytes(), 0U) << "the output ends inside a frame";
  return frames;
}

/// Writes out everything pending and returns the frames written, described.
std::vector<std::string> written(Session& session,
                                 std::size_t chunk = std::numeric_limits<std::size_t>::max()) {
  return framesIn(drain(session, chunk));
}

const std::string helloLine = fmt::format("HELLO 0 '{}'", helloPayload);

std::string_view codeName(const CallError& error) {
  static constexpr std::array<std::pair<ConnectionError, std::string_view>, 10> names{{
      {ConnectionError::notResumed, "notResumed"},
      {ConnectionError::connectFailed, "connectFailed"},
      {ConnectionError::interrupted, "interrupted"},
      {ConnectionError::invalidated, "invalidated"},
      {ConnectionError::peerFault, "peerFault"},
      {ConnectionError::unknownOperation, "unknownOperation"},
      {ConnectionError::shapeMismatch, "shapeMismatch"},
      {ConnectionError::protocolViolation, "protocolViolation"},
      {ConnectionError::serviceNotTrusted, "serviceNotTrusted"},
      {ConnectionError::limitExceeded, "limitExceeded"},
  }};
  for (const auto& [code, name] : names) {
    if (error.is(code)) return name;
  }
  return "?";
}

std::string describe(CallResult& result) {
  if (result.hasReply()) return fmt::format("reply '{}'", result.reply().view());
  return fmt::format("error {}: {}", codeName(result.error()), result.error().reason());
}

std::string failed(std::string_view code, std::string_view reason) {
  return fmt::format("error {}: {}", code, reason);
}

/// Plays the session's owner: dispatched frames and outcomes of our calls become lines, in the
/// order the session reports them, and every completion's runs are counted.
class Recorder {
 public:
  /// A completion that logs "#<id> <outcome>" when it runs.
  Completion completion(int id) {
    return [this, id](CallResult result) {
      ++runs_[id];
      log_.push_back(fmt::format("#{} {}", id, describe(result)));
    };
  }

  /// Takes the session's events and acts on them: frames are described, completions run.
  std::vector<std::string> take(Session& session) {
    std::vector<SessionEvent> events;
    session.takeEvents(events);
    for (auto& event : events) {
      if (const auto* frame = std::get_if<Frame>(&event)) {
        log_.push_back(describe(*frame));
        continue;
      }
      auto& completed = std::get<Completed>(event);
      EXPECT_TRUE(static_cast<bool>(completed.completion)) << "an empty completion";
      if (completed.completion) completed.completion(std::move(completed.result));
    }
    return std::exchange(log_, {});
  }

  [[nodiscard]] int runs(int id) const {
    const auto found = runs_.find(id);
    return found == runs_.end() ? 0 : found->second;
  }

 private:
  std::map<int, int> runs_;
  std::vector<std::string> log_;
};

/// A client session that has exchanged HELLOs (its own HELLO written).
void openClient(Session& client) {
  EXPECT_THAT(written(client), ElementsAre(helloLine));
  feed(client, helloFrame());
}

/// A service session that has exchanged HELLOs (its answer written).
void openService(Session& service) {
  feed(service, helloFrame());
  EXPECT_THAT(written(service), ElementsAre(helloLine));
}

SessionLimits callsInFlight(std::size_t calls) {
  SessionLimits limits;
  limits.maxCallsInFlight = calls;
  return limits;
}

// ---- the HELLO exchange -------------------------------------------------------------------------

TEST(SessionHello, AClientWritesItsHelloFirstWithItsCallsRightBehind) {
  Recorder recorder;
  Session client(Role::client, {});
  EXPECT_EQ(
      client.call("echo:reply:", Bytes(std::string_view(R"(["hi"])")), recorder.completion(1)), 1U);
  EXPECT_EQ(client.call("keys:", std::nullopt, recorder.completion(2)), 2U);
  EXPECT_EQ(client.call("note:", Bytes(), {}), 3U);
  EXPECT_EQ(client.callsInFlight(), 2U);  // the MESSAGE waits for nothing

  // Exactly the encoded frames, in order: an absent argument has no payload, an empty one has.
  EXPECT_EQ(drain(client),
            joined({helloFrame(), callFrame(1, "echo:reply:", R"(["hi"])"),
                    callFrame(2, "keys:", std::nullopt), messageFrame(3, "note:", "")}));
  EXPECT_THAT(recorder.take(client), IsEmpty());
}

TEST(SessionHello, AServiceHoldsItsFramesUntilItHasAnsweredTheHello) {
  Recorder recorder;
  Session service(Role::service, {});
  EXPECT_EQ(service.call("push:", Bytes(std::string_view("early")), {}), 1U);
  EXPECT_EQ(service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1)), 2U);
  EXPECT_EQ(service.pendingOutput(), 0U);
  std::array<std::span<const std::byte>, 4> parts;
  EXPECT_EQ(service.gatherOutput(parts), 0U);

  feed(service, joined({helloFrame(), callFrame(1, "echo:", "hi")}));
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 1 echo: 'hi'"));
  service.answer(1, Bytes(std::string_view("hi")), {});
  EXPECT_THAT(written(service),
              ElementsAre(helloLine, "MESSAGE 1 push: 'early'", "CALL 2 ask: 'q'", "REPLY 1 'hi'"));
  EXPECT_FALSE(service.closed());
}

TEST(SessionHello, AServiceRefusesAnotherVersionWithAFaultAndClosesOnceItIsWritten) {
  Recorder recorder;
  Session service(Role::service, {});
  service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1));
  feed(service, joined({helloFrame(R"({"protocol":2})"), callFrame(1, "op:", "x")}));

  // The FAULT is all it writes: not its own HELLO, nor what it held behind it, and the CALL
  // behind the HELLO is never dispatched.
  EXPECT_FALSE(service.wantsInput());
  EXPECT_FALSE(service.closed());
  EXPECT_THAT(recorder.take(service), IsEmpty());
  const Wire output = peek(service);
  EXPECT_THAT(framesIn(output), ElementsAre("FAULT 0 'unsupported protocol version'"));

  service.wrote(output.size() - 1);
  EXPECT_FALSE(service.closed()) << "closed before the FAULT was out";
  service.wrote(1);
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::helloMismatch);
  EXPECT_THAT(recorder.take(service),
              ElementsAre("#1 " + failed("invalidated", service.closeDetail())));
  EXPECT_EQ(recorder.runs(1), 1);
}

TEST(SessionHello, TheVersionMustBeTheIntegerOne) {
  EXPECT_TRUE(isSupportedHello(Bytes(helloPayload)));
  EXPECT_TRUE(isSupportedHello(Bytes(std::string_view(R"({"features":["x"],"protocol":1})"))));
  for (const std::string_view refused :
       {R"({"protocol":2})", R"({"protocol":0})", R"({"protocol":"1"})", R"({"protocol":true})",
        R"({"version":1})", R"({})", R"([1])", "1", "", R"({"protocol":1)"}) {
    EXPECT_FALSE(isSupportedHello(Bytes(refused))) << refused;
  }
  EXPECT_FALSE(isSupportedHello(std::nullopt));
}

TEST(SessionHello, AResumeTokenTravelsAsOpaqueBytesAndOnlyAWellFormedOneCounts) {
  const std::string token("a\0\xff/\"z", 6);
  Session client(Role::client, {}, nullptr, token);
  const Wire hello = drain(client);
  // A service that knows nothing of tokens still takes the HELLO.
  ASSERT_EQ(framesIn(hello).size(), 1U);
  Session service(Role::service, {});
  feed(service, hello);
  std::vector<SessionEvent> events;
  service.takeEvents(events);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(std::get<Greeted>(events.front()).resumeToken, token);

  // Without a token the HELLO is the plain one and the service hears of no greeting.
  Session plain(Role::client, {});
  EXPECT_EQ(drain(plain), helloFrame());
  Session other(Role::service, {});
  feed(other, helloFrame());
  events.clear();
  other.takeEvents(events);
  EXPECT_THAT(events, IsEmpty());

  const std::string longest(maxResumeTokenSize, 'x');
  EXPECT_EQ(resumeTokenOf(helloPayloadWith(longest)), longest);
  EXPECT_THROW((void)helloPayloadWith(longest + "x"), std::invalid_argument);
  const std::string tooLong =
      R"({"protocol":1,"resume":")" + std::string(2 * maxResumeTokenSize + 2, 'a') + R"("})";
  for (const std::string_view ignored :
       {std::string_view(R"({"protocol":1,"resume":"abc"})"),
        std::string_view(R"({"protocol":1,"resume":"zz"})"),
        std::string_view(R"({"protocol":1,"resume":12})"), std::string_view(R"({"protocol":1})"),
        std::string_view(tooLong)}) {
    EXPECT_EQ(resumeTokenOf(ignored), "") << ignored;
  }
}

// ---- frames that break the protocol -------------------------------------------------------------

struct ViolationCase {
  const char* what;
  Role role;
  std::vector<Wire> frames;  // what the peer sends
  CloseReason reason;
  std::string detail;
  std::string outcome;  // of the session's own CALL, serial 1
};

void PrintTo(const ViolationCase& testCase, std::ostream* out) {
  *out << testCase.what;
}

class SessionViolation : public testing::TestWithParam<ViolationCase> {};

// The session has made a CALL (serial 1) and a MESSAGE (serial 2) when the peer's frames arrive;
// a valid CALL follows the offending frames and must never be dispatched.
TEST_P(SessionViolation, ClosesAndFailsTheCallsInFlight) {
  const auto& param = GetParam();
  Wire stream;
  for (const auto& frame : param.frames) stream.insert(stream.end(), frame.begin(), frame.end());
  const Wire late = callFrame(100, "late:", "x");
  stream.insert(stream.end(), late.begin(), late.end());

  for (const bool bytewise : {false, true}) {
    SCOPED_TRACE(bytewise ? "fed byte by byte" : "fed in one piece");
    Recorder recorder;
    Session session(param.role, {});
    ASSERT_EQ(session.call("op:", Bytes(std::string_view("arg")), recorder.completion(1)), 1U);
    ASSERT_EQ(session.call("note:", Bytes(std::string_view("m")), {}), 2U);
    if (param.role == Role::client) (void)drain(session);

    if (bytewise) {
      feedBytewise(session, stream);
    } else {
      feed(session, stream);
    }
    ASSERT_TRUE(session.closed());
    EXPECT_EQ(session.closeReason(), param.reason);
    EXPECT_EQ(session.closeDetail(), param.detail);
    EXPECT_FALSE(session.wantsInput());
    EXPECT_EQ(session.pendingOutput(), 0U) << "a closed session writes nothing more";
    EXPECT_EQ(session.callsInFlight(), 0U);
    const auto log = recorder.take(session);
    EXPECT_THAT(log, Contains("#1 " + param.outcome));
    EXPECT_THAT(log, Not(Contains(HasSubstr("late:"))));
    EXPECT_EQ(recorder.runs(1), 1);
  }
}

const std::string notHello = "the first frame is not a HELLO";
const std::string secondHello = "a second HELLO";
const std::string notIncreasing = "serials must increase";
const std::string wrongVersion = "the peer does not speak protocol version 1";

std::string violated(const std::string& detail) {
  return failed("protocolViolation", detail);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SessionViolation,
    testing::Values(
        ViolationCase{"serviceGetsCallFirst",
                      Role::service,
                      {callFrame(1, "op:", "x")},
                      CloseReason::protocolViolation,
                      notHello,
                      violated(notHello)},
        ViolationCase{"clientGetsReplyFirst",
                      Role::client,
                      {replyFrame(1, "x")},
                      CloseReason::protocolViolation,
                      notHello,
                      violated(notHello)},
        ViolationCase{"helloWithSerial",
                      Role::service,
                      {wire(FrameKind::hello, 3, {}, helloPayload)},
                      CloseReason::protocolViolation,
                      notHello,
                      violated(notHello)},
        ViolationCase{"serviceGetsFaultZeroFirst",
                      Role::service,
                      {faultFrame(0, "no")},
                      CloseReason::protocolViolation,
                      notHello,
                      violated(notHello)},
        ViolationCase{"secondHelloToService",
                      Role::service,
                      {helloFrame(), helloFrame()},
                      CloseReason::protocolViolation,
                      secondHello,
                      violated(secondHello)},
        ViolationCase{"secondHelloToClient",
                      Role::client,
                      {helloFrame(), helloFrame()},
                      CloseReason::protocolViolation,
                      secondHello,
                      violated(secondHello)},
        ViolationCase{"repeatedCallSerial",
                      Role::service,
                      {helloFrame(), callFrame(1, "a:", "x"), callFrame(1, "b:", "y")},
                      CloseReason::protocolViolation,
                      notIncreasing,
                      violated(notIncreasing)},
        ViolationCase{"messageBelowCall",
                      Role::service,
                      {helloFrame(), callFrame(5, "a:", "x"), messageFrame(4, "b:", "y")},
                      CloseReason::protocolViolation,
                      notIncreasing,
                      violated(notIncreasing)},
        ViolationCase{"serialZero",
                      Role::client,
                      {helloFrame(), messageFrame(0, "a:", "x")},
                      CloseReason::protocolViolation,
                      notIncreasing,
                      violated(notIncreasing)},
        ViolationCase{"replyToUnknownSerial",
                      Role::client,
                      {helloFrame(), replyFrame(7, "x")},
                      CloseReason::protocolViolation,
                      "an answer to unknown serial 7",
                      violated("an answer to unknown serial 7")},
        ViolationCase{"faultToUnknownSerial",
                      Role::service,
                      {helloFrame(), faultFrame(9, "no")},
                      CloseReason::protocolViolation,
                      "an answer to unknown serial 9",
                      violated("an answer to unknown serial 9")},
        ViolationCase{"replyToOurMessage",
                      Role::service,
                      {helloFrame(), replyFrame(2, "x")},
                      CloseReason::protocolViolation,
                      "an answer to unknown serial 2",
                      violated("an answer to unknown serial 2")},
        ViolationCase{"callAnsweredTwice",
                      Role::client,
                      {helloFrame(), replyFrame(1, "ok"), faultFrame(1, "no")},
                      CloseReason::protocolViolation,
                      "an answer to unknown serial 1",
                      "reply 'ok'"},
        ViolationCase{"faultZeroAfterHello",
                      Role::client,
                      {helloFrame(), faultFrame(0, "late")},
                      CloseReason::protocolViolation,
                      "an answer to unknown serial 0",
                      violated("an answer to unknown serial 0")},
        ViolationCase{"unknownKind",
                      Role::service,
                      {helloFrame(), bytesOf({0, 0, 0, 12, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
                      CloseReason::protocolViolation,
                      "unknown frame kind 9",
                      violated("unknown frame kind 9")},
        ViolationCase{"reservedFlags",
                      Role::client,
                      {helloFrame(), bytesOf({0, 0, 0, 12, 3, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
                      CloseReason::protocolViolation,
                      "reserved flag bits set",
                      violated("reserved flag bits set")},
        ViolationCase{"oversizedLength",
                      Role::service,
                      {helloFrame(), bytesOf({0x04, 0, 0, 1})},
                      CloseReason::protocolViolation,
                      "frame length above the size limit",
                      violated("frame length above the size limit")},
        ViolationCase{"undecodableBeforeHello",
                      Role::client,
                      {bytesOf({0, 0, 0, 3})},
                      CloseReason::protocolViolation,
                      "frame length below the fixed header size",
                      violated("frame length below the fixed header size")},
        ViolationCase{"clientGetsAnotherVersion",
                      Role::client,
                      {helloFrame(R"({"protocol":2})")},
                      CloseReason::helloMismatch,
                      wrongVersion,
                      failed("invalidated", wrongVersion)},
        ViolationCase{"clientGetsHelloWithoutPayload",
                      Role::client,
                      {helloFrame(std::nullopt)},
                      CloseReason::helloMismatch,
                      wrongVersion,
                      failed("invalidated", wrongVersion)},
        ViolationCase{"clientGetsFaultZero",
                      Role::client,
                      {faultFrame(0, "unsupported protocol version")},
                      CloseReason::helloMismatch,
                      "unsupported protocol version",
                      failed("invalidated", "unsupported protocol version")}),
    [](const auto& testCase) { return std::string(testCase.param.what); });

// ---- closing ------------------------------------------------------------------------------------

struct CloseCase {
  const char* what;
  CloseReason reason;
  const char* error;
};

void PrintTo(const CloseCase& testCase, std::ostream* out) {
  *out << testCase.what;
}

class SessionClose : public testing::TestWithParam<CloseCase> {};

TEST_P(SessionClose, FailsEachCallInFlightOnceInSerialOrderAndEveryLaterOne) {
  const auto& param = GetParam();
  Recorder recorder;
  Session client(Role::client, {});
  for (int id = 1; id <= 6; ++id) {
    EXPECT_EQ(client.call("op:", Bytes(std::string_view("x")), recorder.completion(id)),
              static_cast<std::uint64_t>(id));
  }
  feed(client, joined({helloFrame(), replyFrame(3, "three")}));
  EXPECT_THAT(recorder.take(client), ElementsAre("#3 reply 'three'"));

  client.close(param.reason, "why");
  ASSERT_TRUE(client.closed());
  EXPECT_FALSE(client.wantsInput());
  EXPECT_EQ(client.pendingOutput(), 0U) << "unwritten calls are dropped";
  EXPECT_EQ(client.callsInFlight(), 0U);
  const std::string error = failed(param.error, "why");
  EXPECT_THAT(recorder.take(client), ElementsAre("#1 " + error, "#2 " + error, "#4 " + error,
                                                 "#5 " + error, "#6 " + error));

  // The first close stays.
  client.close(CloseReason::peerLost, "again");
  EXPECT_EQ(client.closeReason(), param.reason);
  EXPECT_EQ(client.closeDetail(), "why");
  EXPECT_THAT(recorder.take(client), IsEmpty());

  // Later calls are not sent; a CALL's completion comes back with the same error.
  EXPECT_EQ(client.call("late:", Bytes(std::string_view("x")), {}), std::nullopt);
  EXPECT_EQ(client.call("late:", Bytes(std::string_view("x")), recorder.completion(7)),
            std::nullopt);
  EXPECT_EQ(client.pendingOutput(), 0U);
  EXPECT_THAT(recorder.take(client), ElementsAre("#7 " + error));
  for (int id = 1; id <= 7; ++id) EXPECT_EQ(recorder.runs(id), 1) << "call " << id;
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, SessionClose,
    testing::Values(CloseCase{"peerLost", CloseReason::peerLost, "interrupted"},
                    CloseCase{"protocolViolation", CloseReason::protocolViolation,
                              "protocolViolation"},
                    CloseCase{"helloMismatch", CloseReason::helloMismatch, "invalidated"},
                    CloseCase{"invalidated", CloseReason::invalidated, "invalidated"},
                    CloseCase{"limitExceeded", CloseReason::limitExceeded, "limitExceeded"}),
    [](const auto& testCase) { return std::string(testCase.param.what); });

// ---- answers to our calls -----------------------------------------------------------------------

TEST(SessionAnswers, EachCallCompletesOnceWithItsReplyOrFaultInArrivalOrder) {
  Recorder recorder;
  Session client(Role::client, {});
  openClient(client);
  for (int id = 1; id <= 4; ++id) client.call("op:", std::nullopt, recorder.completion(id));
  EXPECT_EQ(client.callsInFlight(), 4U);

  // Answers in any order, interleaved with the service's own frames.
  feed(client, joined({replyFrame(2, "two"), messageFrame(1, "handleMessages:", "m"),
                       faultFrame(1, "unknown operation op:"), replyFrame(4, std::nullopt),
                       wire(FrameKind::fault, 3, {}, std::nullopt)}));
  EXPECT_THAT(recorder.take(client),
              ElementsAre("#2 reply 'two'", "MESSAGE 1 handleMessages: 'm'",
                          "#1 " + failed("peerFault", "unknown operation op:"), "#4 reply ''",
                          "#3 " + failed("peerFault", "fault")));
  EXPECT_EQ(client.callsInFlight(), 0U);

  client.close(CloseReason::invalidated, "done");
  EXPECT_THAT(recorder.take(client), IsEmpty());
  for (int id = 1; id <= 4; ++id) EXPECT_EQ(recorder.runs(id), 1) << "call " << id;
}

TEST(SessionAnswers, AnAnswerSplitAcrossReadsCompletesWhenItsLastByteArrives) {
  Recorder recorder;
  Session client(Role::client, {});
  openClient(client);
  client.call("op:", Bytes(std::string_view("x")), recorder.completion(1));
  const Wire reply = replyFrame(1, "a reply of some length");
  feed(client, std::span(reply).first(reply.size() - 1));
  EXPECT_THAT(recorder.take(client), IsEmpty());
  feed(client, std::span(reply).last(1));
  EXPECT_THAT(recorder.take(client), ElementsAre("#1 reply 'a reply of some length'"));
}

TEST(SessionAnswers, TheSynchronousFlagTravelsWithEveryOutcome) {
  Session client(Role::client, {});
  openClient(client);
  const auto ignore = [](CallResult /*result*/) {};
  client.call("op:", std::nullopt, ignore, true);
  client.call("op:", std::nullopt, ignore, false);
  client.call("op:", std::nullopt, ignore, true);
  client.call("op:", std::nullopt, ignore, false);
  feed(client, joined({replyFrame(2, "x"), faultFrame(1, "no")}));
  client.close(CloseReason::peerLost, "gone");
  client.call("op:", std::nullopt, ignore, true);
  client.call("op:", std::nullopt, ignore, false);

  // Events are appended behind whatever the owner already holds.
  std::vector<SessionEvent> events;
  events.emplace_back(Frame{FrameKind::message, 42, "held:", std::nullopt});
  ASSERT_TRUE(client.hasEvents());
  client.takeEvents(events);
  EXPECT_FALSE(client.hasEvents());
  ASSERT_EQ(events.size(), 7U);
  EXPECT_EQ(std::get<Frame>(events[0]).serial, 42U);
  std::vector<bool> synchronous;
  std::vector<bool> replied;
  for (auto& event : std::span(events).subspan(1)) {
    const auto& completed = std::get<Completed>(event);
    synchronous.push_back(completed.synchronous);
    replied.push_back(completed.result.hasReply());
  }
  // Reply 2, fault 1, then the close fails 3 and 4, then the two calls made after it.
  EXPECT_THAT(synchronous, ElementsAre(false, true, true, false, true, false));
  EXPECT_THAT(replied, ElementsAre(true, false, false, false, false, false));
}

// ---- answering the peer's calls -----------------------------------------------------------------

TEST(SessionIncoming, CallsAreAnsweredWithAReplyOrAFault) {
  Recorder recorder;
  Session service(Role::service, {});
  openService(service);
  feed(service, joined({callFrame(1, "echo:reply:", "[1]"), messageFrame(2, "tell:", "t"),
                        callFrame(3, "keys:", std::nullopt)}));
  EXPECT_THAT(recorder.take(service),
              ElementsAre("CALL 1 echo:reply: '[1]'", "MESSAGE 2 tell: 't'", "CALL 3 keys: -"));
  service.answer(3, std::nullopt, "no reply");
  service.answer(1, Bytes(std::string_view("[1]")), "ignored");
  service.answer(1, Bytes(std::string_view("again")), {});  // twice: ignored
  service.answer(2, Bytes(std::string_view("x")), {});      // a MESSAGE has no answer
  service.answer(77, Bytes(std::string_view("x")), {});     // never dispatched
  EXPECT_THAT(written(service), ElementsAre("FAULT 3 'no reply'", "REPLY 1 '[1]'"));
  EXPECT_FALSE(service.closed());
}

TEST(SessionIncoming, EmptyAndMissingRepliesAreDistinctOnTheWire) {
  Session service(Role::service, {});
  openService(service);
  feed(service, joined({callFrame(1, "a:", std::nullopt), callFrame(2, "b:", std::nullopt)}));
  service.answer(1, Bytes(), {});
  service.answer(2, std::nullopt, {});
  EXPECT_THAT(written(service), ElementsAre("REPLY 1 ''", "FAULT 2 ''"));
}

TEST(SessionInFlightLimit, HoldsThePeersCallsInOrderButNeverRepliesToOurs) {
  Recorder recorder;
  Session service(Role::service, callsInFlight(1));
  openService(service);
  EXPECT_EQ(service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1)), 1U);

  feed(service, joined({callFrame(1, "a:", "1"), callFrame(2, "b:", "2"), replyFrame(1, "answer"),
                        messageFrame(3, "c:", "3"), callFrame(4, "d:", "4")}));
  // CALL 2 waits behind CALL 1, yet the REPLY to our call that came after it completes at once:
  // a handler of CALL 1 may be waiting for exactly that.
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 1 a: '1'", "#1 reply 'answer'"));

  service.answer(4, Bytes(std::string_view("early")), {});  // not dispatched yet: ignored
  EXPECT_THAT(recorder.take(service), IsEmpty());
  service.answer(1, Bytes(std::string_view("r1")), {});
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 2 b: '2'"));
  service.answer(1, Bytes(std::string_view("r1 again")), {});  // must not free a second place
  EXPECT_THAT(recorder.take(service), IsEmpty());
  service.answer(2, Bytes(std::string_view("r2")), {});
  EXPECT_THAT(recorder.take(service), ElementsAre("MESSAGE 3 c: '3'"));

  // A MESSAGE counts until its handler has returned.
  service.answer(2, Bytes(std::string_view("r2 again")), {});
  EXPECT_THAT(recorder.take(service), IsEmpty());
  service.messageHandled();
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 4 d: '4'"));
  service.messageHandled();  // nothing is a MESSAGE in flight: must not free CALL 4's place
  feed(service, callFrame(5, "e:", "5"));
  EXPECT_THAT(recorder.take(service), IsEmpty());
  service.answer(4, Bytes(std::string_view("r4")), {});
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 5 e: '5'"));

  EXPECT_THAT(written(service),
              ElementsAre("CALL 1 ask: 'q'", "REPLY 1 'r1'", "REPLY 2 'r2'", "REPLY 4 'r4'"));
  EXPECT_FALSE(service.closed());
  EXPECT_EQ(recorder.runs(1), 1);
}

TEST(SessionInFlightLimit, CallsArriveUnheldUpToTheLimit) {
  Recorder recorder;
  Session service(Role::service, callsInFlight(2));
  openService(service);
  feed(service,
       joined({callFrame(1, "a:", "1"), messageFrame(2, "b:", "2"), callFrame(3, "c:", "3")}));
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 1 a: '1'", "MESSAGE 2 b: '2'"));
  service.messageHandled();
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 3 c: '3'"));
}

// ---- limits -------------------------------------------------------------------------------------

TEST(SessionBounds, CallsWaitingBehindTheInFlightLimitAreBoundedInBytes) {
  SessionLimits limits = callsInFlight(1);
  limits.maxQueuedIncomingBytes = 10;  // counting operation names and arguments
  Recorder recorder;
  Session service(Role::service, limits);
  openService(service);
  service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1));

  feed(service, joined({callFrame(1, "a:", std::string(100, 'x')),  // dispatched: not counted
                        callFrame(2, "b:", "12345678")}));          // waits: exactly 10 bytes
  EXPECT_FALSE(service.closed());
  service.answer(1, Bytes(), {});
  feed(service, callFrame(3, "c:", "12345678"));  // the released CALL no longer counts
  EXPECT_FALSE(service.closed());
  EXPECT_THAT(
      recorder.take(service),
      ElementsAre(fmt::format("CALL 1 a: '{}'", std::string(100, 'x')), "CALL 2 b: '12345678'"));

  feed(service, callFrame(4, "d:", std::nullopt));  // 12 bytes wait
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::limitExceeded);
  EXPECT_THAT(service.closeDetail(), HasSubstr("12 bytes"));
  EXPECT_THAT(recorder.take(service),
              ElementsAre("#1 " + failed("limitExceeded", service.closeDetail())));
}

/// A MESSAGE "m:" whose frame is `frameBytes` long (at least 18).
Bytes messageArgument(std::size_t frameBytes) {
  return Bytes(std::string(frameBytes - frameHeaderSize - 2, 'm'));
}

TEST(SessionBounds, OutputThePeerDoesNotReadIsBounded) {
  SessionLimits limits;
  limits.maxQueuedOutgoingBytes = 100;
  Recorder recorder;
  Session service(Role::service, limits);
  openService(service);

  EXPECT_TRUE(service.call("m:", messageArgument(50), {}).has_value());
  EXPECT_TRUE(service.call("m:", messageArgument(50), {}).has_value());  // exactly the limit
  EXPECT_EQ(service.pendingOutput(), 100U);
  EXPECT_FALSE(service.closed());
  service.wrote(50);  // the peer read one of them: room for one more
  EXPECT_TRUE(service.call("m:", messageArgument(50), {}).has_value());
  EXPECT_EQ(service.pendingOutput(), 100U);
  EXPECT_FALSE(service.closed());

  // One frame more would go past it: the peer does not read, and the session gives up on it.
  EXPECT_EQ(service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1)),
            std::nullopt);
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::limitExceeded);
  EXPECT_THAT(service.closeDetail(), HasSubstr("does not read"));
  EXPECT_EQ(service.pendingOutput(), 0U);
  EXPECT_THAT(recorder.take(service),
              ElementsAre("#1 " + failed("limitExceeded", service.closeDetail())));
  EXPECT_EQ(recorder.runs(1), 1);
}

TEST(SessionBounds, AFrameGoingPastTheOutputLimitClosesEvenIfTheLimitWasNotYetReached) {
  SessionLimits limits;
  limits.maxQueuedOutgoingBytes = 100;
  Session service(Role::service, limits);
  openService(service);
  EXPECT_TRUE(service.call("m:", messageArgument(60), {}).has_value());
  // 120 bytes would wait: a MESSAGE that cannot be queued is reported as not sent.
  EXPECT_EQ(service.call("m:", messageArgument(60), {}), std::nullopt);
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::limitExceeded);
}

TEST(SessionBounds, OneFrameLargerThanTheOutputLimitFitsWhenNothingWaits) {
  SessionLimits limits;
  limits.maxQueuedOutgoingBytes = 100;
  Session service(Role::service, limits);
  openService(service);
  feed(service, callFrame(1, "big:", std::nullopt));
  service.answer(1, Bytes(std::string(500, 'r')), {});
  EXPECT_FALSE(service.closed());
  EXPECT_EQ(service.pendingOutput(), frameHeaderSize + 500);

  feed(service, callFrame(2, "small:", std::nullopt));
  service.answer(2, Bytes(), {});
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::limitExceeded);
}

// ---- the peer ends its stream -------------------------------------------------------------------

TEST(SessionHalfClose, AServiceAnswersWhatItWasSentThenCloses) {
  Recorder recorder;
  Session service(Role::service, {});
  openService(service);
  service.call("ask:", Bytes(std::string_view("q")), recorder.completion(1));
  service.call("ask:", Bytes(std::string_view("q")), recorder.completion(2));
  service.call("tell:", Bytes(std::string_view("t")), {});
  service.call("ask:", Bytes(std::string_view("q")), recorder.completion(3));
  feed(service, joined({callFrame(1, "a:", "x"), callFrame(2, "b:", "y")}));
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 1 a: 'x'", "CALL 2 b: 'y'"));

  service.receivedEnd();
  EXPECT_FALSE(service.wantsInput());
  EXPECT_FALSE(service.closed());
  // Nothing can answer the calls we made to it any more: they fail at once, in order.
  const std::string hungUp = failed("interrupted", "the peer hung up");
  EXPECT_THAT(recorder.take(service), ElementsAre("#1 " + hungUp, "#2 " + hungUp, "#3 " + hungUp));
  EXPECT_EQ(service.callsInFlight(), 0U);

  service.answer(2, Bytes(std::string_view("two")), {});
  EXPECT_THAT(written(service),
              ElementsAre("CALL 1 ask: 'q'", "CALL 2 ask: 'q'", "MESSAGE 3 tell: 't'",
                          "CALL 4 ask: 'q'", "REPLY 2 'two'"));
  EXPECT_FALSE(service.closed()) << "CALL 1 is still being handled";

  service.answer(1, std::nullopt, "no reply");
  EXPECT_FALSE(service.closed()) << "its FAULT is not written yet";
  EXPECT_THAT(written(service, 3), ElementsAre("FAULT 1 'no reply'"));
  ASSERT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::peerLost);
  EXPECT_THAT(recorder.take(service), IsEmpty());
  for (int id = 1; id <= 3; ++id) EXPECT_EQ(recorder.runs(id), 1) << "call " << id;
}

TEST(SessionHalfClose, CallsHeldBehindTheLimitAndMessagesInFlightAreStillServed) {
  Recorder recorder;
  Session service(Role::service, callsInFlight(1));
  openService(service);
  feed(service, joined({messageFrame(1, "a:", "1"), callFrame(2, "b:", "2")}));
  service.receivedEnd();
  EXPECT_THAT(recorder.take(service), ElementsAre("MESSAGE 1 a: '1'"));

  service.messageHandled();
  EXPECT_THAT(recorder.take(service), ElementsAre("CALL 2 b: '2'"));
  EXPECT_FALSE(service.closed());
  service.answer(2, Bytes(std::string_view("r")), {});
  EXPECT_FALSE(service.closed());
  EXPECT_THAT(written(service), ElementsAre("REPLY 2 'r'"));
  EXPECT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::peerLost);
}

TEST(SessionHalfClose, AServiceWithNothingLeftToDoClosesAtOnce) {
  Session service(Role::service, {});
  openService(service);
  feed(service, messageFrame(1, "a:", "1"));
  service.messageHandled();
  service.receivedEnd();
  EXPECT_TRUE(service.closed());
  EXPECT_EQ(service.closeReason(), CloseReason::peerLost);

  // Before the HELLO exchange there is nothing to finish.
  Session early(Role::service, {});
  const Wire hello = helloFrame();
  feed(early, std::span(hello).first(5));
  early.receivedEnd();
  ASSERT_TRUE(early.closed());
  EXPECT_EQ(early.closeReason(), CloseReason::peerLost);
  EXPECT_EQ(early.closeDetail(), "the peer hung up inside a frame");
}

TEST(SessionHalfClose, AClientHasLostItsServiceAndSaysWhetherAFrameWasCutShort) {
  for (const bool insideFrame : {false, true}) {
    SCOPED_TRACE(insideFrame ? "inside a frame" : "between frames");
    Recorder recorder;
    Session client(Role::client, {});
    openClient(client);
    client.call("op:", std::nullopt, recorder.completion(1));
    client.call("op:", std::nullopt, recorder.completion(2));
    if (insideFrame) {
      const Wire reply = replyFrame(1, "x");
      feed(client, std::span(reply).first(reply.size() - 1));
    }
    client.receivedEnd();
    ASSERT_TRUE(client.closed());
    EXPECT_FALSE(client.wantsInput());
    EXPECT_EQ(client.closeReason(), CloseReason::peerLost);
    const std::string detail = insideFrame ? "the peer hung up inside a frame" : "the peer hung up";
    EXPECT_EQ(client.closeDetail(), detail);
    EXPECT_THAT(recorder.take(client), ElementsAre("#1 " + failed("interrupted", detail),
                                                   "#2 " + failed("interrupted", detail)));
  }
}

// ---- the shared receive budget ------------------------------------------------------------------

constexpr std::size_t allowance = std::size_t{16} * 1024;  // a session's own, before the budget
constexpr std::size_t budgetBytes = std::size_t{1024} * 1024;
constexpr std::size_t largeFrame = std::size_t{8} * 1024 * 1024;

TEST(SessionReceiveBudget, PartlyReceivedFramesDrawOnItBeyondEachSessionsAllowance) {
  auto budget = std::make_shared<ReceiveBudget>(budgetBytes);
  auto first = std::make_unique<Session>(Role::service, SessionLimits{}, budget);
  Recorder recorder;
  Session second(Role::service, SessionLimits{}, budget);
  openService(*first);
  openService(second);
  second.call("ask:", Bytes(std::string_view("q")), recorder.completion(1));

  const Wire big = partialCall(1, largeFrame, allowance + 400'000);
  feed(*first, std::span(big).first(allowance));
  EXPECT_EQ(budget->left(), budgetBytes) << "within the session's own allowance";
  feed(*first, std::span(big).subspan(allowance, 1));
  EXPECT_EQ(budget->left(), budgetBytes - 1);
  feed(*first, std::span(big).subspan(allowance + 1));
  EXPECT_EQ(budget->left(), budgetBytes - 400'000);
  EXPECT_FALSE(first->closed());

  // The other session would need more than is left: it alone closes, and takes nothing.
  feed(second, partialCall(1, largeFrame, allowance + 700'000));
  ASSERT_TRUE(second.closed());
  EXPECT_EQ(second.closeReason(), CloseReason::limitExceeded);
  EXPECT_THAT(second.closeDetail(), HasSubstr("partly received"));
  EXPECT_THAT(recorder.take(second),
              ElementsAre("#1 " + failed("limitExceeded", second.closeDetail())));
  EXPECT_FALSE(first->closed());
  EXPECT_EQ(budget->left(), budgetBytes - 400'000);

  first.reset();
  EXPECT_EQ(budget->left(), budgetBytes);
}

TEST(SessionReceiveBudget, ACompletedFrameGivesItsBytesBack) {
  auto budget = std::make_shared<ReceiveBudget>(budgetBytes);
  Recorder recorder;
  Session service(Role::service, SessionLimits{}, budget);
  openService(service);
  const std::string argument(300'000, 'a');
  const Wire frame = joined({callFrame(1, "op:", argument), callFrame(2, "next:", "n")});
  const std::size_t firstFrame = frame.size() - callFrame(2, "next:", "n").size();

  feed(service, std::span(frame).first(firstFrame - 10));
  EXPECT_EQ(budget->left(), budgetBytes - (firstFrame - 10 - allowance));
  feed(service, std::span(frame).subspan(firstFrame - 10, 20));  // the rest, and part of CALL 2
  EXPECT_EQ(budget->left(), budgetBytes);
  feed(service, std::span(frame).subspan(firstFrame + 10));
  const auto log = recorder.take(service);
  ASSERT_EQ(log.size(), 2U);
  EXPECT_EQ(log[0], fmt::format("CALL 1 op: '{}'", argument));
  EXPECT_EQ(log[1], "CALL 2 next: 'n'");
  EXPECT_EQ(budget->left(), budgetBytes);
}

// Sessions may live on after they closed (their owner's objects are shared): what they buffered
// of a frame that will never complete must not stay drawn from the budget meanwhile.
TEST(SessionReceiveBudget, ASessionThatStopsReadingGivesItsBytesBackAtOnce) {
  struct Case {
    const char* what;
    bool helloFirst;
    void (*end)(Session&);
    bool closes;
  };
  const std::array cases{
      Case{"peer hung up before its HELLO", false, [](Session& s) { s.receivedEnd(); }, true},
      Case{"peer ended its stream", true, [](Session& s) { s.receivedEnd(); }, false},
      Case{"closed by its owner", true,
           [](Session& s) { s.close(CloseReason::invalidated, "bye"); }, true},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.what);
    auto budget = std::make_shared<ReceiveBudget>(budgetBytes);
    Session service(Role::service, SessionLimits{}, budget);
    if (testCase.helloFirst) {
      openService(service);
      feed(service, callFrame(1, "a:", "x"));  // still being handled: the session stays open
      feed(service, partialCall(2, largeFrame, allowance + 1000));
    } else {
      Wire hello;
      encodeFrameHeader(hello, FrameKind::hello, 0, {}, true, largeFrame);
      hello.resize(allowance + 1000);
      feed(service, hello);
    }
    EXPECT_EQ(budget->left(), budgetBytes - 1000);
    testCase.end(service);
    EXPECT_EQ(service.closed(), testCase.closes);
    EXPECT_EQ(budget->left(), budgetBytes);
  }
}

TEST(SessionReceiveBudget, TakesOnlyWhatIsLeft) {
  ReceiveBudget budget(10);
  EXPECT_TRUE(budget.take(4));
  EXPECT_FALSE(budget.take(7));
  EXPECT_EQ(budget.left(), 6U);
  EXPECT_TRUE(budget.take(6));
  EXPECT_EQ(budget.left(), 0U);
  budget.give(3);
  EXPECT_EQ(budget.left(), 3U);
}

// ---- output -------------------------------------------------------------------------------------

TEST(SessionOutput, PartialWritesResumeWhereTheyStopped) {
  const Wire expected =
      joined({helloFrame(), callFrame(1, "echo:reply:", "[1,2,3]"),
              callFrame(2, "keys:", std::nullopt), messageFrame(3, "note:", std::string(40, 'n'))});
  for (const std::size_t chunk :
       {std::size_t{1}, std::size_t{5}, std::size_t{17}, expected.size()}) {
    SCOPED_TRACE(chunk);
    Session client(Role::client, {});
    client.call("echo:reply:", Bytes(std::string_view("[1,2,3]")), [](CallResult) {});
    client.call("keys:", std::nullopt, [](CallResult) {});
    // Queued while the first bytes are already out.
    std::array<std::span<const std::byte>, 1> first;
    ASSERT_EQ(client.gatherOutput(first), 1U);
    Wire out(first[0].begin(), first[0].begin() + 3);
    client.wrote(3);
    client.call("note:", Bytes(std::string(40, 'n')), {});
    const Wire rest = drain(client, chunk);
    out.insert(out.end(), rest.begin(), rest.end());
    EXPECT_EQ(out, expected);
  }
}

// ---- what may be dispatched to an exported object -----------------------------------------------

struct RefusalCase {
  const char* what;
  FrameKind kind;
  const char* name;
  std::optional<std::string_view> payload;
  std::optional<std::string> refusal;
};

void PrintTo(const RefusalCase& testCase, std::ostream* out) {
  *out << testCase.what;
}

class SessionRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(SessionRefusal, ChecksTheOperationAndItsShape) {
  const auto& param = GetParam();
  const InterfaceDescription interface("Example",
                                       {Operation{"echo:reply:", OperationShape::argumentAndReply},
                                        Operation{"keys:", OperationShape::replyOnly},
                                        Operation{"handleMessages:", OperationShape::oneWay}});
  Frame frame{param.kind, 1, param.name, std::nullopt};
  if (param.payload) frame.payload.emplace(*param.payload);
  EXPECT_EQ(refusal(&interface, frame), param.refusal);
  EXPECT_EQ(refusal(nullptr, frame), std::nullopt) << "without an interface anything goes";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SessionRefusal,
    testing::Values(
        RefusalCase{"callWithArgument", FrameKind::call, "echo:reply:", "[1]", std::nullopt},
        RefusalCase{"callWithEmptyArgument", FrameKind::call, "echo:reply:", "", std::nullopt},
        RefusalCase{"callWithoutArgument", FrameKind::call, "echo:reply:", std::nullopt,
                    "shape mismatch for echo:reply: (argument and reply)"},
        RefusalCase{"replyOnly", FrameKind::call, "keys:", std::nullopt, std::nullopt},
        RefusalCase{"replyOnlyWithArgument", FrameKind::call, "keys:", "",
                    "shape mismatch for keys: (reply only)"},
        RefusalCase{"message", FrameKind::message, "handleMessages:", "m", std::nullopt},
        RefusalCase{"messageWithoutArgument", FrameKind::message, "handleMessages:", std::nullopt,
                    "shape mismatch for handleMessages: (one-way)"},
        RefusalCase{"oneWayCalled", FrameKind::call, "handleMessages:", "m",
                    "shape mismatch for handleMessages: (one-way)"},
        RefusalCase{"messageToACall", FrameKind::message, "echo:reply:", "[1]",
                    "shape mismatch for echo:reply: (argument and reply)"},
        RefusalCase{"unknownCall", FrameKind::call, "nothing:reply:", "[]",
                    "unknown operation nothing:reply:"},
        RefusalCase{"unknownMessage", FrameKind::message, "nothing:", "[]",
                    "unknown operation nothing:"}),
    [](const auto& testCase) { return std::string(testCase.param.what); });

}  // namespace
}  // namespace corvane::ipc::detail
