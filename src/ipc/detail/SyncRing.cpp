#include "ipc/detail/SyncRing.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <system_error>

namespace corvane::ipc::detail {

namespace {

constexpr unsigned ringEntries = 4;
/// A result for a request the kernel never took.
constexpr int notRun = INT_MIN;

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
         && io_uring_opcode_supported(probe.get(), IORING_OP_SENDMSG) != 0
         && io_uring_opcode_supported(probe.get(), IORING_OP_RECV) != 0;
}

}  // namespace

SyncRing& SyncRing::ofThisThread() noexcept {
  thread_local SyncRing ring;
  return ring;
}

SyncRing* SyncRing::forThisThread() noexcept {
  static const bool disabled = disabledByEnvironment();
  if (disabled) return nullptr;
  auto& ring = ofThisThread();
  if (!ring.tried_) {
    ring.tried_ = true;
    ring.ready_ = ring.setUp();
  }
  return ring.ready_ ? &ring : nullptr;
}

void SyncRing::refuseForThisThread() noexcept {
  auto& ring = ofThisThread();
  ring.tried_ = true;
  if (std::exchange(ring.ready_, false)) io_uring_queue_exit(&ring.ring_);
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
  if (ready_) io_uring_queue_exit(&ring_);
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
  if (broken) {
    // Requests the kernel did not take stay in the queue; the ring is not used again.
    io_uring_queue_exit(&ring_);
    ready_ = false;
  }
  return {results[0], results[1]};
}

ssize_t SyncRing::disarmAndSend(int epoll, int fd, const epoll_event* disarm,
                                const msghdr& message) {
  if (disarm == nullptr) {
    const ssize_t sent = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 ? -errno : sent;
  }
  io_uring_sqe* control = io_uring_get_sqe(&ring_);
  io_uring_sqe* send = io_uring_get_sqe(&ring_);
  if (control == nullptr || send == nullptr) return -EAGAIN;  // never: the ring is empty now
  io_uring_prep_epoll_ctl(control, epoll, fd, EPOLL_CTL_MOD, const_cast<epoll_event*>(disarm));
  io_uring_sqe_set_data64(control, 1);
  // A hard link: the CALL leaves after the disarm, and even if the disarm fails.
  control->flags |= IOSQE_IO_HARDLINK;
  // MSG_DONTWAIT makes a full socket fail the send at once instead of leaving it in the ring.
  io_uring_prep_sendmsg(send, fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  io_uring_sqe_set_data64(send, 2);
  const auto [controlled, sent] = runPair();
  if (controlled == notRun) ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, const_cast<epoll_event*>(disarm));
  if (sent != notRun) return sent;
  const ssize_t plain = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  return plain < 0 ? -errno : plain;
}

ssize_t SyncRing::receiveAndArm(int fd, std::span<std::byte> buffer, int epoll,
                                const epoll_event& arm) {
  io_uring_sqe* receive = io_uring_get_sqe(&ring_);
  io_uring_sqe* control = io_uring_get_sqe(&ring_);
  if (receive == nullptr || control == nullptr) return -EAGAIN;  // never: the ring is empty now
  io_uring_prep_recv(receive, fd, buffer.data(), buffer.size(), 0);
  io_uring_sqe_set_data64(receive, 1);
  receive->flags |= IOSQE_IO_HARDLINK;  // armed again whatever recv returned
  io_uring_prep_epoll_ctl(control, epoll, fd, EPOLL_CTL_MOD, const_cast<epoll_event*>(&arm));
  io_uring_sqe_set_data64(control, 2);
  auto [received, controlled] = runPair();
  if (controlled == notRun) ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, const_cast<epoll_event*>(&arm));
  while (received == -EINTR || received == notRun) {
    received = static_cast<int>(::recv(fd, buffer.data(), buffer.size(), 0));
    if (received < 0) received = -errno;
  }
  return received;
}

}  // namespace corvane::ipc::detail
