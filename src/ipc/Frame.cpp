#include <corvane/ipc/Frame.hpp>

#include <boost/json/parse.hpp>

#include <stdexcept>
#include <string>

namespace corvane::ipc {

namespace {

void putBigEndian(std::byte* out, std::uint64_t value, std::size_t width) noexcept {
  for (std::size_t i = 0; i < width; ++i) {
    out[width - 1 - i] = static_cast<std::byte>(value & 0xFFU);
    value >>= 8U;
  }
}

constexpr std::string_view hexDigits = "0123456789abcdef";

int hexValue(char digit) noexcept {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

std::string helloPayloadWith(std::string_view resumeToken) {
  if (resumeToken.empty()) return std::string(helloPayload);
  if (resumeToken.size() > maxResumeTokenSize)
    throw std::invalid_argument("resume token longer than " + std::to_string(maxResumeTokenSize)
                                + " bytes");
  // Hex keeps the token opaque: any bytes, and the payload stays plain ASCII JSON.
  std::string payload = R"({"protocol":1,"resume":")";
  for (const char c : resumeToken) {
    const auto byte = static_cast<unsigned char>(c);
    payload += hexDigits[byte >> 4U];
    payload += hexDigits[byte & 0xFU];
  }
  payload += "\"}";
  return payload;
}

std::string resumeTokenOf(std::string_view hello) {
  boost::system::error_code error;
  const auto document = boost::json::parse(hello, error);
  if (error || !document.is_object()) return {};
  const auto* field = document.as_object().if_contains("resume");
  if (field == nullptr || !field->is_string()) return {};
  const auto& hex = field->as_string();
  if (hex.size() % 2 != 0 || hex.size() > 2 * maxResumeTokenSize) return {};
  std::string token;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int high = hexValue(hex[i]);
    const int low = hexValue(hex[i + 1]);
    if (high < 0 || low < 0) return {};
    token += static_cast<char>((high << 4) | low);
  }
  return token;
}

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
