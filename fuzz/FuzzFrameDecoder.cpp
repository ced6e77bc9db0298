// Feeds arbitrary bytes, cut at arbitrary points, to the incremental frame decoder, and checks
// that what it accepts re-encodes to the same bytes and that a violation is final.

#include <corvane/ipc/FrameDecoder.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  // The first byte picks the split pattern; the rest is the stream.
  const std::uint8_t pattern = data[0];
  const std::span<const std::byte> stream(reinterpret_cast<const std::byte*>(data + 1), size - 1);

  corvane::ipc::FrameDecoder decoder(1U << 20U);
  std::size_t offset = 0;
  std::size_t consumed = 0;
  std::size_t step = 0;
  bool violated = false;
  while (offset < stream.size()) {
    const std::size_t chunk = std::min<std::size_t>(stream.size() - offset,
                                                    1 + ((pattern >> (step++ % 8U)) & 0x1FU) * 3U);
    decoder.feed(stream.subspan(offset, chunk));
    offset += chunk;
    corvane::ipc::Frame frame;
    for (;;) {
      const auto status = decoder.next(frame);
      if (status == corvane::ipc::FrameDecoder::Status::needMore) break;
      if (status == corvane::ipc::FrameDecoder::Status::violation) {
        if (decoder.violation().empty()) std::abort();
        violated = true;
        break;
      }
      if (violated) std::abort();  // nothing may come out after a violation
      const auto encoded = corvane::ipc::encodeFrame(frame);
      if (encoded.size() > stream.size() - consumed) std::abort();
      for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != stream[consumed + i]) std::abort();  // decoding must be exact
      }
      consumed += encoded.size();
    }
    if (violated) {
      if (decoder.next(frame) != corvane::ipc::FrameDecoder::Status::violation) std::abort();
      break;
    }
  }
  return 0;
}
