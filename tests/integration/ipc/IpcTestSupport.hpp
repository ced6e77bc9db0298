#pragma once

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/ipc/Listener.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace corvane::ipc::testing {

inline constexpr auto bound = std::chrono::seconds(10);

/// A counter that tests wait on, instead of sleeping.
class Counter {
 public:
  void add(int n = 1) {
    // Notified under the lock: a waiter may destroy the counter as soon as it sees the value.
    const std::lock_guard count(mutex_);
    value_ += n;
    changed_.notify_all();
  }
  [[nodiscard]] int value() const {
    const std::lock_guard count(mutex_);
    return value_;
  }
  /// Waits (bounded) until the count reaches `target`; true if it did.
  bool waitFor(int target) const {
    std::unique_lock count(mutex_);
    return changed_.wait_for(count, bound, [&] { return value_ >= target; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int value_ = 0;
};

/// A private runtime directory, removed afterwards.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvane-ipc-XXXXXX").native();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline Bytes text(std::string_view s) {
  return Bytes(s);
}

/// One whole frame, encoded.
inline std::vector<std::byte> frame(FrameKind kind, std::uint64_t serial, std::string name,
                                    std::optional<std::string_view> payload) {
  Frame f{kind, serial, std::move(name), std::nullopt};
  if (payload) f.payload.emplace(*payload);
  return encodeFrame(f);
}

/// Milliseconds left until `deadline` (0 once it has passed), for poll(2).
inline int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

/// An owned raw client socket, for playing a client that does not follow the library's ways.
/// Every wait on it is bounded by `bound`.
class RawSocket {
 public:
  enum class Read { frame, closed, timedOut, violation };
  enum class Write { written, refused, timedOut };

  explicit RawSocket(int fd = -1) : fd_(fd) {}
  RawSocket(RawSocket&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), decoder_(std::move(other.decoder_)) {}
  ~RawSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;
  RawSocket& operator=(RawSocket&&) = delete;
  [[nodiscard]] int get() const { return fd_; }

  /// A socket not connected yet (see `connect`).
  static RawSocket unconnected() {
    return RawSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  }
  static RawSocket connectTo(const std::filesystem::path& path) {
    auto s = unconnected();
    EXPECT_EQ(s.connect(path), 0);
    return s;
  }
  /// Connects to `path`; 0, or the errno of the failure.
  int connect(const std::filesystem::path& path) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.native().copy(address.sun_path, sizeof address.sun_path - 1);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API
    return ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0
                                                                                            : errno;
  }
  void write(std::span<const std::byte> bytes) const {
    // The peer may already have closed on an earlier part; that is what is being tested.
    (void)::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  /// Writes all of `bytes`, waiting (bounded) while the socket takes nothing: `refused` when the
  /// peer has closed, `timedOut` when it stopped reading.
  [[nodiscard]] Write writeAll(std::span<const std::byte> bytes) const {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!bytes.empty()) {
      pollfd p{fd_, POLLOUT, 0};
      const int ready = ::poll(&p, 1, millisecondsUntil(deadline));
      if (ready == 0) return Write::timedOut;
      if (ready < 0) {
        if (errno == EINTR) continue;
        return Write::refused;
      }
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
        return Write::refused;
      }
      bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
    return Write::written;
  }
  /// Reads until the peer closes (true) or the bound passes (false); returns what came.
  bool readUntilClosed(std::vector<std::byte>& received) const {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      const int left = millisecondsUntil(deadline);
      if (left <= 0 || ::poll(&p, 1, left) <= 0) return false;
      std::array<std::byte, 4096> chunk{};
      const ssize_t n = ::recv(fd_, chunk.data(), chunk.size(), 0);
      if (n <= 0) return true;
      received.insert(received.end(), chunk.begin(), chunk.begin() + n);
    }
  }
  /// Reads (bounded) until the next whole frame is in: `closed` at the end of the stream (or
  /// when the peer reset it) with no whole frame left.
  [[nodiscard]] Read readFrame(Frame& frame) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    for (;;) {
      switch (decoder_.next(frame)) {
        case FrameDecoder::Status::frame:
          return Read::frame;
        case FrameDecoder::Status::violation:
          return Read::violation;
        case FrameDecoder::Status::needMore:
          break;
      }
      pollfd p{fd_, POLLIN, 0};
      const int ready = ::poll(&p, 1, millisecondsUntil(deadline));
      if (ready == 0) return Read::timedOut;
      if (ready < 0 && errno != EINTR) return Read::closed;
      if (ready < 0) continue;
      auto room = decoder_.prepare(64 * 1024);
      const ssize_t n = ::recv(fd_, room.data(), room.size(), MSG_DONTWAIT);
      if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
      if (n <= 0) return Read::closed;
      decoder_.commit(static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_;
  FrameDecoder decoder_;
};

}  // namespace corvane::ipc::testing
