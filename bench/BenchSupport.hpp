#pragma once

// What the benchmarks share: where their threads run, and the process's context switches.

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

}  // namespace corvane::bench
