#include <corvane/ipc/FrameDecoder.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace corvane::ipc {

namespace {

std::uint64_t getBigEndian(const std::byte* in, std::size_t width) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value = (value << 8U) | std::to_integer<std::uint64_t>(in[i]);
  return value;
}

}  // namespace

FrameDecoder::FrameDecoder(std::uint32_t maxLength) noexcept
    : maxLength_(std::min(maxLength, maxFrameLength)) {}

void FrameDecoder::feed(std::span<const std::byte> bytes) {
  auto room = prepare(bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  commit(bytes.size());
}

std::span<std::byte> FrameDecoder::prepare(std::size_t size) {
  // Move the unread tail to the front before growing, so the buffer stays about one frame large.
  if (start_ != 0 && (start_ == end_ || buffer_.size() - end_ < size)) {
    std::memmove(buffer_.data(), buffer_.data() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
  }
  if (buffer_.size() - end_ < size) buffer_.resize(end_ + size);
  return {buffer_.data() + end_, size};
}

void FrameDecoder::commit(std::size_t size) noexcept {
  end_ = std::min(end_ + size, buffer_.size());
}

FrameDecoder::Status FrameDecoder::fail(std::string reason) {
  violation_ = std::move(reason);
  return Status::violation;
}

FrameDecoder::Status FrameDecoder::next(Frame& frame) {
  if (!violation_.empty()) return Status::violation;
  const std::size_t available = end_ - start_;
  const std::byte* p = buffer_.data() + start_;
  if (available < 4) return Status::needMore;
  const auto length = getBigEndian(p, 4);
  if (length < frameFixedLength) return fail("frame length below the fixed header size");
  if (length > maxLength_) return fail("frame length above the size limit");
  // Check the fixed part as soon as it is in, so a bad header is refused without its body.
  if (available < frameHeaderSize) return Status::needMore;
  const auto rawKind = std::to_integer<std::uint8_t>(p[4]);
  const auto flags = std::to_integer<std::uint8_t>(p[5]);
  const auto nameLength = getBigEndian(p + 6, 2);
  const auto serial = getBigEndian(p + 8, 8);
  if (rawKind < 1 || rawKind > 5) return fail("unknown frame kind " + std::to_string(rawKind));
  const auto kind = static_cast<FrameKind>(rawKind);
  if ((flags & ~payloadPresentFlag) != 0) return fail("reserved flag bits set");
  const bool hasPayload = (flags & payloadPresentFlag) != 0;
  if (nameLength > length - frameFixedLength) return fail("name length beyond the frame");
  if (carriesName(kind) && nameLength == 0)
    return fail("CALL or MESSAGE without an operation name");
  if (!carriesName(kind) && nameLength != 0) {
    return fail(std::string(toString(kind)) + " frame with an operation name");
  }
  if (!hasPayload && nameLength != length - frameFixedLength) {
    return fail("bytes after the name without the payload flag");
  }
  const std::size_t total = 4 + static_cast<std::size_t>(length);
  if (available < total) return Status::needMore;

  const char* name = reinterpret_cast<const char*>(p + frameHeaderSize);  // NOLINT: byte view
  std::string_view nameView(name, static_cast<std::size_t>(nameLength));
  if (!nameView.empty() && !isValidOperationName(nameView)) {
    return fail("operation name is not printable ASCII");
  }
  frame.kind = kind;
  frame.serial = serial;
  frame.name.assign(nameView);
  if (hasPayload) {
    const std::byte* payload = p + frameHeaderSize + nameLength;
    frame.payload.emplace(
        std::span<const std::byte>(payload, total - frameHeaderSize - nameLength));
  } else {
    frame.payload.reset();
  }
  start_ += total;
  return Status::frame;
}

}  // namespace corvane::ipc
