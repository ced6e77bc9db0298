#pragma once

#include <cstddef>
#include <liburing.h>
#include <span>
#include <sys/epoll.h>
#include <sys/types.h>
#include <utility>

namespace corvane::ipc::detail {

/// The wait of a synchronous call, on an io_uring of the calling thread.
///
/// A synchronous caller that holds the reading of its channel has disarmed the channel's read
/// registration and written its CALL. It then waits for data and arms the registration again:
/// on this ring, both go in one io_uring_enter(2), and the wait is woken through the ring. The
/// batch is complete when the function returns, so the ring holds nothing between calls and the
/// caller may release its locks.
///
/// The ring is for the wait only: measured on these machines, a caller that waits on the ring
/// is woken across CPUs faster than one blocked in recv(2), while a disarm and a write batched on
/// the ring cost more than the two plain calls.
///
/// Kernels without io_uring, or where it is forbidden (seccomp, the io_uring_disabled sysctl),
/// and a process that sets CORVANE_IPC_IO_URING=0 get no ring: the caller makes the plain system
/// calls instead. So does a call whose ring fails under it. A child process never submits to a
/// ring it inherited, whose memory it shares with its parent: its thread gets a ring of its own.
class SyncRing {
 public:
  /// The calling thread's ring, made on first use; nullptr when io_uring cannot be used. The ring
  /// belongs to the thread and is closed when the thread ends.
  static SyncRing* forThisThread() noexcept;
  /// From now on the calling thread makes the plain system calls: its ring, if it has one, is
  /// closed and none is made again.
  static void refuseForThisThread() noexcept;

  /// recv(fd, buffer) waiting until something arrives or the socket is shut down, then
  /// epoll_ctl(epoll, EPOLL_CTL_MOD, fd, arm) whatever recv returned. Returns what recv returns,
  /// with a failure as -errno (never -EINTR).
  ssize_t receiveAndArm(int fd, std::span<std::byte> buffer, int epoll, const epoll_event& arm);

  SyncRing() = default;
  SyncRing(const SyncRing&) = delete;
  SyncRing& operator=(const SyncRing&) = delete;
  ~SyncRing();

 private:
  /// The calling thread's ring object, ready or not.
  static SyncRing& ofThisThread() noexcept;
  bool setUp() noexcept;
  /// Unmaps and closes this process's copy of the ring, if it has one; submits nothing.
  void release() noexcept;
  /// Submits the two prepared requests and waits for both; their results, first and second.
  std::pair<int, int> runPair() noexcept;

  io_uring ring_{};
  bool tried_ = false;    // setUp has run (in this process)
  bool refused_ = false;  // the thread refused a ring
  bool ready_ = false;
  unsigned generation_ = 0;  // of the process that set the ring up (see forThisThread)
};

}  // namespace corvane::ipc::detail
