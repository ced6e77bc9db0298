#pragma once

#include <corvane/coding/Bytes.hpp>
#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/ipc/RemoteProxy.hpp>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace corvane::ipc::detail {

/// A thread that runs posted tasks one at a time, in order: the delivery thread. User code runs
/// here so that it can block without stalling socket I/O.
class SerialQueue {
 public:
  SerialQueue();
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Queues `task`; false (task untouched) once the queue has stopped.
  bool post(std::move_only_function<void()>& task);
  bool post(std::move_only_function<void()>&& task) { return post(task); }
  /// Runs what is queued, then joins the thread. Idempotent; not from the queue's own thread.
  void stop();
  [[nodiscard]] bool onQueueThread() const noexcept;

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::move_only_function<void()>> tasks_;
  bool stopping_ = false;
  bool stopped_ = false;
  std::thread thread_;
};

/// The two threads of a Connection or Listener: the I/O thread running an io_context and the
/// delivery queue. Shared by the channels so that a late `Reply` never touches a dead context.
class Runtime {
 public:
  Runtime();
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  boost::asio::io_context& io() noexcept { return io_; }
  SerialQueue& delivery() noexcept { return delivery_; }
  /// Runs `task` on the delivery thread, or right here once that has stopped, so that handlers
  /// owed to a caller still run exactly once.
  void deliver(std::move_only_function<void()> task);
  /// Runs `task` on the I/O thread and waits for it (not from the I/O thread). False if the I/O
  /// thread has stopped.
  bool runOnIo(std::move_only_function<void()> task);
  [[nodiscard]] bool onIoThread() const noexcept;
  /// Stops the I/O thread (pending I/O handlers are dropped), then drains and stops delivery.
  void stop();

 private:
  boost::asio::io_context io_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::thread ioThread_;
  std::thread::id ioThreadId_;
  std::mutex stopMutex_;
  bool stopped_ = false;
  SerialQueue delivery_;
};

/// Where a synchronous caller waits for its outcome.
class SyncSlot {
 public:
  void complete(std::optional<Bytes> reply, std::optional<CallError> error);
  /// Waits until completed; then exactly one of the two is set.
  std::pair<std::optional<Bytes>, std::optional<CallError>> wait();

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  bool done_ = false;
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

/// Routes a failure to the caller: the sync slot, or the error handler on the delivery thread.
void failOutgoing(Runtime& runtime, Outgoing& outgoing, CallError error);
/// Same, for a caller whose runtime is gone or unknown: the handler runs on this thread.
void failOutgoingHere(Outgoing& outgoing, CallError error);

/// Something a RemoteProxy sends through: a client connection or an accepted peer.
class ProxyTarget {
 public:
  virtual ~ProxyTarget() = default;
  /// Sends, or fails `outgoing` through its error path; never throws.
  virtual void send(Outgoing outgoing) noexcept = 0;
  /// Fails `outgoing` the way a failed send would (delivery thread for asynchronous calls).
  virtual void refuse(Outgoing outgoing, CallError error) noexcept = 0;
};

/// Runs user code on the delivery thread: an exception is logged, never propagated.
void runUserCode(std::string_view what, const std::function<void()>& code) noexcept;

}  // namespace corvane::ipc::detail
