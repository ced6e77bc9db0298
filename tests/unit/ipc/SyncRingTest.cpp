// The batched wait of a synchronous caller, on a socket pair and an epoll set of their own: the
// arm really happens after the read, whatever the read returns.

#include "ipc/detail/SyncRing.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using corvane::ipc::detail::SyncRing;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

class SyncRingTest : public testing::Test {
 protected:
  void SetUp() override {
    ring_ = SyncRing::forThisThread();
    if (ring_ == nullptr) GTEST_SKIP() << "io_uring is not available here";
    std::array<int, 2> fds{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    ours_.emplace(fds[0]);
    theirs_.emplace(fds[1]);
    epoll_event event = armed();
    ASSERT_EQ(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, ours_->get(), &event), 0);
  }

  static epoll_event armed() {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = 7;
    return event;
  }
  static epoll_event disarmed() {
    epoll_event event{};
    event.events = EPOLLET;
    event.data.u64 = 7;
    return event;
  }

  void disarmOurs() {
    auto off = disarmed();
    ASSERT_EQ(::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, ours_->get(), &off), 0);
  }

  /// Whether the epoll set reports our socket now (without waiting).
  bool reported() const {
    epoll_event event{};
    return ::epoll_wait(epoll_.get(), &event, 1, 0) == 1;
  }

  /// What our end reads through the ring (waiting until something arrives), arming it after.
  std::string receiveThroughRing() {
    std::array<char, 64> got{};
    const ssize_t n = ring_->receiveAndArm(ours_->get(), std::as_writable_bytes(std::span(got)),
                                           epoll_.get(), armed());
    return n > 0 ? std::string(got.data(), static_cast<std::size_t>(n)) : std::string();
  }
  /// What the other end reads (waiting until something arrives).
  std::string theyReceive() const {
    std::array<char, 64> got{};
    const ssize_t n = ::recv(theirs_->get(), got.data(), got.size(), 0);
    return n > 0 ? std::string(got.data(), static_cast<std::size_t>(n)) : std::string();
  }

  SyncRing* ring_ = nullptr;
  Fd epoll_{::epoll_create1(EPOLL_CLOEXEC)};
  std::optional<Fd> ours_;
  std::optional<Fd> theirs_;
};

TEST_F(SyncRingTest, ReceivesThenArmsSoLaterDataIsReported) {
  ASSERT_NO_FATAL_FAILURE(disarmOurs());
  ASSERT_EQ(::send(theirs_->get(), "answer", 6, 0), 6);
  std::array<std::byte, 64> buffer{};
  EXPECT_EQ(ring_->receiveAndArm(ours_->get(), buffer, epoll_.get(), armed()), 6);
  EXPECT_EQ(std::memcmp(buffer.data(), "answer", 6), 0);
  EXPECT_FALSE(reported());  // the answer was taken before arming
  ASSERT_EQ(::send(theirs_->get(), "push", 4, 0), 4);
  EXPECT_TRUE(reported());
}

TEST_F(SyncRingTest, ArmsEvenWhenThePeerHasGone) {
  ASSERT_NO_FATAL_FAILURE(disarmOurs());
  theirs_.reset();
  std::array<std::byte, 64> buffer{};
  EXPECT_EQ(ring_->receiveAndArm(ours_->get(), buffer, epoll_.get(), armed()), 0);
  // Arming reports the hang-up, so a worker would see the end too.
  EXPECT_TRUE(reported());
}

TEST_F(SyncRingTest, AForkedChildUsesARingOfItsOwnAndLeavesTheParentsAlone) {
  ASSERT_NO_FATAL_FAILURE(disarmOurs());
  ASSERT_EQ(::send(theirs_->get(), "first", 5, 0), 5);
  ASSERT_EQ(receiveThroughRing(), "first");

  // The child makes a whole synchronous round trip; its exit status says how far it got.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (SyncRing::forThisThread() == nullptr) ::_exit(2);
    auto off = disarmed();
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, ours_->get(), &off) != 0) ::_exit(3);
    if (::send(ours_->get(), "child", 5, 0) != 5) ::_exit(4);
    if (theyReceive() != "child") ::_exit(5);
    if (::send(theirs_->get(), "answer", 6, 0) != 6) ::_exit(6);
    if (receiveThroughRing() != "answer") ::_exit(7);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // A request of the child's left in the ring the two share would take these bytes first.
  ASSERT_NO_FATAL_FAILURE(disarmOurs());
  ASSERT_EQ(::send(theirs_->get(), "again", 5, 0), 5);
  ::shutdown(theirs_->get(), SHUT_WR);  // a stolen read leaves ours at the end, not waiting
  EXPECT_EQ(receiveThroughRing(), "again");
  EXPECT_TRUE(reported()) << "armed again after the read";
}

}  // namespace
