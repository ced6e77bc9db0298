#pragma once

#include "ipc/detail/ProxyTarget.hpp"
#include "ipc/detail/Runtime.hpp"
#include "ipc/detail/Session.hpp"

#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/Listener.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace corvane::ipc::detail {

class Channel;

/// The text of an errno value, for log lines and close reasons.
[[nodiscard]] std::string systemMessage(int error);
/// Who is on the other end of a connected socket (SO_PEERCRED); empty when it cannot be read.
[[nodiscard]] std::optional<PeerCredentials> peerCredentials(int fd) noexcept;

/// Told, on the channel's delivery executor after every outcome the close caused, that a channel
/// has closed.
class ChannelOwner {
 public:
  virtual ~ChannelOwner() = default;
  virtual void channelClosed(const std::shared_ptr<Channel>& channel, CloseReason reason,
                             const std::string& detail) = 0;
};

/// One connected socket, carrying out what its `Session` decides: the shared engine of both sides.
///
/// Locking: one mutex guards the session, the registrations' state and the configuration. It is
/// taken for short steps only (a non-blocking read or write, feeding the session, posting its
/// events), and never while user code runs: every callback goes through the delivery executor,
/// except that a synchronous caller's slot is filled under it. Lock order, the one place it is
/// said: channel mutex, then a strand's or the runtime's internal lock (posting), then a
/// synchronous caller's slot. Nothing takes the channel mutex while holding any of those.
///
/// Reading: the socket's read registration is edge-triggered. A worker told of an arrival reads
/// what has come (non-blocking, up to a short read or one turn's share) without arming anything
/// again. A synchronous caller takes the
/// reading over instead of waiting for a worker: it disarms the registration, sends its CALL and
/// reads in recv(2) on its own thread (the socket blocks for that one read; every other read and
/// write says MSG_DONTWAIT) until its answer is in, routing whatever else it reads exactly as a
/// worker would; then it arms the registration again. So a synchronous round trip wakes nobody
/// but the caller. A caller that finds the reading taken waits for whoever reads to fill its slot.
///
/// Writing: any thread writes under the mutex. What the socket does not take waits in the session
/// and a worker writes it when the socket turns writable. An answer given while more incoming
/// frames of this channel wait for delivery behind its handler, and a call made while eight or
/// more are in flight, wait for the write registration instead (armed at once, so a worker writes
/// them a moment later should nothing else): a batch of pipelined calls or answers then costs one
/// write instead of one per frame, and a handler that blocks never holds back the answers before
/// it.
class Channel final : public Watcher, public std::enable_shared_from_this<Channel> {
 public:
  /// Takes ownership of `fd` (a connected AF_UNIX stream socket) whose peer is `credentials`,
  /// read by the caller (which decides by them whether to make the channel). A client's HELLO
  /// carries `resumeToken` when it is not empty.
  Channel(std::shared_ptr<Runtime> runtime, int fd, PeerCredentials credentials, Role role,
          SessionLimits limits, std::shared_ptr<ReceiveBudget> budget, DeliveryExecutor delivery,
          std::weak_ptr<ChannelOwner> owner, std::string_view resumeToken = {});
  ~Channel() override;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Registers the socket and starts reading. Throws std::system_error if it cannot register.
  void start();
  /// Sends a CALL or MESSAGE, or fails it through its completion. A synchronous call returns
  /// once its slot holds the outcome.
  void send(Outgoing outgoing) noexcept;
  /// Answers an incoming CALL (REPLY with `reply`, else FAULT with `reason`).
  void answer(std::uint64_t serial, std::optional<Bytes> reply, std::string_view reason) noexcept;
  /// Closes now, from any thread: calls in flight fail, the socket is shut down, and the close
  /// handler and the owner run on the delivery executor after those failures. Idempotent.
  void close(CloseReason reason, const std::string& detail) noexcept;

  [[nodiscard]] bool isOpen() const noexcept { return open_.load(std::memory_order_acquire); }
  [[nodiscard]] const PeerCredentials& credentials() const noexcept { return credentials_; }
  [[nodiscard]] const DeliveryExecutor& delivery() const noexcept { return delivery_; }

  void setExportedInterface(std::optional<InterfaceDescription> interface);
  void setExportedObject(std::shared_ptr<ExportedObject> object);
  void setRemoteInterface(std::optional<InterfaceDescription> interface);
  [[nodiscard]] std::shared_ptr<const InterfaceDescription> remoteInterface() const;
  /// Runs on the delivery executor when a client greets with a resume token, ahead of its calls.
  void setGreetingHandler(std::function<void(const std::string&)> handler);
  /// Runs once on the delivery executor when the channel closes (at once if it has closed).
  void setCloseHandler(std::function<void()> handler);

  void ready(std::uint64_t key, std::uint32_t events) override;

 private:
  /// After the session changed: writes (now, or soon with `flushNow` false), posts its events
  /// and tears the socket down once the session has closed.
  void afterSessionLocked(bool flushNow = true);
  void flushLocked();
  void scheduleFlushLocked();
  void sendMessage(Outgoing& outgoing) noexcept;
  /// Reads what has arrived, up to one turn's share; says whether more may be waiting.
  bool readLocked(bool toTheEnd);
  void teardownLocked();
  /// A synchronous caller holding the reading reads until `slot` is filled, reading ends or
  /// `deadline` passes.
  void readFor(SyncSlot& slot, std::optional<SyncSlot::Clock::time_point> deadline);
  /// Waits until the socket has something to read (true) or `deadline` has passed (false).
  [[nodiscard]] bool readableBefore(SyncSlot::Clock::time_point deadline) const;
  /// Runs a batch of events on the delivery executor, in order.
  void deliver(std::vector<SessionEvent>& events);
  void dispatch(Frame frame);
  void greeted(const std::string& resumeToken);

  const std::shared_ptr<Runtime> runtime_;
  const int fd_;
  const int writeFd_;  // a duplicate of fd_, so that writability has its own registration
  const PeerCredentials credentials_;
  const DeliveryExecutor delivery_;
  const std::weak_ptr<ChannelOwner> owner_;
  std::atomic<bool> open_{true};

  mutable std::mutex mutex_;  // everything below
  Session session_;
  std::uint64_t readKey_ = 0;
  std::uint64_t writeKey_ = 0;
  bool started_ = false;
  bool readArmed_ = false;
  bool writeArmed_ = false;
  std::size_t deliveriesQueued_ = 0;  // incoming frames posted and not yet dispatched
  bool callerReads_ = false;          // a synchronous caller holds the reading
  bool tornDown_ = false;
  std::shared_ptr<const InterfaceDescription> exportedInterface_;
  std::shared_ptr<ExportedObject> exportedObject_;
  std::shared_ptr<const InterfaceDescription> remoteInterface_;
  std::function<void()> closeHandler_;
  std::function<void(const std::string&)> greetingHandler_;
};

}  // namespace corvane::ipc::detail
