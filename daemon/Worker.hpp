#pragma once

#include <corvane/platform/LogCategory.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace corvane::sim {

/// A thread of the daemon's own for blocking work (a manifest's download, reading the
/// installation before a launch): jobs run one at a time, in the order they were posted, so the
/// serving thread never waits for them. A job hands its result back by posting it to the
/// daemon's io_context.
///
/// `stop()` drops the jobs not yet begun, raises `stopping()` (a long job polls it to give up
/// early) and joins the thread; the destructor stops. Every call but `stopping()` comes from the
/// owner's thread.
class Worker {
 public:
  Worker() : thread_([this] { run(); }) {}
  ~Worker() { stop(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Queues `job`; dropped when the worker stops first.
  void post(std::function<void()> job) {
    {
      const std::scoped_lock queueing(mutex_);
      if (stopping_) return;
      jobs_.push_back(std::move(job));
    }
    waiting_.notify_one();
  }

  /// Whether the worker is stopping: a job in progress should give up. Any thread.
  [[nodiscard]] const std::atomic<bool>& stopping() const noexcept { return stopping_; }

  /// Drops the queued jobs, asks the running one to give up and joins. Idempotent.
  void stop() {
    {
      const std::scoped_lock stopping(mutex_);
      stopping_ = true;
      jobs_.clear();
    }
    waiting_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock waiting(mutex_);
        waiting_.wait(waiting, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      try {
        job();
      } catch (const std::exception& error) {
        // Nothing may end the worker: the job is lost, the log says so.
        LogCategory::daemon().fault("a background job failed: {}", error.what());
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable waiting_;
  std::deque<std::function<void()>> jobs_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;  // last: it starts once the rest is made
};

}  // namespace corvane::sim
