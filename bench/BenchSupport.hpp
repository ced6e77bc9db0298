#pragma once

// What the benchmarks share: where their threads run, and the process's context switches.

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <sched.h>
#include <sys/resource.h>

namespace corvane::bench {

/// Context switches of the whole process so far.
struct Switches {
  long voluntary = 0;
  long involuntary = 0;
  static Switches now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {usage.ru_nvcsw, usage.ru_nivcsw};
  }
};

/// Pins the calling thread (and so the threads it creates) to CPU 0 for its lifetime.
class Placement {
 public:
  explicit Placement(bool pinned) : pinned_(pinned) {
    if (!pinned_) return;
    sched_getaffinity(0, sizeof saved_, &saved_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  ~Placement() {
    if (pinned_) sched_setaffinity(0, sizeof saved_, &saved_);
  }
  Placement(const Placement&) = delete;
  Placement& operator=(const Placement&) = delete;

 private:
  bool pinned_;
  cpu_set_t saved_{};
};

/// Runs `start(done)` once per benchmark iteration with at most `window` calls in flight (each
/// calls `done()` when it completes), waits for the last, and reports calls per second.
template <class Start>
void pipelined(benchmark::State& state, int window, Start start) {
  std::mutex mutex;
  std::condition_variable room;
  int inFlight = 0;
  std::int64_t calls = 0;
  auto done = [&] {
    {
      const std::lock_guard slots(mutex);
      --inFlight;
    }
    room.notify_one();
  };
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) {
    {
      std::unique_lock slots(mutex);
      room.wait(slots, [&] { return inFlight < window; });
      ++inFlight;
    }
    start(done);
    ++calls;
  }
  {
    std::unique_lock slots(mutex);
    room.wait(slots, [&] { return inFlight == 0; });
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  state.counters["calls_per_s"] = static_cast<double>(calls) / elapsed.count();
}

}  // namespace corvane::bench
