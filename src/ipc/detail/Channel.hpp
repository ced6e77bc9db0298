#pragma once

#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/Listener.hpp>

#include <boost/asio/posix/stream_descriptor.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace corvane::ipc::detail {

enum class Role { client, service };
enum class CloseReason { peerLost, protocolViolation, helloMismatch, invalidated };

class Channel;

/// Told (on the I/O thread) when a channel has closed, after its calls in flight were failed.
class ChannelOwner {
 public:
  virtual ~ChannelOwner() = default;
  virtual void channelClosed(const std::shared_ptr<Channel>& channel, CloseReason reason,
                             const std::string& detail) = 0;
};

/// One connected socket speaking the wire protocol; the shared engine of both sides.
///
/// Reading, decoding and closing happen on the I/O thread. Any thread writes directly to the
/// socket under the write lock (serial assigned under the same lock, so serials increase on the
/// wire); what the socket does not take at once is queued and flushed by the I/O thread. Incoming
/// CALLs and MESSAGEs and the answers to asynchronous calls go to the delivery thread; the answer
/// to a synchronous call goes straight to the caller's slot.
class Channel final : public std::enable_shared_from_this<Channel> {
 public:
  /// Takes ownership of `fd` (a connected AF_UNIX stream socket).
  Channel(const std::shared_ptr<Runtime>& runtime, int fd, Role role,
          std::weak_ptr<ChannelOwner> owner, std::size_t maxCallsInFlight);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Starts the protocol: a client writes its HELLO; both start reading.
  void start();
  /// Sends a CALL or MESSAGE; a failure goes to the outgoing's error path. Any thread.
  void send(Outgoing outgoing) noexcept;
  /// Answers an incoming CALL (REPLY with `reply`, else FAULT with `reason`). Any thread.
  void answer(std::uint64_t serial, std::optional<Bytes> reply, std::string_view reason) noexcept;
  /// Closes the channel from any thread (asynchronously unless on the I/O thread).
  void close(CloseReason reason, std::string detail) noexcept;
  /// Closes on the I/O thread.
  void closeNow(CloseReason reason, const std::string& detail);

  [[nodiscard]] bool isOpen() const noexcept;
  [[nodiscard]] const PeerCredentials& credentials() const noexcept { return credentials_; }

  void setExportedInterface(std::optional<InterfaceDescription> interface);
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  void setRemoteInterface(std::optional<InterfaceDescription> interface);
  [[nodiscard]] std::optional<InterfaceDescription> remoteInterface() const;
  void setCloseHandler(std::function<void()> handler);

 private:
  struct Pending {
    ReplyHandler reply;
    std::shared_ptr<const ErrorHandler> onError;
    std::shared_ptr<SyncSlot> sync;
  };

  // Writing (write lock held by the caller of the *Locked functions).
  bool writeFrameLocked(FrameKind kind, std::uint64_t serial, std::string_view name,
                        const std::optional<Bytes>& payload);
  void queueLocked(std::span<const std::byte> bytes);
  void armFlushLocked();
  void flush();
  /// A write failed; called with writeMutex_ held.
  void writeFailedLocked(int error);

  // Reading (I/O thread).
  void armRead();
  void onReadable(const boost::system::error_code& error);
  bool processFrames();  // false: paused by the in-flight bound, or closed
  void resumeReading();
  void handleFrame(Frame& frame);
  void handleHello(Frame& frame);
  void complete(std::uint64_t serial, std::optional<Bytes> reply, std::optional<CallError> error);
  void dispatch(Frame frame);  // delivery thread

  std::weak_ptr<Runtime> runtime_;
  const int fd_;
  const Role role_;
  std::weak_ptr<ChannelOwner> owner_;
  const std::size_t maxCallsInFlight_;
  PeerCredentials credentials_;

  // I/O thread only.
  std::optional<boost::asio::posix::stream_descriptor> stream_;
  FrameDecoder decoder_;
  bool helloDone_ = false;
  bool closed_ = false;
  std::uint64_t lastIncomingSerial_ = 0;

  // Write side, under writeMutex_.
  mutable std::mutex writeMutex_;
  bool open_ = true;
  bool writesHeld_;  // the service holds its frames until it has answered the client's HELLO
  bool flushArmed_ = false;
  std::uint64_t nextSerial_ = 1;
  std::vector<std::byte> header_;
  std::vector<std::byte> outQueue_;
  std::size_t outSent_ = 0;

  // Calls in flight that this side made, under pendingMutex_.
  std::mutex pendingMutex_;
  std::unordered_map<std::uint64_t, Pending> pending_;

  // Incoming calls not yet answered; bounded on the service side.
  std::atomic<std::size_t> inFlight_{0};
  std::atomic<bool> paused_{false};

  // Configuration, under configMutex_.
  mutable std::mutex configMutex_;
  std::optional<InterfaceDescription> exportedInterface_;
  std::shared_ptr<ExportedObject> exportedObject_;
  std::optional<InterfaceDescription> remoteInterface_;
  std::function<void()> closeHandler_;
  bool closedConfig_ = false;
};

/// Whether a HELLO payload names the protocol version this library speaks.
[[nodiscard]] bool isSupportedHello(const std::optional<Bytes>& payload) noexcept;

}  // namespace corvane::ipc::detail
