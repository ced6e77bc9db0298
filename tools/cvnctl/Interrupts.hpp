#pragma once

#include <functional>

namespace cvnctl {

/// SIGINT and SIGTERM for the whole process, taken by a thread of their own so that they are seen
/// whatever the main thread is blocked in (a --sync call included).
///
/// `start` must run first in `main`, before the library starts any thread: it blocks both signals
/// in the calling thread, so that every thread started later inherits the mask.
class Interrupts {
 public:
  using Handler = std::function<void(int)>;

  /// From now on a signal calls `fallback` on the signal thread unless a diversion is in place;
  /// the fallback must end the process.
  static void start(Handler fallback);

  /// While alive, a signal calls `handler` (on the signal thread) instead; the latest wins.
  class Diversion {
   public:
    explicit Diversion(Handler handler);
    ~Diversion();
    Diversion(const Diversion&) = delete;
    Diversion& operator=(const Diversion&) = delete;

   private:
    unsigned long id_;
  };
};

}  // namespace cvnctl
