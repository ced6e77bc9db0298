// The batched system calls of a synchronous caller, on a socket pair and an epoll set of their
// own: the disarm really happens before the write, and the arm after the read, whatever the read
// returns.

#include "ipc/detail/SyncRing.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
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

  static msghdr messageFor(std::string_view text, iovec& part) {
    part = {const_cast<char*>(text.data()), text.size()};  // NOLINT: sendmsg takes no const
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return message;
  }

  /// Sends `text` from our end through the ring, disarming first; what disarmAndSend returned.
  ssize_t sendThroughRing(std::string_view text) {
    iovec part{};
    const auto off = disarmed();
    return ring_->disarmAndSend(epoll_.get(), ours_->get(), &off, messageFor(text, part));
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

TEST_F(SyncRingTest, SendsAfterDisarmingSoTheAnswerReportsNothing) {
  EXPECT_EQ(sendThroughRing("call"), 4);
  EXPECT_EQ(theyReceive(), "call");
  ASSERT_EQ(::send(theirs_->get(), "answer", 6, 0), 6);
  EXPECT_FALSE(reported());
}

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

TEST_F(SyncRingTest, AFullSocketFailsTheSendAtOnce) {
  const auto event = disarmed();
  std::array<char, 4096> block{};
  iovec part{block.data(), block.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  ssize_t sent = 0;
  // Nobody reads the other end: the send must report EAGAIN, never wait in the ring.
  for (int i = 0; i < 10000 && sent >= 0; ++i)
    sent = ring_->disarmAndSend(epoll_.get(), ours_->get(), &event, message);
  EXPECT_EQ(sent, -EAGAIN);
}

TEST_F(SyncRingTest, AForkedChildUsesARingOfItsOwnAndLeavesTheParentsAlone) {
  ASSERT_EQ(sendThroughRing("parent"), 6);
  ASSERT_EQ(theyReceive(), "parent");

  // The child makes a whole synchronous round trip; its exit status says how far it got.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    SyncRing* mine = SyncRing::forThisThread();
    if (mine == nullptr) ::_exit(2);
    iovec part{};
    const auto off = disarmed();
    if (mine->disarmAndSend(epoll_.get(), ours_->get(), &off, messageFor("child", part)) != 5)
      ::_exit(3);
    if (theyReceive() != "child") ::_exit(4);
    if (::send(theirs_->get(), "answer", 6, 0) != 6) ::_exit(5);
    std::array<std::byte, 16> buffer{};
    if (mine->receiveAndArm(ours_->get(), buffer, epoll_.get(), armed()) != 6) ::_exit(6);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // Had the child submitted to the ring it inherited, its requests would run here as well.
  EXPECT_EQ(sendThroughRing("again"), 5);
  EXPECT_EQ(theyReceive(), "again");
  std::array<char, 16> more{};
  EXPECT_EQ(::recv(theirs_->get(), more.data(), more.size(), MSG_DONTWAIT), -1) << "nothing more";
}

}  // namespace
