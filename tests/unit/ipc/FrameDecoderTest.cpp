#include <corvane/ipc/FrameDecoder.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace corvane::ipc {
namespace {

std::vector<std::byte> bytesOf(std::initializer_list<unsigned> values) {
  std::vector<std::byte> out;
  for (auto v : values) out.push_back(static_cast<std::byte>(v));
  return out;
}

std::vector<std::byte> bytesOf(std::string_view text) {
  return Bytes(text).release();
}

Frame makeFrame(FrameKind kind, std::uint64_t serial, std::string name,
                std::optional<std::string_view> payload) {
  Frame frame{kind, serial, std::move(name), std::nullopt};
  if (payload) frame.payload.emplace(*payload);
  return frame;
}

TEST(FrameCodec, CallMatchesTheDocumentedBytes) {
  const auto encoded = encodeFrame(makeFrame(FrameKind::call, 1, "echo:reply:", R"(["hi"])"));
  auto expected = bytesOf({0, 0, 0, 0x1d, 2, 1, 0, 0x0b, 0, 0, 0, 0, 0, 0, 0, 1});
  for (auto b : bytesOf(R"(echo:reply:["hi"])")) expected.push_back(b);
  EXPECT_EQ(encoded, expected);
}

TEST(FrameCodec, EncodingRefusesWhatTheWireForbids) {
  EXPECT_THROW((void)encodeFrame(makeFrame(FrameKind::reply, 1, "name", std::nullopt)),
               std::invalid_argument);
  EXPECT_THROW((void)encodeFrame(makeFrame(FrameKind::call, 1, "", std::nullopt)),
               std::invalid_argument);
  EXPECT_THROW((void)encodeFrame(makeFrame(FrameKind::message, 1, "has space", std::nullopt)),
               std::invalid_argument);
  std::vector<std::byte> header;
  EXPECT_THROW(encodeFrameHeader(header, FrameKind::reply, 1, {}, true, maxFrameLength),
               std::invalid_argument);
}

// Every kind, with and without payload, survives every split of the stream.
TEST(FrameDecoder, DecodesFramesInAnySplit) {
  const std::vector<Frame> frames = [] {
    std::vector<Frame> list;
    list.push_back(makeFrame(FrameKind::hello, 0, "", helloPayload));
    list.push_back(makeFrame(FrameKind::call, 1, "echo:reply:", "[1,2,3]"));
    list.push_back(makeFrame(FrameKind::call, 2, "currentDeclarationKeysWithReply:", std::nullopt));
    list.push_back(makeFrame(FrameKind::reply, 1, "", ""));
    list.push_back(makeFrame(FrameKind::reply, 2, "", std::nullopt));
    list.push_back(makeFrame(FrameKind::fault, 3, "", "unknown operation"));
    list.push_back(makeFrame(FrameKind::message, 4, "handleMessages:", std::string(70000, 'x')));
    return list;
  }();
  std::vector<std::byte> stream;
  for (const auto& frame : frames) {
    const auto encoded = encodeFrame(frame);
    stream.insert(stream.end(), encoded.begin(), encoded.end());
  }
  std::mt19937 random(7);
  for (const std::size_t maxChunk :
       {std::size_t{1}, std::size_t{3}, std::size_t{17}, stream.size()}) {
    FrameDecoder decoder;
    std::vector<Frame> decoded;
    for (std::size_t offset = 0; offset < stream.size();) {
      const std::size_t chunk =
          std::min<std::size_t>(stream.size() - offset, 1 + random() % maxChunk);
      decoder.feed(std::span(stream).subspan(offset, chunk));
      offset += chunk;
      Frame frame;
      FrameDecoder::Status status{};
      while ((status = decoder.next(frame)) == FrameDecoder::Status::frame)
        decoded.push_back(std::move(frame));
      ASSERT_EQ(status, FrameDecoder::Status::needMore) << decoder.violation();
    }
    ASSERT_EQ(decoded.size(), frames.size()) << "chunks up to " << maxChunk;
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(decoded[i].kind, frames[i].kind);
      EXPECT_EQ(decoded[i].serial, frames[i].serial);
      EXPECT_EQ(decoded[i].name, frames[i].name);
      EXPECT_EQ(decoded[i].payload, frames[i].payload) << i;
    }
    EXPECT_EQ(decoder.bufferedBytes(), 0U);
  }
}

struct ViolationCase {
  const char* what;
  std::vector<std::byte> bytes;
  const char* reason;
};

class FrameDecoderViolation : public testing::TestWithParam<ViolationCase> {};

TEST_P(FrameDecoderViolation, IsReportedFromTheHeaderAloneAndStays) {
  FrameDecoder decoder;
  decoder.feed(GetParam().bytes);
  Frame frame;
  ASSERT_EQ(decoder.next(frame), FrameDecoder::Status::violation);
  EXPECT_NE(decoder.violation().find(GetParam().reason), std::string::npos) << decoder.violation();
  decoder.feed(encodeFrame(makeFrame(FrameKind::reply, 1, "", "[]")));
  EXPECT_EQ(decoder.next(frame), FrameDecoder::Status::violation);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FrameDecoderViolation,
    testing::Values(
        ViolationCase{"short", bytesOf({0, 0, 0, 11}), "below"},
        ViolationCase{"oversized", bytesOf({0x04, 0, 0, 1}), "above the size limit"},
        ViolationCase{"kind0", bytesOf({0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "unknown frame kind"},
        ViolationCase{"kind6", bytesOf({0, 0, 0, 12, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "unknown frame kind"},
        ViolationCase{"flags", bytesOf({0, 0, 0, 12, 3, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "reserved flag"},
        ViolationCase{"nameBeyond", bytesOf({0, 0, 0, 13, 2, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "beyond"},
        ViolationCase{"nameOnReply", bytesOf({0, 0, 0, 13, 3, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "with an operation name"},
        ViolationCase{"callWithoutName", bytesOf({0, 0, 0, 12, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "without an operation name"},
        ViolationCase{"trailingBytes", bytesOf({0, 0, 0, 13, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
                      "without the payload flag"},
        ViolationCase{"nonAsciiName",
                      bytesOf({0, 0, 0, 13, 2, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0x80}), "ASCII"}),
    [](const auto& testCase) { return std::string(testCase.param.what); });

TEST(FrameDecoder, WaitsForTruncatedFramesAndHonoursASmallerLimit) {
  FrameDecoder decoder;
  const auto encoded = encodeFrame(makeFrame(FrameKind::call, 9, "op:", "xyz"));
  decoder.feed(std::span(encoded).first(encoded.size() - 1));
  Frame frame;
  EXPECT_EQ(decoder.next(frame), FrameDecoder::Status::needMore);
  EXPECT_EQ(decoder.bufferedBytes(), encoded.size() - 1);

  FrameDecoder small(20);
  small.feed(encodeFrame(makeFrame(FrameKind::reply, 1, "", "0123456789")));
  EXPECT_EQ(small.next(frame), FrameDecoder::Status::violation);
}

// The buffer was made 64 KiB and zeroed for every read, kept for the life of the connection, and
// a large frame grew it by doubling. It now holds close to what arrived and goes back once the
// frames are taken.
TEST(FrameDecoder, HoldsCloseToWhatArrivedAndGivesItBack) {
  FrameDecoder decoder;
  EXPECT_EQ(decoder.capacity(), 0U) << "nothing before the first byte";

  constexpr std::size_t payload = std::size_t{8} * 1024 * 1024;
  const auto encoded = encodeFrame(makeFrame(FrameKind::call, 1, "op:", std::string(payload, 'p')));
  const auto small = encodeFrame(makeFrame(FrameKind::call, 2, "next:", "n"));
  Frame frame;
  // The way a channel reads a large frame: the header through a copy, then a quarter of what is
  // buffered at a time, straight into the decoder.
  decoder.feed(std::span(encoded).first(4096));
  while (decoder.missingBytes() > 0) {
    const std::size_t at = decoder.bufferedBytes();
    const std::size_t size = std::min(decoder.missingBytes(), std::max<std::size_t>(65536, at / 4));
    auto room = decoder.prepare(size);
    std::copy_n(encoded.begin() + static_cast<std::ptrdiff_t>(at), size, room.begin());
    decoder.commit(size);
    ASSERT_LE(decoder.capacity(), decoder.bufferedBytes() + decoder.bufferedBytes() / 4 + 65536)
        << "at " << decoder.bufferedBytes() << " bytes";
  }
  EXPECT_EQ(decoder.capacity(), encoded.size()) << "never past the announced end";
  decoder.feed(std::span(small).first(5));
  ASSERT_EQ(decoder.next(frame), FrameDecoder::Status::frame);
  EXPECT_EQ(frame.payload->size(), payload);
  EXPECT_EQ(decoder.bufferedBytes(), 5U);
  EXPECT_LT(decoder.capacity(), std::size_t{4096}) << "a large buffer shrinks to what is left";

  decoder.feed(std::span(small).subspan(5));
  ASSERT_EQ(decoder.next(frame), FrameDecoder::Status::frame);
  EXPECT_EQ(frame.name, "next:");
  EXPECT_EQ(decoder.capacity(), 0U) << "drained: the buffer goes back";

  decoder.feed(std::span(encoded).first(100));
  decoder.release();
  EXPECT_EQ(decoder.capacity(), 0U);
  EXPECT_EQ(decoder.bufferedBytes(), 0U);
}

}  // namespace
}  // namespace corvane::ipc
