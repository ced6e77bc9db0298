#pragma once

#include <corvane/base/Bytes.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::ipc {

/// What a frame is for; the numbers are the wire values.
enum class FrameKind : std::uint8_t { hello = 1, call = 2, reply = 3, fault = 4, message = 5 };

/// "HELLO", "CALL", ... ("UNKNOWN" for a value outside the enumeration).
[[nodiscard]] std::string_view toString(FrameKind kind) noexcept;

/// Largest value of a frame's length field: the bytes that follow the field.
inline constexpr std::uint32_t maxFrameLength = 64U * 1024U * 1024U;
/// Bytes of the fixed part of a frame: length(4) kind(1) flags(1) nameLength(2) serial(8).
inline constexpr std::size_t frameHeaderSize = 16;
/// The fixed part that the length field counts.
inline constexpr std::uint32_t frameFixedLength = 12;
/// Flag bit 0: a payload follows the name.
inline constexpr std::uint8_t payloadPresentFlag = 0x01;
/// The protocol version this library speaks, and the payload of its HELLO.
inline constexpr std::int64_t protocolVersion = 1;
inline constexpr std::string_view helloPayload = R"({"protocol":1})";
/// Longest resume token a HELLO may carry (bytes, before hex coding); a longer one is ignored.
inline constexpr std::size_t maxResumeTokenSize = 128;

/// A client's HELLO payload: the protocol version and, when `resumeToken` is not empty, the token
/// as lower-case hex under "resume". Throws std::invalid_argument for a token longer than
/// `maxResumeTokenSize`.
[[nodiscard]] std::string helloPayloadWith(std::string_view resumeToken);
/// The resume token of a HELLO payload: empty when there is none, or when it is not a string of
/// hex digit pairs of at most `maxResumeTokenSize` bytes.
[[nodiscard]] std::string resumeTokenOf(std::string_view hello);

/// One decoded (or to be encoded) frame.
struct Frame {
  FrameKind kind = FrameKind::hello;
  std::uint64_t serial = 0;
  std::string name;              ///< operation name; CALL and MESSAGE only
  std::optional<Bytes> payload;  ///< present exactly when flag bit 0 is set
};

/// Whether `kind` carries an operation name (CALL and MESSAGE).
[[nodiscard]] constexpr bool carriesName(FrameKind kind) noexcept {
  return kind == FrameKind::call || kind == FrameKind::message;
}

/// Whether `name` may appear on the wire as an operation name: 1 to 65535 printable ASCII
/// characters (0x21 to 0x7E).
[[nodiscard]] bool isValidOperationName(std::string_view name) noexcept;

/// Writes the fixed part and the name of a frame whose payload (if any) is `payloadSize` bytes
/// long into `out` (replacing its contents). The payload itself is not copied, so a sender can
/// gather header and payload without joining them.
/// Throws std::invalid_argument for a name on a kind that carries none, a missing or invalid name
/// on CALL/MESSAGE, or a frame longer than `maxFrameLength`.
void encodeFrameHeader(std::vector<std::byte>& out, FrameKind kind, std::uint64_t serial,
                       std::string_view name, bool hasPayload, std::size_t payloadSize);

/// The whole frame as one buffer. Throws like `encodeFrameHeader`.
[[nodiscard]] std::vector<std::byte> encodeFrame(const Frame& frame);

}  // namespace corvane::ipc
