#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

namespace corvane::ipc::detail {

enum class Role { client, service };

/// Why a session ended.
enum class CloseReason {
  peerLost,           ///< the peer hung up, or the socket failed
  protocolViolation,  ///< the peer broke the wire protocol
  helloMismatch,      ///< the peer speaks another protocol version
  invalidated,        ///< this side closed it
  limitExceeded,      ///< the peer went past one of the session's limits
};

/// What one session lets its peer make it hold. "Without bound" is the maximum value.
struct SessionLimits {
  /// Incoming CALLs and MESSAGEs handed out for dispatch and not yet answered (or handled).
  /// Past it, further ones wait in the session; REPLY and FAULT frames are never held back.
  std::size_t maxCallsInFlight = std::numeric_limits<std::size_t>::max();
  /// Bytes of the incoming CALLs and MESSAGEs waiting behind the in-flight limit; past it the
  /// peer is sending more than it can be served and the session closes.
  std::size_t maxQueuedIncomingBytes = std::numeric_limits<std::size_t>::max();
  /// Bytes waiting to be written because the peer does not read; a frame that would take them
  /// past it closes the session instead of being queued (one frame always fits, however large,
  /// when nothing else waits).
  std::size_t maxQueuedOutgoingBytes = std::numeric_limits<std::size_t>::max();
};

/// Bytes of partly received frames that several sessions may hold together (a listener's
/// clients). Each session counts only what it buffers beyond a small allowance of its own.
class ReceiveBudget {
 public:
  explicit ReceiveBudget(std::size_t bytes) noexcept : left_(bytes) {}
  /// Takes `bytes` if that many are left.
  [[nodiscard]] bool take(std::size_t bytes) noexcept;
  void give(std::size_t bytes) noexcept { left_.fetch_add(bytes, std::memory_order_relaxed); }
  [[nodiscard]] std::size_t left() const noexcept { return left_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::size_t> left_;
};

/// A call of ours that has its outcome: run `completion` with `result`. A synchronous caller's
/// completion only hands the result to the waiting thread, so it may run on the reading thread;
/// every other one runs on the delivery executor, in order with the incoming frames.
struct Completed {
  Completion completion;
  CallResult result;
  bool synchronous = false;
};

/// A service's client greeted with a resume token: it wants back what it had before it lost an
/// earlier connection. Comes ahead of the client's first call.
struct Greeted {
  std::string resumeToken;
};

/// What the session asks its owner to do with the bytes it read: dispatch an incoming CALL or
/// MESSAGE (a `Frame`), complete one of our calls, or tell of a resuming greeting. In the order
/// the frames arrived.
using SessionEvent = std::variant<Frame, Completed, Greeted>;

/// The wire protocol of one connection, without sockets or threads: bytes and events go in,
/// bytes to write and events to act on come out. It holds every rule of the protocol: the HELLO
/// exchange, increasing serials, the table of our calls in flight (each completes exactly once:
/// with its answer, or with the error of the close), which frames are violations, and the limits
/// that bound what a peer can make this side hold.
///
/// Not thread-safe: its owner serialises every call (the channel does so under its mutex).
class Session {
 public:
  /// A client's HELLO carries `resumeToken` when it is not empty (see `helloPayloadWith`).
  Session(Role role, SessionLimits limits, std::shared_ptr<ReceiveBudget> budget = nullptr,
          std::string_view resumeToken = {});
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // ---- our side ------------------------------------------------------------------------------

  /// Queues a CALL (or a MESSAGE when `completion` is empty: nothing answers it) and returns its
  /// serial. On a closed session nothing is queued: a CALL's completion comes back as an event
  /// with the close's error, and the result is empty. The same holds when this very frame would
  /// go past `maxQueuedOutgoingBytes` and so closes the session.
  std::optional<std::uint64_t> call(std::string_view operation, std::optional<Bytes> argument,
                                    Completion completion, bool synchronous = false);
  /// Answers an incoming CALL: a REPLY carrying `reply`, else a FAULT carrying `reason`.
  /// Answering a serial that was never dispatched, or twice, is ignored.
  void answer(std::uint64_t serial, std::optional<Bytes> reply, std::string_view reason);
  /// An incoming MESSAGE's handler has returned (it counted as in flight until now).
  void messageHandled();
  /// Ends the session: pending calls complete with the error for `reason`, unwritten bytes are
  /// dropped. Idempotent; the first reason stays.
  void close(CloseReason reason, std::string detail);

  // ---- bytes to write ------------------------------------------------------------------------

  /// Bytes waiting to be written (none while a service holds its frames behind the HELLO).
  [[nodiscard]] std::size_t pendingOutput() const noexcept;
  /// Fills `parts` with the first waiting buffers, in order; returns how many it filled.
  std::size_t gatherOutput(std::span<std::span<const std::byte>> parts) const noexcept;
  /// `bytes` of the pending output have been written.
  void wrote(std::size_t bytes);

  // ---- bytes read ----------------------------------------------------------------------------

  /// Room for exactly `size` bytes to receive into; follow with `received`.
  [[nodiscard]] std::span<std::byte> receiveBuffer(std::size_t size);
  /// Room to receive the rest of a large frame straight into, so it is not copied: empty unless a
  /// frame with at least `least` bytes still missing is begun. It asks for no more than a quarter
  /// of what is buffered (at least `least`), so what the frame holds grows with what arrives.
  [[nodiscard]] std::span<std::byte> frameRoom(std::size_t least);
  /// `bytes` arrived in the last `receiveBuffer`: frames are taken, checked and turned into
  /// events; a violation closes the session.
  void received(std::size_t bytes);
  /// The peer will send nothing more (end of stream). A client has lost its service; a service
  /// still answers the calls it was sent, then closes.
  void receivedEnd();
  /// Whether to read from the peer at all: open and not at the end of its stream.
  [[nodiscard]] bool wantsInput() const noexcept { return !closed_ && !inputEnded_; }

  // ---- what to act on ------------------------------------------------------------------------

  /// Moves the events gathered so far to the end of `out`.
  void takeEvents(std::vector<SessionEvent>& out);
  [[nodiscard]] bool hasEvents() const noexcept { return !events_.empty(); }

  [[nodiscard]] bool closed() const noexcept { return closed_; }
  [[nodiscard]] CloseReason closeReason() const noexcept { return closeReason_; }
  [[nodiscard]] const std::string& closeDetail() const noexcept { return closeDetail_; }
  [[nodiscard]] std::size_t callsInFlight() const noexcept { return pending_.size(); }

  /// The error a call in flight gets when a session closes for `reason`.
  [[nodiscard]] static CallError closeError(CloseReason reason, const std::string& detail);

 private:
  struct Pending {
    Completion completion;
    bool synchronous = false;
  };

  void queueFrame(FrameKind kind, std::uint64_t serial, std::string_view name,
                  std::optional<Bytes> payload);
  void handleFrame(Frame& frame);
  void handleHello(Frame& frame);
  void complete(std::uint64_t serial, CallResult result);
  void incoming(Frame& frame);
  void releaseQueued();
  void violation(std::string detail);
  /// Fails every call of ours in flight with `error`, in serial order.
  void failPending(const CallError& error);
  void chargeBudget();
  /// Gives back all this session has taken from the budget: it will read no more.
  void releaseBudget() noexcept;
  /// A service whose client has ended its stream closes once its answers are out.
  void closeIfDrained();

  const Role role_;
  const SessionLimits limits_;
  std::shared_ptr<ReceiveBudget> budget_;
  std::size_t charged_ = 0;  // taken from the budget for what the decoder buffers

  // Output: buffers in order, the first one partly written; the last one takes further small
  // frames unless it holds a payload of its own (sealed).
  std::deque<std::vector<std::byte>> output_;
  bool lastSealed_ = false;
  std::vector<std::byte> spare_;   // a written buffer, kept for reuse
  std::vector<std::byte> header_;  // scratch for encoding
  std::size_t outputOffset_ = 0;
  std::size_t outputBytes_ = 0;
  bool outputHeld_ = false;  // a service's frames wait until it has answered the HELLO

  FrameDecoder decoder_;
  bool helloDone_ = false;
  bool inputEnded_ = false;
  std::uint64_t nextSerial_ = 1;
  std::uint64_t lastIncomingSerial_ = 0;

  std::unordered_map<std::uint64_t, Pending> pending_;
  std::unordered_set<std::uint64_t> unanswered_;  // incoming CALLs dispatched
  std::size_t inFlight_ = 0;                      // unanswered CALLs + unhandled MESSAGEs
  std::deque<Frame> queued_;                      // waiting behind the in-flight limit
  std::size_t queuedBytes_ = 0;

  std::vector<SessionEvent> events_;

  bool closed_ = false;
  CloseReason closeReason_ = CloseReason::invalidated;
  std::string closeDetail_;
};

/// Why an incoming frame may not be dispatched to an exported object with `interface` (none:
/// anything goes): an unknown operation or a call of the wrong shape. Empty when it may.
[[nodiscard]] std::optional<std::string> refusal(const InterfaceDescription* interface,
                                                 const Frame& frame);

/// Whether a HELLO payload names the protocol version this library speaks.
[[nodiscard]] bool isSupportedHello(const std::optional<Bytes>& payload) noexcept;

}  // namespace corvane::ipc::detail
