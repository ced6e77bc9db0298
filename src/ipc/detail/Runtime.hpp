#pragma once

#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/execution_context.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace corvane::ipc::detail {

using Task = std::move_only_function<void()>;

/// Something the runtime watches descriptors for: a channel or a listener.
class Watcher {
 public:
  virtual ~Watcher() = default;
  /// The registration `key` fired with epoll `events`. A one-shot registration is disarmed now
  /// until its watcher arms it again.
  virtual void ready(std::uint64_t key, std::uint32_t events) = 0;
};

/// The worker threads of a Connection or a Listener: they wait in one epoll set for descriptors
/// and for tasks.
///
/// A registration is armed either one-shot (an event disarms it, and whoever handled it arms it
/// again) or, with EPOLLET in the events, edge-triggered (one event per arrival, no re-arming);
/// either way it can be disarmed, which is how a synchronous caller takes a channel's reading
/// over. Each `epoll_wait` takes one event, so the
/// workers share the load and one that runs a long task leaves the others waiting for events.
///
/// Tasks (`execute`) are the functions of `Executor`: the strands that deliver to user code post
/// through it. A task submitted from a worker that may not run at once goes to that worker's own
/// queue, which it runs as soon as the current event or task is done: the callbacks a worker's
/// read produced then run on the same worker without waking another one.
class Runtime final : public boost::asio::execution_context {
 public:
  explicit Runtime(std::size_t workers);
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  /// Registers `fd` for `watcher`, disarmed; returns the registration's key.
  std::uint64_t watch(int fd, const std::shared_ptr<Watcher>& watcher);
  /// Arms a registration for `events` (EPOLLIN or EPOLLOUT): once, or for every edge with
  /// EPOLLET. Arming reports a descriptor that is ready already.
  void arm(int fd, std::uint64_t key, std::uint32_t events) noexcept;
  /// Disarms a registration (an event that fired already may still reach its watcher).
  void disarm(int fd, std::uint64_t key) noexcept;
  /// Removes a registration; no event reaches its watcher afterwards, except one being handled.
  void unwatch(int fd, std::uint64_t key) noexcept;

  /// Runs `task` on a worker: right here if this is a worker and `mayRunHere`; else soon. Once
  /// the runtime has stopped, right here whatever the thread.
  void execute(Task task, bool mayRunHere);
  [[nodiscard]] bool onWorkerThread() const noexcept;

  /// Stops and joins the workers, then runs the tasks still queued on this thread. Not from a
  /// worker; idempotent.
  void stop();

 private:
  void work();
  /// Runs the calling worker's own queue; what waits behind the task it runs goes to the shared
  /// queue first, so that a task that blocks delays nothing else.
  void runOwnQueue();
  void queueShared(Task task);
  void wakeLocked() noexcept;

  int epoll_ = -1;
  int wakeFd_ = -1;  // a task was queued (edge-triggered: one worker wakes per write)
  int stopFd_ = -1;  // level-triggered: every worker sees it

  std::mutex mutex_;  // everything below
  std::deque<Task> tasks_;
  bool wakePending_ = false;
  bool stopping_ = false;
  bool stopped_ = false;       // tasks run on the submitting thread from now on
  std::uint64_t nextKey_ = 2;  // 0 and 1 are the wake and stop descriptors
  std::unordered_map<std::uint64_t, std::weak_ptr<Watcher>> watchers_;
  std::vector<std::thread> workers_;
};

/// Runs user code: an exception is logged, never propagated.
template <class Code>
void runUserCode(std::string_view what, Code&& code) noexcept {
  try {
    std::forward<Code>(code)();
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Connection {} threw: {}", what, e.what());
  } catch (...) {
    LogCategory::tether().fault("Connection {} threw a non-standard exception", what);
  }
}

}  // namespace corvane::ipc::detail
