#include <corvane/ipc/Frame.hpp>

#include <stdexcept>

namespace corvane::ipc {

namespace {

void putBigEndian(std::byte* out, std::uint64_t value, std::size_t width) noexcept {
  for (std::size_t i = 0; i < width; ++i) {
    out[width - 1 - i] = static_cast<std::byte>(value & 0xFFU);
    value >>= 8U;
  }
}

}  // namespace

std::string_view toString(FrameKind kind) noexcept {
  switch (kind) {
    case FrameKind::hello:
      return "HELLO";
    case FrameKind::call:
      return "CALL";
    case FrameKind::reply:
      return "REPLY";
    case FrameKind::fault:
      return "FAULT";
    case FrameKind::message:
      return "MESSAGE";
  }
  return "UNKNOWN";
}

bool isValidOperationName(std::string_view name) noexcept {
  if (name.empty() || name.size() > 0xFFFFU) return false;
  for (const char c : name) {
    if (c < '!' || c > '~') return false;
  }
  return true;
}

void encodeFrameHeader(std::vector<std::byte>& out, FrameKind kind, std::uint64_t serial,
                       std::string_view name, bool hasPayload, std::size_t payloadSize) {
  if (carriesName(kind)) {
    if (!isValidOperationName(name)) {
      throw std::invalid_argument("operation name must be 1 to 65535 printable ASCII characters");
    }
  } else if (!name.empty()) {
    throw std::invalid_argument(std::string("a ") + std::string(toString(kind))
                                + " frame carries no operation name");
  }
  if (!hasPayload && payloadSize != 0) {
    throw std::invalid_argument("payload bytes given without a payload");
  }
  const std::size_t length = frameFixedLength + name.size() + payloadSize;
  if (length > maxFrameLength) {
    throw std::invalid_argument("frame exceeds the 64 MiB limit");
  }
  out.resize(frameHeaderSize + name.size());
  std::byte* p = out.data();
  putBigEndian(p, length, 4);
  p[4] = static_cast<std::byte>(kind);
  p[5] = hasPayload ? std::byte{payloadPresentFlag} : std::byte{0};
  putBigEndian(p + 6, name.size(), 2);
  putBigEndian(p + 8, serial, 8);
  for (std::size_t i = 0; i < name.size(); ++i) p[frameHeaderSize + i] = std::byte(name[i]);
}

std::vector<std::byte> encodeFrame(const Frame& frame) {
  std::vector<std::byte> out;
  const std::size_t payloadSize = frame.payload ? frame.payload->size() : 0;
  encodeFrameHeader(out, frame.kind, frame.serial, frame.name, frame.payload.has_value(),
                    payloadSize);
  if (frame.payload)
    out.insert(out.end(), frame.payload->span().begin(), frame.payload->span().end());
  return out;
}

}  // namespace corvane::ipc
