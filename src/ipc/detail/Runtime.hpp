#pragma once

#include <corvane/coding/Bytes.hpp>
#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <sys/epoll.h>
#include <thread>
#include <unordered_map>
#include <vector>

namespace corvane::ipc::detail {

/// Something the runtime watches a descriptor for: a channel or a listening socket.
class Watcher {
 public:
  virtual ~Watcher() = default;
  /// A registered descriptor is ready; `writable` says which of the two registrations fired,
  /// `hungUp` that the peer has gone or the socket failed (nothing more will arrive).
  virtual void ready(bool writable, bool hungUp) = 0;
};

using Task = std::move_only_function<void()>;

/// What a registration watches for, and how it is re-armed.
enum class Interest : std::uint8_t {
  readOnce,   ///< readable, one event per `arm`
  writeOnce,  ///< writable, one event per `arm`
  readEdges,  ///< readable, one event per arrival of data from `arm` until `disarm`
};

/// The two worker threads of a Connection or Listener, and the serial delivery of user code.
///
/// Both workers wait in one epoll set. A listening socket and the writability of a channel are
/// registered one-shot: one event, then whoever handled it re-arms. The readability of a channel
/// is registered edge-triggered, which costs no system call per event; the channel itself makes
/// sure that one thread at a time reads it (see Channel). User code
/// (reply handlers, incoming calls, connection and lifecycle handlers) runs through `deliver`:
/// one task at a time, in the order they were queued, on whichever worker holds the delivery
/// turn. Only one worker can hold it, so the other one always stays free for socket I/O: user code
/// that blocks never stalls reading or writing. A worker that has just queued an incoming call
/// takes the turn itself if it is free and runs the call at once, which saves a thread hop on the
/// way from the socket to the exported object.
class Runtime {
 public:
  Runtime();
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  /// Registers `fd` for `watcher`, disarmed until `arm`; returns the registration's key.
  std::uint64_t watch(int fd, Interest interest, const std::shared_ptr<Watcher>& watcher);
  /// Arms a registration made by `watch` with the same interest. Arming reports a descriptor
  /// that is ready already.
  void arm(int fd, std::uint64_t key, Interest interest) noexcept;
  /// Disarms a registration (its watcher may still get one event that was already pending).
  void disarm(int fd, std::uint64_t key, Interest interest) noexcept;
  /// The epoll set and what `arm` (or `disarm`) gives it, for a caller that changes a
  /// registration through another interface (see SyncRing).
  [[nodiscard]] int epollDescriptor() const noexcept { return epoll_; }
  [[nodiscard]] static epoll_event registration(std::uint64_t key, Interest interest,
                                                bool armed) noexcept;
  /// Removes a registration; no event reaches its watcher afterwards except one in progress.
  void unwatch(int fd, std::uint64_t key) noexcept;

  /// Runs `task` (not user code) soon on a worker; dropped once the runtime has stopped.
  void post(Task task);
  /// Queues user code for the delivery turn, or runs it right here once the runtime has stopped,
  /// so that handlers owed to a caller still run exactly once.
  void deliver(Task task);
  /// Same for several tasks at once, in order (one lock, one wake-up).
  void deliver(std::vector<Task>& tasks);
  [[nodiscard]] bool onWorkerThread() const noexcept;
  /// Whether more user code waits for the delivery turn.
  [[nodiscard]] bool deliveriesQueued();
  /// Stops both workers and joins them, then runs what is still queued for delivery here. Not
  /// from a worker.
  void stop();

 private:
  enum class Work { posted, delivery, none, stop };
  /// What a worker does next, decided under one lock: posted tasks first (they are short and
  /// never user code), then the delivery turn if it is free.
  Work takeWork(std::vector<Task>& posted, Task& delivery);
  void work();
  /// Runs `task` and whatever is queued behind it, then gives the delivery turn up.
  void runDeliveryTurn(Task task);
  /// Moves `tasks` to the delivery queue and wakes a worker if need be; or, once the runtime has
  /// stopped, leaves them where they are and returns true: the caller runs them itself.
  bool queueDeliveries(std::span<Task> tasks);
  void wake() noexcept;

  int epoll_ = -1;
  int wakeFd_ = -1;  // edge-triggered: a task was queued
  int stopFd_ = -1;  // level-triggered: wakes every worker once stopping

  std::mutex mutex_;
  std::vector<Task> posted_;
  std::deque<Task> deliveries_;
  bool delivering_ = false;  // a worker holds the delivery turn
  bool wakePending_ = false;
  bool stopping_ = false;
  bool stopped_ = false;  // deliveries run on the calling thread from now on
  std::uint64_t nextKey_ = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<Watcher>> watchers_;

  std::mutex stopMutex_;
  std::array<std::thread, 2> workers_;
  std::array<std::thread::id, 2> workerIds_{};
};

/// Where a synchronous caller waits for its outcome.
class SyncSlot {
 public:
  /// A fresh slot for a call made on this thread: the thread's previous one once nobody else
  /// holds it any more, which saves an allocation per call.
  static std::shared_ptr<SyncSlot> forThisThread();

  void complete(std::optional<Bytes> reply, std::optional<CallError> error);
  /// Waits until completed; then exactly one of the two is set.
  std::pair<std::optional<Bytes>, std::optional<CallError>> wait();
  [[nodiscard]] bool done();
  /// Wakes a `waitDoneOrPoked` without completing.
  void poke();
  /// Waits until completed or poked (and clears the poke).
  void waitDoneOrPoked();

  /// Set (under the channel's read lock) when a reader hands this caller the reading of its
  /// channel.
  bool offered = false;

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  bool done_ = false;
  bool poked_ = false;
  std::optional<Bytes> reply_;
  std::optional<CallError> error_;
};

/// One outgoing CALL or MESSAGE and who to tell about its outcome.
struct Outgoing {
  std::string operation;
  std::optional<Bytes> argument;
  bool expectsReply = true;
  ReplyHandler reply;  ///< asynchronous calls
  std::shared_ptr<const ErrorHandler> onError;
  std::shared_ptr<SyncSlot> sync;  ///< synchronous calls
};

/// Routes a failure to the caller: the sync slot, or the error handler on the delivery turn.
void failOutgoing(Runtime& runtime, Outgoing& outgoing, CallError error);
/// Same, for a caller whose runtime is gone or unknown: the handler runs on this thread.
void failOutgoingHere(Outgoing& outgoing, CallError error);

/// Something a RemoteProxy sends through: a client connection or an accepted peer.
class ProxyTarget {
 public:
  virtual ~ProxyTarget() = default;
  /// Sends, or fails `outgoing` through its error path; never throws. For a synchronous call it
  /// returns once the call's slot holds its outcome.
  virtual void send(Outgoing outgoing) noexcept = 0;
  /// Fails `outgoing` the way a failed send would (delivery turn for asynchronous calls).
  virtual void refuse(Outgoing outgoing, CallError error) noexcept = 0;
};

/// Runs user code: an exception is logged, never propagated.
void runUserCode(std::string_view what, const std::function<void()>& code) noexcept;

}  // namespace corvane::ipc::detail
