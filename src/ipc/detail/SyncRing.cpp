#include "ipc/detail/SyncRing.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <tuple>
#include <utility>

namespace corvane::ipc::detail {

namespace {

constexpr unsigned ringEntries = 4;
/// A result for a request the kernel never took.
constexpr int notRun = INT_MIN;

/// Counts the forks this process descends from since it first looked for a ring, so that a
/// thread can tell a ring of its parent's (set up in an earlier generation) from its own.
std::atomic<unsigned> forkGeneration{0};

void afterForkInChild() noexcept {
  forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

bool disabledByEnvironment() noexcept {
  const char* value = std::getenv("CORVANE_IPC_IO_URING");  // NOLINT(concurrency-mt-unsafe)
  return value != nullptr && std::string_view(value) == "0";
}

struct ProbeDeleter {
  void operator()(io_uring_probe* probe) const noexcept { io_uring_free_probe(probe); }
};

bool supportsOurOperations(io_uring& ring) noexcept {
  const std::unique_ptr<io_uring_probe, ProbeDeleter> probe(io_uring_get_probe_ring(&ring));
  return probe && io_uring_opcode_supported(probe.get(), IORING_OP_EPOLL_CTL) != 0
         && io_uring_opcode_supported(probe.get(), IORING_OP_RECV) != 0;
}

}  // namespace

SyncRing& SyncRing::ofThisThread() noexcept {
  thread_local SyncRing ring;
  return ring;
}

SyncRing* SyncRing::forThisThread() noexcept {
  static const bool disabled = [] {
    // Before any ring exists, so that every fork that could copy one is counted.
    ::pthread_atfork(nullptr, nullptr, afterForkInChild);
    return disabledByEnvironment();
  }();
  if (disabled) return nullptr;
  auto& ring = ofThisThread();
  if (ring.refused_) return nullptr;
  const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
  if (ring.tried_ && ring.generation_ != generation) {
    // Set up by the parent: its submission queue is the parent's memory as well.
    ring.release();
    ring.tried_ = false;
  }
  if (!ring.tried_) {
    ring.tried_ = true;
    ring.generation_ = generation;
    ring.ready_ = ring.setUp();
  }
  return ring.ready_ ? &ring : nullptr;
}

void SyncRing::refuseForThisThread() noexcept {
  auto& ring = ofThisThread();
  ring.refused_ = true;
  ring.release();
}

void SyncRing::release() noexcept {
  if (std::exchange(ready_, false)) io_uring_queue_exit(&ring_);
}

bool SyncRing::setUp() noexcept {
  io_uring_params params{};
  // Only this thread submits, and it looks for completions only while it waits for them.
  params.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
  if (io_uring_queue_init_params(ringEntries, &ring_, &params) < 0) {
    params = {};  // a kernel older than 6.1
    if (io_uring_queue_init_params(ringEntries, &ring_, &params) < 0) return false;
  }
  if (supportsOurOperations(ring_)) return true;
  io_uring_queue_exit(&ring_);
  return false;
}

SyncRing::~SyncRing() {
  release();
}

std::pair<int, int> SyncRing::runPair() noexcept {
  std::array<int, 2> results{notRun, notRun};
  const int submitted = io_uring_submit_and_wait(&ring_, 2);
  unsigned pending = submitted > 0 ? static_cast<unsigned>(submitted) : 0;
  if (submitted == -EINTR) pending = 2;  // a signal during the wait; both were taken
  bool broken = submitted != 2 && submitted != -EINTR;
  while (pending > 0) {
    io_uring_cqe* completion = nullptr;
    const int waited = io_uring_wait_cqe(&ring_, &completion);
    if (waited == -EINTR || waited == -EAGAIN) continue;
    if (waited < 0) {
      // Cannot happen with two requests on a ring of four; closing the ring cancels what is
      // still in flight, so that nothing writes into the caller's buffer later.
      LogCategory::tether().fault("io_uring wait failed: {}",
                                  std::error_code(-waited, std::system_category()).message());
      broken = true;
      break;
    }
    const auto tag = completion->user_data;
    if (tag == 1 || tag == 2) results.at(tag - 1) = completion->res;
    io_uring_cqe_seen(&ring_, completion);
    --pending;
  }
  // Requests the kernel did not take stay in the queue; the ring is not used again.
  if (broken) release();
  return {results[0], results[1]};
}

ssize_t SyncRing::receiveAndArm(int fd, std::span<std::byte> buffer, int epoll,
                                const epoll_event& arm) {
  int received = notRun;
  int controlled = notRun;
  if (ready_) {
    io_uring_sqe* receive = io_uring_get_sqe(&ring_);
    io_uring_sqe* control = io_uring_get_sqe(&ring_);
    if (receive == nullptr || control == nullptr) return -EAGAIN;  // never: the ring is empty now
    io_uring_prep_recv(receive, fd, buffer.data(), buffer.size(), 0);
    io_uring_sqe_set_data64(receive, 1);
    receive->flags |= IOSQE_IO_HARDLINK;  // armed again whatever recv returned
    io_uring_prep_epoll_ctl(control, epoll, fd, EPOLL_CTL_MOD, const_cast<epoll_event*>(&arm));
    io_uring_sqe_set_data64(control, 2);
    std::tie(received, controlled) = runPair();
  }
  while (received == -EINTR || received == notRun) {
    received = static_cast<int>(::recv(fd, buffer.data(), buffer.size(), 0));
    if (received < 0) received = -errno;
  }
  // Armed after the read, as the ring would have done.
  if (controlled == notRun) ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, const_cast<epoll_event*>(&arm));
  return received;
}

}  // namespace corvane::ipc::detail
