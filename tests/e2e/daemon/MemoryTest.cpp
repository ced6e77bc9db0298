// What clients can make corvaned-sim hold, measured on a real daemon: bursts of connections that
// send nothing, past its connection limits, while one well-behaved client keeps being served.

#include "support/DaemonProcess.hpp"
#include "support/ResidentMemory.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/Frame.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <poll.h>
#include <span>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto bound = 30s;
constexpr std::size_t mebibyte = std::size_t{1024} * 1024;
constexpr std::size_t perUserLimit = 256;  // the daemon's default
/// Flood connections open at once (each round), within the test's own descriptors.
constexpr std::size_t round = 4000;

/// Raises this process's descriptor limit to its hard limit; false if that cannot hold a round.
bool enoughDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  limit.rlim_cur = limit.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  return limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur > round + 256;
}

/// A connected socket that sends nothing; -1 if connecting failed.
int connectQuietly(const std::filesystem::path& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.native().copy(address.sun_path, sizeof address.sun_path - 1);
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

/// Waits (bounded) until at most `open` of `fds` are still open on the daemon's side, that is,
/// have not seen the end of the stream: the daemon closed the rest. Returns how many are open.
std::size_t waitUntilRefused(const std::vector<int>& fds, std::size_t open) {
  std::vector<pollfd> watched;
  watched.reserve(fds.size());
  for (const int fd : fds) watched.push_back({fd, POLLIN, 0});
  std::size_t ended = 0;
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (fds.size() - ended > open && std::chrono::steady_clock::now() < deadline) {
    if (::poll(watched.data(), watched.size(), 100) <= 0) continue;
    for (auto& entry : watched) {
      if (entry.fd < 0 || entry.revents == 0) continue;
      // Nothing is sent before the client's HELLO, so anything readable is the end.
      entry.fd = -1;
      ++ended;
    }
  }
  return fds.size() - ended;
}

/// A client of the daemon that answers its pushes and calls it.
class WellBehavedClient {
 public:
  explicit WellBehavedClient(const std::filesystem::path& directory)
      : connection_("dev.corvane.corvaneagent", {directory, std::nullopt}) {
    auto table = std::make_shared<ipc::OperationTable>();
    table->on("handleMessages:", [](std::optional<Bytes>, ipc::Reply) {});
    connection_.setExportedObject(std::move(table));
    connection_.resume();
  }
  /// Whether a call is answered within the bound.
  bool served() {
    auto answered = std::make_shared<std::promise<bool>>();
    auto outcome = answered->get_future();
    connection_.remoteObjectProxy({}).call(
        "currentDeclarationKeysWithReply:", std::nullopt,
        [answered](ipc::CallResult result) { answered->set_value(result.hasReply()); });
    return outcome.wait_for(bound) == std::future_status::ready && outcome.get();
  }

 private:
  ipc::Connection connection_;
};

/// Waits (bounded) until `done` holds, looking every few milliseconds.
template <class Condition>
bool eventually(Condition done) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

/// `burst` connections that send nothing, `round` at a time: each round is held open until the
/// daemon has refused all but what one user may have, then `measure` runs, `client` must be
/// served, and the round is closed.
template <class Measure>
void flood(const std::filesystem::path& socket, std::size_t burst, WellBehavedClient& client,
           Measure measure) {
  for (std::size_t made = 0; made < burst; made += round) {
    std::vector<int> fds;
    for (std::size_t i = 0; i < std::min(round, burst - made); ++i) {
      const int fd = connectQuietly(socket);
      if (fd >= 0) fds.push_back(fd);
    }
    // The well-behaved client holds one of its user's connections.
    const std::size_t open = waitUntilRefused(fds, perUserLimit - 1);
    EXPECT_LE(open, perUserLimit - 1) << "of " << fds.size();
    EXPECT_GT(open, 0U) << "the daemon refused connections within its limits";
    measure();
    EXPECT_TRUE(client.served()) << "while the flood is past the limits";
    for (const int fd : fds) ::close(fd);
  }
}

// Every connection made the daemon zero a 64 KiB receive buffer on its first read, even one that
// only found the end of the stream, and nothing limited how many a user could open: 5,000 clients
// that connected and closed took it from 8 MB to 340 MB, and it stayed there. Past its limits
// connections are now refused at once, a connection holds no receive memory before it sends, and
// the freed memory goes back to the system once the clients are gone.
TEST(DaemonMemory, ConnectionBurstsAreRefusedPastTheLimitsAndLeaveNothingBehind) {
  if (!enoughDescriptors()) GTEST_SKIP() << "the hard descriptor limit is below " << round + 256;
  // The refusals are read from its standard error, whatever log the machine has.
  ::setenv("CORVANE_LOG_BACKEND", "stderr", 1);  // NOLINT(concurrency-mt-unsafe): no threads yet
  TemporaryDirectory directory;
  DaemonProcess daemon(directory.path());
  const pid_t pid = daemon.process().pid();
  WellBehavedClient client(directory.path());
  ASSERT_TRUE(client.served());
  const std::size_t idleDescriptors = openDescriptors(pid);
  const std::size_t idle = residentBytes(pid);
  ASSERT_GT(idle, 0U);

  for (const std::size_t burst : {std::size_t{5000}, std::size_t{20000}}) {
    SCOPED_TRACE(::testing::Message() << burst << " connections");
    std::size_t peak = 0;
    flood(daemon.socketPath(), burst, client, [&] { peak = std::max(peak, residentBytes(pid)); });
    EXPECT_TRUE(eventually([&] { return openDescriptors(pid) <= idleDescriptors; }))
        << openDescriptors(pid) << " descriptors open, " << idleDescriptors << " when idle";
    if (residentSizeIsMeaningful) {
      EXPECT_LT(peak, idle + 64 * mebibyte) << "idle " << idle / mebibyte << " MiB";
      // Back within a few MB of its idle size once the clients are gone.
      std::size_t after = 0;
      EXPECT_TRUE(eventually([&] {
        after = residentBytes(pid);
        return after < idle + 4 * mebibyte;
      })) << "idle "
          << idle / 1024 << " KiB, after the burst " << after / 1024 << " KiB";
    }
  }
  EXPECT_TRUE(daemon.process().waitForError("Refused a connection"));
  EXPECT_TRUE(client.served());
  EXPECT_EQ(daemon.stop(), 0);
}

/// VmSize of `pid` in bytes (0 if it cannot be read).
std::size_t addressSpaceBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmSize:")) return std::stoull(line.substr(7)) * 1024;
  }
  return 0;
}

/// A client that sends its HELLO and `sent` bytes of a CALL announced at `declared` bytes; the
/// socket, or -1 if it could not connect. The daemon may cut it off on the way.
int sendPartOfAFrame(const std::filesystem::path& socket, std::size_t declared, std::size_t sent) {
  const int fd = connectQuietly(socket);
  if (fd < 0) return -1;
  // A daemon that stopped reading without closing fails the test rather than hanging it.
  const timeval bounded{std::chrono::duration_cast<std::chrono::seconds>(bound).count(), 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bounded, sizeof bounded);
  std::vector<std::byte> bytes =
      ipc::encodeFrame(ipc::Frame{ipc::FrameKind::hello, 0, "", Bytes(ipc::helloPayload)});
  std::vector<std::byte> header;
  ipc::encodeFrameHeader(header, ipc::FrameKind::call, 1, "currentDeclarationKeysWithReply:", true,
                         declared);
  bytes.insert(bytes.end(), header.begin(), header.end());
  bytes.resize(bytes.size() + sent, std::byte{'x'});
  std::span<const std::byte> left(bytes);
  while (!left.empty()) {
    const ssize_t n = ::send(fd, left.data(), left.size(), MSG_NOSIGNAL);
    if (n <= 0) break;  // cut off past the receive budget (or timed out: see the call below)
    left = left.subspan(static_cast<std::size_t>(n));
  }
  return fd;
}

// Under an address-space limit of its idle size + 128 MiB (ulimit -v), the daemon died of
// std::bad_alloc in a burst of connections. It now lives through the bursts and three partly
// sent 60 MiB frames, and serves a well-behaved client afterwards.
TEST(DaemonMemory, SurvivesBurstsAndLargeFramesWithinItsIdleAddressSpacePlus128MiB) {
  if (!residentSizeIsMeaningful) {
    GTEST_SKIP() << "the sanitizers reserve address space by the terabyte in this build";
  }
  if (!enoughDescriptors()) GTEST_SKIP() << "the hard descriptor limit is below " << round + 256;
  TemporaryDirectory directory;
  std::size_t idle = 0;
  {
    DaemonProcess plain(directory.path());
    idle = addressSpaceBytes(plain.process().pid());
    ASSERT_EQ(plain.stop(), 0);
  }
  ASSERT_GT(idle, 0U);
  const std::size_t limitKiB = (idle + 128 * mebibyte) / 1024;
  Process daemon({"sh", "-c", "ulimit -v " + std::to_string(limitKiB) + " && exec \"$0\" \"$@\"",
                  DaemonProcess::binary(), "--runtime-dir", directory.path().native()});
  ASSERT_TRUE(daemon.waitForOutput(DaemonProcess::readyLine)) << daemon.err();
  const auto socket = directory.path() / "dev.corvane.corvaneagent";
  WellBehavedClient client(directory.path());
  ASSERT_TRUE(client.served());

  flood(socket, 20000, client, [] {});
  constexpr std::size_t declared = std::size_t{60} * 1024 * 1024;
  const std::array partial{sendPartOfAFrame(socket, declared, declared / 10 * 9),
                           sendPartOfAFrame(socket, declared, declared / 10 * 9),
                           sendPartOfAFrame(socket, declared, declared / 10 * 9)};
  EXPECT_TRUE(client.served()) << daemon.err();
  for (const int fd : partial) {
    if (fd >= 0) ::close(fd);
  }
  EXPECT_TRUE(client.served()) << daemon.err();
  EXPECT_EQ(daemon.terminate(), 0) << daemon.err();
}

}  // namespace
}  // namespace corvane::testing
