#include <corvane/ipc/FrameDecoder.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace corvane::ipc {

namespace {

std::uint64_t getBigEndian(const std::byte* in, std::size_t width) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value = (value << 8U) | std::to_integer<std::uint64_t>(in[i]);
  return value;
}

/// A buffer holding this much or less is not shrunk for the bytes left behind a frame taken.
constexpr std::size_t smallBuffer = std::size_t{64} * 1024;

}  // namespace

void FrameDecoder::Free::operator()(std::byte* bytes) const noexcept {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory): from realloc
  std::free(bytes);
}

FrameDecoder::FrameDecoder(std::uint32_t maxLength) noexcept
    : maxLength_(std::min(maxLength, maxFrameLength)) {}

FrameDecoder::FrameDecoder(FrameDecoder&& other) noexcept
    : buffer_(std::move(other.buffer_)),
      capacity_(std::exchange(other.capacity_, 0)),
      start_(std::exchange(other.start_, 0)),
      end_(std::exchange(other.end_, 0)),
      maxLength_(other.maxLength_),
      violation_(std::move(other.violation_)) {}

FrameDecoder& FrameDecoder::operator=(FrameDecoder&& other) noexcept {
  buffer_ = std::move(other.buffer_);
  capacity_ = std::exchange(other.capacity_, 0);
  start_ = std::exchange(other.start_, 0);
  end_ = std::exchange(other.end_, 0);
  maxLength_ = other.maxLength_;
  violation_ = std::move(other.violation_);
  return *this;
}

void FrameDecoder::feed(std::span<const std::byte> bytes) {
  if (bytes.empty()) return;
  auto room = prepare(bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  commit(bytes.size());
}

std::size_t FrameDecoder::missingBytes() const noexcept {
  const std::size_t available = end_ - start_;
  if (available < 4 || !violation_.empty()) return 0;
  const std::size_t total = 4 + static_cast<std::size_t>(getBigEndian(buffer_.get() + start_, 4));
  return total > available ? total - available : 0;
}

void FrameDecoder::reallocate(std::size_t capacity) {
  const std::size_t unread = end_ - start_;
  if (start_ != 0 && unread > 0) std::memmove(buffer_.get(), buffer_.get() + start_, unread);
  start_ = 0;
  end_ = unread;
  if (capacity == capacity_) return;
  if (capacity == 0) {
    buffer_.reset();
    capacity_ = 0;
    return;
  }
  // realloc, not a new buffer and a copy: a large block is remapped in place, so growing a
  // partly received frame never holds it twice, and nothing is zeroed.
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
  auto* grown = static_cast<std::byte*>(std::realloc(buffer_.get(), capacity));
  if (grown == nullptr) throw std::bad_alloc();
  (void)buffer_.release();
  buffer_.reset(grown);
  capacity_ = capacity;
}

std::span<std::byte> FrameDecoder::prepare(std::size_t size) {
  if (capacity_ - end_ < size) {
    const std::size_t needed = end_ - start_ + size;
    std::size_t capacity = capacity_;
    if (needed > capacity_) {
      // A quarter more at a time, but never past the announced end of the frame being received:
      // what is held stays close to what arrived, whatever a client announces.
      capacity = std::max(needed, capacity_ + capacity_ / 4);
      if (const std::size_t missing = missingBytes(); missing > 0) {
        const std::size_t frameEnd = end_ - start_ + missing;
        if (frameEnd >= needed) capacity = std::min(capacity, frameEnd);
      }
    }
    reallocate(capacity);
  }
  return {buffer_.get() + end_, size};
}

void FrameDecoder::commit(std::size_t size) noexcept {
  end_ = std::min(end_ + size, capacity_);
}

void FrameDecoder::release() noexcept {
  buffer_.reset();
  capacity_ = start_ = end_ = 0;
}

FrameDecoder::Status FrameDecoder::fail(std::string reason) {
  violation_ = std::move(reason);
  return Status::violation;
}

FrameDecoder::Status FrameDecoder::next(Frame& frame) {
  if (!violation_.empty()) return Status::violation;
  const std::size_t available = end_ - start_;
  const std::byte* p = buffer_.get() + start_;
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
  // The buffer goes back once its frames are taken, or shrinks when a large one leaves little.
  const std::size_t unread = end_ - start_;
  if (unread == 0) {
    release();
  } else if (capacity_ > smallBuffer && capacity_ / 4 > unread) {
    try {
      reallocate(unread);
    } catch (const std::bad_alloc&) {
      // Shrinking failed: the larger buffer serves as well.
    }
  }
  return Status::frame;
}

}  // namespace corvane::ipc
