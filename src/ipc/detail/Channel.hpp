#pragma once

#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/Listener.hpp>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace corvane::ipc::detail {

enum class Role { client, service };
enum class CloseReason { peerLost, protocolViolation, helloMismatch, invalidated };

class Channel;
class SyncRing;

/// Told (on the closing thread) when a channel has closed, after its calls in flight were failed.
class ChannelOwner {
 public:
  virtual ~ChannelOwner() = default;
  virtual void channelClosed(const std::shared_ptr<Channel>& channel, CloseReason reason,
                             const std::string& detail) = 0;
};

/// One connected socket speaking the wire protocol; the shared engine of both sides.
///
/// Writing: any thread writes directly to the socket under the write lock (serial assigned under
/// the same lock, so serials increase on the wire); what the socket does not take at once is
/// queued and flushed by a worker when the socket is writable again. An asynchronous call made
/// while many calls are in flight is queued too, and a worker flushes the queue soon: a caller
/// that pipelines calls then pays a copy per call instead of a system call and a wake-up of the
/// peer, while a lone call still leaves at once.
///
/// Reading: one thread at a time holds the reading of the channel. The descriptor is registered
/// edge-triggered, so a worker is told of every arrival of data without re-arming anything. A
/// worker that is told while the channel is free takes the reading; one told while somebody else
/// reads leaves a note (`readAgain_`), and the holder reads again before it gives the reading up.
/// A synchronous caller takes the reading itself before its call leaves, and disarms the
/// registration while it holds it, so that its answer wakes nobody but the caller: it waits for
/// the answer in a recv on its own thread (on its io_uring if it has one, see SyncRing). Frames for
/// others that it reads on the way are routed exactly as a worker would route them. A caller that
/// finds the reading held waits for its answer and may be handed the reading when the holder gives
/// it up. Incoming CALLs and MESSAGEs and the answers to asynchronous calls are queued for delivery
/// in batches; the answer to a synchronous call goes straight to the caller's slot.
///
/// The socket itself is blocking, for that one recv(2); every other read and write says
/// MSG_DONTWAIT.
class Channel final : public Watcher, public std::enable_shared_from_this<Channel> {
 public:
  /// Takes ownership of `fd` (a connected AF_UNIX stream socket).
  Channel(const std::shared_ptr<Runtime>& runtime, int fd, Role role,
          std::weak_ptr<ChannelOwner> owner, std::size_t maxCallsInFlight);
  ~Channel() override;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Starts the protocol: a client writes its HELLO; both start reading.
  void start();
  /// Sends a CALL or MESSAGE; a failure goes to the outgoing's error path. Any thread. For a
  /// synchronous call it returns once the slot holds the outcome.
  void send(Outgoing outgoing) noexcept;
  /// Answers an incoming CALL (REPLY with `reply`, else FAULT with `reason`). Any thread.
  void answer(std::uint64_t serial, std::optional<Bytes> reply, std::string_view reason) noexcept;
  /// Closes the channel from any thread, soon (never inline, so any lock may be held).
  void close(CloseReason reason, std::string detail) noexcept;
  /// Closes now, from any thread: writes stop, the socket is shut down (waking whoever reads),
  /// calls in flight fail and the owner is told. When it returns, that has happened (if another
  /// thread is closing, this waits for it).
  void closeNow(CloseReason reason, const std::string& detail);

  [[nodiscard]] bool isOpen() const noexcept;
  [[nodiscard]] const PeerCredentials& credentials() const noexcept { return credentials_; }

  void setExportedInterface(std::optional<InterfaceDescription> interface);
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  void setRemoteInterface(std::optional<InterfaceDescription> interface);
  [[nodiscard]] std::optional<InterfaceDescription> remoteInterface() const;
  void setCloseHandler(std::function<void()> handler);

  void ready(bool writable, bool hungUp) override;

 private:
  struct Pending {
    ReplyHandler reply;
    std::shared_ptr<const ErrorHandler> onError;
    std::shared_ptr<SyncSlot> sync;
  };
  enum class ReadState { armed, held, paused, closed };
  enum class ReadResult { open, paused, closed };
  /// What the holder of the reading does next after offering it back.
  enum class HandBack { done, process, read, readToEnd };
  /// How much one turn of reading takes from the socket.
  enum class ReadAmount {
    waitForData,  ///< block until something arrives, then what has arrived
    whatArrived,  ///< up to the first short read: what the edge that woke us brought
    untilEmpty,   ///< up to EAGAIN or the end of the stream
  };

  // Writing (write lock held by the caller of the *Locked functions).
  /// Writes a frame, or queues it behind what waits. With `defer`, the frame is queued for a
  /// worker's flush even if nothing waits yet.
  bool writeFrameLocked(FrameKind kind, std::uint64_t serial, std::string_view name,
                        const std::optional<Bytes>& payload, bool defer = false);
  /// Writes this side's HELLO ahead of the frames held back until now, and stops holding them.
  void helloAheadOfHeldLocked();
  void queueLocked(std::span<const std::byte> bytes);
  void armFlushLocked();
  void flush();
  void flushLocked();
  void writeFailedLocked(int error);

  // Reading (by the holder of the reading).
  void onReadable(bool hungUp);
  /// Takes the reading for a synchronous caller if nobody holds it, and disarms the registration.
  bool takeReading();
  /// Waits for a synchronous call's outcome. A caller that took the reading before its call left
  /// (`holdsReading`) reads its answer itself; on its thread's ring, if it has one, the first read
  /// and arming the registration again go in one batch. Otherwise the registration is armed when
  /// the reading is handed back.
  void awaitOutcome(SyncSlot& slot, bool holdsReading);
  ReadResult readUntilDone(SyncSlot& slot, SyncRing* ring);
  /// Reads from the socket and processes what it read. With `armWith` (waiting for data only),
  /// the read registration is armed again right after the first read, on that ring.
  ReadResult readAvailable(ReadAmount amount, SyncRing* armWith = nullptr);
  ReadResult processFrames();
  /// Gives the reading back (read lock held): to a waiting synchronous caller, or to the workers
  /// by arming the registration. Says whether the holder must first process more frames (a pause
  /// that has ended) or read more (data arrived while it held the reading).
  HandBack handBackLocked(ReadResult result);
  /// Hands the reading back, doing first whatever that asks for.
  void keepReading(ReadResult result);
  void resumeReading();
  void handleFrame(Frame& frame);
  void handleHello(Frame& frame);
  void complete(std::uint64_t serial, std::optional<Bytes> reply, std::optional<CallError> error);
  void flushDeliveries();
  void closeFromReader(CloseReason reason, const std::string& detail);
  void dispatch(Frame frame);  // delivery turn

  std::weak_ptr<Runtime> runtime_;
  const int fd_;
  const int writeFd_;  // a duplicate of fd_, so that writability has its own registration
  const Role role_;
  std::weak_ptr<ChannelOwner> owner_;
  const std::size_t maxCallsInFlight_;
  PeerCredentials credentials_;
  std::uint64_t readKey_ = 0;   // set by start()
  std::uint64_t writeKey_ = 0;  // set by start()
  std::atomic<bool> registered_{false};

  // Who reads, under readMutex_.
  std::mutex readMutex_;
  ReadState readState_ = ReadState::held;  // until start() arms the descriptor
  bool readAgain_ = false;                 // data arrived while the reading was held or paused
  bool readToEnd_ = false;                 // and the peer hung up
  bool readArmed_ = false;                 // the registration reports arrivals
  std::deque<SyncSlot*> waiters_;

  // The holder of the reading only.
  FrameDecoder decoder_;
  bool helloDone_ = false;
  std::uint64_t lastIncomingSerial_ = 0;
  std::vector<Task> deliveries_;

  // Closing.
  std::atomic<bool> closed_{false};
  std::mutex closeMutex_;
  std::condition_variable closeDone_;
  enum class CloseState { open, closing, closed } closeState_ = CloseState::open;
  std::thread::id closer_;

  // Write side, under writeMutex_.
  mutable std::mutex writeMutex_;
  bool open_ = true;
  // Frames wait behind this side's HELLO: a client's until start() writes it (a caller can find
  // the channel first), a service's until it answers the client's.
  bool writesHeld_ = true;
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
