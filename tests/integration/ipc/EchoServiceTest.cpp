#include "IpcTestSupport.hpp"
#include "support/ResidentMemory.hpp"

#include <corvane/ipc/Connection.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace corvane::ipc {
namespace {

using testing::Counter;
using testing::text;

/// Runs echo-service as a child; with `inherited` >= 0 it gets that socket the way systemd
/// passes one (fd 3, LISTEN_FDS=1, LISTEN_PID=its pid). Stops it with SIGTERM.
class EchoServiceProcess {
 public:
  EchoServiceProcess(const std::filesystem::path& directory, int inherited) {
    const std::string& dir = directory.native();
    pid_ = ::fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls between fork and exec.
      std::array<char, 64> listenPid{};
      std::array<char, 64> logLevel{};
      char listenFds[] = "LISTEN_FDS=1";
      std::snprintf(listenPid.data(), listenPid.size(), "LISTEN_PID=%d", ::getpid());
      std::snprintf(logLevel.data(), logLevel.size(), "CORVANE_LOG_LEVEL=error");
      char* environment[] = {listenFds, listenPid.data(), logLevel.data(), nullptr};
      char* noActivation[] = {logLevel.data(), nullptr};
      if (inherited == 3) ::fcntl(3, F_SETFD, 0);
      if (inherited >= 0 && inherited != 3) ::dup2(inherited, 3);
      const char* args[] = {CORVANE_ECHO_SERVICE, "--runtime-dir", dir.c_str(),
                            "--service",          "echo",          nullptr};
      ::execve(CORVANE_ECHO_SERVICE, const_cast<char**>(args),
               inherited >= 0 ? environment : noActivation);
      ::_exit(127);
    }
  }
  ~EchoServiceProcess() {
    if (pid_ > 0) stop();
  }
  EchoServiceProcess(const EchoServiceProcess&) = delete;
  EchoServiceProcess& operator=(const EchoServiceProcess&) = delete;
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  /// SIGTERM, then the exit status.
  int stop() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
};

/// Calls until the service answers (it binds asynchronously after start), bounded.
void waitUntilServing(const RemoteProxy& sync) {
  const auto deadline = std::chrono::steady_clock::now() + testing::bound;
  while (std::chrono::steady_clock::now() < deadline) {
    bool ok = false;
    sync.call("echo:reply:", text("[]"), [&](const Bytes&) { ok = true; });
    if (ok) return;
    std::this_thread::yield();
  }
  FAIL() << "echo-service did not come up";
}

void exerciseEchoService(const std::filesystem::path& directory) {
  Connection connection("echo", {directory, std::nullopt});
  Counter pushed;
  std::string pushedPayload;
  auto exported = std::make_shared<OperationTable>();
  exported->on("handleMessages:", [&](std::optional<Bytes> argument, Reply) {
    pushedPayload = std::string(argument->view());
    pushed.add();
  });
  connection.setExportedObject(exported);
  connection.resume();
  std::vector<CallError> errors;
  const auto sync =
      connection.synchronousRemoteObjectProxy([&](const CallError& e) { errors.push_back(e); });
  waitUntilServing(sync);
  errors.clear();

  std::string answer;
  sync.call("echo:reply:", text(R"({"any":"bytes"})"),
            [&](const Bytes& r) { answer = std::string(r.view()); });
  EXPECT_EQ(answer, R"({"any":"bytes"})");
  sync.call("slow:reply:", text("[30]"), [&](const Bytes& r) { answer = std::string(r.view()); });
  EXPECT_EQ(answer, "[30]");
  sync.call("push:reply:", text(R"(["message"])"),
            [&](const Bytes& r) { answer = std::string(r.view()); });
  EXPECT_EQ(answer, R"(["message"])");
  ASSERT_TRUE(pushed.waitFor(1));
  EXPECT_EQ(pushedPayload, R"(["message"])");
  EXPECT_TRUE(errors.empty());

  sync.call("nothing:reply:", text("[]"), [&](const Bytes&) { ADD_FAILURE(); });
  sync.call("slow:reply:", text("soon"), [&](const Bytes&) { ADD_FAILURE(); });
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_TRUE(errors[0].is(ConnectionError::peerFault));
  EXPECT_EQ(errors[0].reason(), "unknown operation nothing:reply:");
  EXPECT_TRUE(errors[1].is(ConnectionError::peerFault));
}

TEST(EchoService, ServesItsOperationsAndStopsCleanlyOnSigterm) {
  testing::TemporaryDirectory directory;
  EchoServiceProcess service(directory.path(), -1);
  exerciseEchoService(directory.path());
  const int status = service.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(std::filesystem::exists(directory.path() / "echo")) << "socket left behind";
}

TEST(EchoService, AdoptsASocketPassedBySocketActivation) {
  testing::TemporaryDirectory directory;
  const auto path = directory.path() / "echo";
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.native().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd, 8), 0);
  {
    EchoServiceProcess service(directory.path(), fd);
    ::close(fd);  // the child holds it now; only it accepts
    exerciseEchoService(directory.path());
    const int status = service.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  // An adopted socket belongs to the service manager: it stays.
  EXPECT_TRUE(std::filesystem::exists(path));
}

/// Waits (bounded) until `done` holds, looking every few milliseconds.
template <class Condition>
bool eventually(Condition done) {
  const auto deadline = std::chrono::steady_clock::now() + testing::bound;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Three clients each sending most of a 60 MiB frame held 317 MB in the service, about 1.8 times
// what they sent: the frame's buffer grew by doubling, and each grown copy was zeroed. A partly
// received frame now holds close to what has arrived of it, and it goes back when its client does.
TEST(EchoService, PartlySentLargeFramesHoldAboutWhatArrived) {
  if (!corvane::testing::residentSizeIsMeaningful) {
    GTEST_SKIP() << "resident sizes measure the sanitizer's allocator in this build";
  }
  testing::TemporaryDirectory directory;
  EchoServiceProcess service(directory.path(), -1);
  {
    Connection connection("echo", {directory.path(), std::nullopt});
    connection.resume();
    waitUntilServing(connection.synchronousRemoteObjectProxy({}));
  }
  const std::size_t idle = corvane::testing::residentBytes(service.pid());
  ASSERT_GT(idle, 0U);

  constexpr std::size_t clients = 3;
  constexpr std::size_t declared = std::size_t{60} * 1024 * 1024;
  constexpr std::size_t sent = declared / 10 * 9;
  std::vector<std::byte> start = testing::frame(FrameKind::hello, 0, "", helloPayload);
  std::vector<std::byte> header;
  encodeFrameHeader(header, FrameKind::call, 1, "echo:reply:", true, declared);
  start.insert(start.end(), header.begin(), header.end());
  const std::vector<std::byte> body(sent, std::byte{'x'});
  std::vector<testing::RawSocket> partial;
  for (std::size_t i = 0; i < clients; ++i) {
    partial.push_back(testing::RawSocket::connectTo(directory.path() / "echo"));
    ASSERT_EQ(partial.back().writeAll(start), testing::RawSocket::Write::written) << i;
    ASSERT_EQ(partial.back().writeAll(body), testing::RawSocket::Write::written) << i;
  }
  // Everything sent has been read once nothing waits in the sockets any more.
  ASSERT_TRUE(eventually([&] {
    return std::ranges::all_of(partial, [](const testing::RawSocket& s) {
      int unread = 0;
      return ::ioctl(s.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
    });
  })) << "the service did not read what was sent";

  const std::size_t held = corvane::testing::residentBytes(service.pid()) - idle;
  EXPECT_LT(held, clients * sent / 4 * 5) << "held " << held << " for " << clients * sent;
  EXPECT_GT(held, clients * sent / 2) << "the service does not hold what it read";

  partial.clear();
  std::size_t after = 0;
  EXPECT_TRUE(eventually([&] {
    after = corvane::testing::residentBytes(service.pid());
    return after < idle + std::size_t{4} * 1024 * 1024;
  })) << "idle "
      << idle << ", after the clients left " << after;
  EXPECT_EQ(service.stop(), 0);
}

}  // namespace
}  // namespace corvane::ipc
