#pragma once

#include <corvane/ipc/Frame.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace corvane::ipc {

/// Incremental frame decoder: bytes go in, in any split, frames come out. It knows nothing about
/// sockets, so the same code serves the connection, the tests and the fuzzer.
///
/// A frame that breaks the wire rules (length out of range, unknown kind, reserved flag bits,
/// name length beyond the frame, a name on a kind without one, a missing or non-ASCII name, bytes
/// after the name without the payload flag) is a protocol violation. A violation is detected as
/// soon as the offending header bytes are in (an oversized length is refused before its body
/// arrives) and is final: every later `next` reports it again. Not thread-safe; one owner.
///
/// Memory follows what arrived: nothing is allocated before the first byte, nothing is zeroed,
/// a partly received frame grows its buffer by a quarter at a time (never past the frame's
/// announced end), so what is held stays within 1.25 times what is buffered; the buffer goes
/// back once its frames are taken, or with `release`.
class FrameDecoder {
 public:
  enum class Status { needMore, frame, violation };

  explicit FrameDecoder(std::uint32_t maxLength = maxFrameLength) noexcept;
  ~FrameDecoder() = default;
  FrameDecoder(FrameDecoder&& other) noexcept;
  FrameDecoder& operator=(FrameDecoder&& other) noexcept;
  FrameDecoder(const FrameDecoder&) = delete;
  FrameDecoder& operator=(const FrameDecoder&) = delete;

  /// Appends received bytes (copied).
  void feed(std::span<const std::byte> bytes);
  /// Room for exactly `size` more bytes, to receive into directly; follow with `commit`.
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
  /// Bytes still missing of the frame whose length is in (0 when no such frame is begun).
  [[nodiscard]] std::size_t missingBytes() const noexcept;
  /// Bytes of memory the buffer holds.
  [[nodiscard]] std::size_t capacity() const noexcept { return capacity_; }
  /// Drops whatever is buffered and gives its memory back (the stream has ended).
  void release() noexcept;

 private:
  struct Free {
    void operator()(std::byte* bytes) const noexcept;
  };

  Status fail(std::string reason);
  /// Moves the unread bytes to the front of a buffer of `capacity` bytes (at least as many).
  void reallocate(std::size_t capacity);

  std::unique_ptr<std::byte, Free> buffer_;
  std::size_t capacity_ = 0;
  std::size_t start_ = 0;
  std::size_t end_ = 0;
  std::uint32_t maxLength_;
  std::string violation_;
};

}  // namespace corvane::ipc
