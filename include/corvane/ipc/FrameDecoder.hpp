#pragma once

#include <corvane/ipc/Frame.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::ipc {

/// Incremental frame decoder: bytes go in, in any split, frames come out. It knows nothing about
/// sockets, so the same code serves the connection, the tests and the fuzzer.
///
/// A frame that breaks the wire rules (length out of range, unknown kind, reserved flag bits,
/// name length beyond the frame, a name on a kind without one, a missing or non-ASCII name, bytes
/// after the name without the payload flag) is a protocol violation. A violation is detected as
/// soon as the offending header bytes are in (an oversized length is refused before its body
/// arrives) and is final: every later `next` reports it again. Not thread-safe; one owner.
class FrameDecoder {
 public:
  enum class Status { needMore, frame, violation };

  explicit FrameDecoder(std::uint32_t maxLength = maxFrameLength) noexcept;

  /// Appends received bytes (copied).
  void feed(std::span<const std::byte> bytes);
  /// Room for at least `size` more bytes, to receive into directly; follow with `commit`.
  [[nodiscard]] std::span<std::byte> prepare(std::size_t size);
  /// Marks `size` bytes of the last `prepare` as received.
  void commit(std::size_t size) noexcept;

  /// Takes the next complete frame into `frame`, or says that more bytes are needed, or that the
  /// stream broke the protocol (see `violation()`). Never throws for any input.
  [[nodiscard]] Status next(Frame& frame);

  /// What the violation was; empty while there is none.
  [[nodiscard]] const std::string& violation() const noexcept { return violation_; }
  /// Bytes received but not yet taken as frames.
  [[nodiscard]] std::size_t bufferedBytes() const noexcept { return end_ - start_; }

 private:
  Status fail(std::string reason);

  std::vector<std::byte> buffer_;
  std::size_t start_ = 0;
  std::size_t end_ = 0;
  std::uint32_t maxLength_;
  std::string violation_;
};

}  // namespace corvane::ipc
