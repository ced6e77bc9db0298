// corvaned on the Flatpak engine launching an app: it answers once its worker has started the
// launcher, and no descriptor of the daemon's would survive into a process it starts (each is
// close-on-exec; the launcher closes all of them besides).

#include "FlatpakDaemon.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;
using FlatpakLaunch = FlatpakDaemon;

constexpr std::string_view hello = "org.corvane.Test.Hello";

/// The descriptors of `pid` past standard error that are not close-on-exec, with what they are.
std::map<int, std::string> inheritable(::pid_t pid) {
  const auto proc = std::filesystem::path("/proc") / std::to_string(pid);
  std::map<int, std::string> found;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(proc / "fdinfo", gone)) {
    const int fd = std::stoi(entry.path().filename().string());
    const std::string info = readFile(entry.path());
    const auto at = info.find("flags:");
    if (fd <= 2 || at == std::string::npos) continue;  // closed meanwhile
    if ((std::stoul(info.substr(at + 6), nullptr, 8) & O_CLOEXEC) == 0)
      found.emplace(fd, std::filesystem::read_symlink(proc / "fd" / std::to_string(fd), gone));
  }
  return found;
}

TEST_F(FlatpakLaunch, EveryDescriptorOfTheDaemonIsCloseOnExec) {
  // What the test itself inherited (from its runner) the daemon inherits too: not its own.
  const auto inherited = inheritable(::getpid());
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  ASSERT_TRUE(readUntil(progress, [](const AppProgress& value) {
    return value.bundleID == hello && value.state == AppState::managed();
  }));
  AppLaunchRequest{std::string(hello)}.perform(boost::asio::use_future).get();
  const auto marker = TestRepository::get().home() / ".var/app" / hello / "data/corvane-marker";
  // Nothing announces the app's run: looked for every 50 ms, within the bound.
  const auto until = std::chrono::steady_clock::now() + bound;
  while (!std::filesystem::exists(marker) && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(50ms);
  ASSERT_TRUE(std::filesystem::exists(marker)) << daemon_->process().err();

  // Every descriptor the daemon holds now: its socket, connections, the store, libflatpak's.
  for (const auto& [fd, what] : inheritable(daemon_->process().pid()))
    EXPECT_TRUE(inherited.contains(fd)) << "fd " << fd << " (" << what << ") is not close-on-exec";
}

}  // namespace
}  // namespace corvane::testing
