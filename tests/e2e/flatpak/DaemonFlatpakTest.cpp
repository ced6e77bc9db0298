// corvaned with the Flatpak engine, as a real process with a private installation and the test
// repository, driven through the library: what only this engine has. A managed app's files are
// on disk, it runs as its caller and goes with its declaration; a poll finds a new build and the
// app is updated to it; a .flatpakref manifest installs the app it names; an app installed without
// the daemon is left alone; a managed app uninstalled behind the daemon's back is noticed. What
// behaves the same on both engines is in tests/e2e/daemon/DaemonTest.cpp.
// Each case runs in a process of its own, so each gets a fresh shared connection.

#include "Installation.hpp"
#include "Transaction.hpp"
#include "support/EngineDaemon.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/url/url.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace corvane::testing {
namespace {

using State = ManagedAppStatus::State;
using Reason = ManagedAppStatus::Reason;
using namespace std::chrono_literals;

const std::string& hello = flatpakEngine.hello;
const std::string& quiet = flatpakEngine.quiet;
constexpr const char* branch = "stable";

/// Whether `path` appears within the bound: checked every 50 ms, as nothing announces it.
bool appears(const std::filesystem::path& path) {
  const auto until = std::chrono::steady_clock::now() + bound;
  while (!std::filesystem::exists(path)) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

class DaemonFlatpak : public EngineDaemon {
 protected:
  DaemonFlatpak() : EngineDaemon(flatpakEngine) {}
  void start() { EngineDaemon::start(Pace::quick, {"--verbose"}); }
  /// The private installation as the test process opens it, with the test remote.
  [[nodiscard]] flatpak::Installation openInstallation() const {
    auto opened = flatpak::Installation::openAt(installation());
    if (opened.remotes().empty()) opened.addRemote("corvane-test", TestRepository::get().url());
    return opened;
  }
};

TEST_F(DaemonFlatpak, AManagedAppIsOnDiskRunsAsItsCallerAndGoesWithItsDeclaration) {
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(hello));
  ASSERT_TRUE(reaches(progress, hello, AppState::managed()));
  // Really installed: the app's own files, and the runtime it needs.
  EXPECT_EQ(readFile(files(hello) / "version"), "1.0\n");
  EXPECT_TRUE(std::filesystem::exists(installation() / "runtime/org.corvane.Platform"));

  // The daemon's caller is this process's user: the app writes into this HOME.
  AppLaunchRequest{hello}.perform(boost::asio::use_future).get();
  const auto marker = TestRepository::get().home() / ".var/app" / hello / "data/corvane-marker";
  EXPECT_TRUE(appears(marker)) << daemon_->process().err();

  DDMRemoveManagedAppRequest{"D-hello"}.performSynchronously();
  EXPECT_TRUE(daemon_->process().waitForError(fmt::format("{}: uninstalled", hello), bound));
  EXPECT_FALSE(std::filesystem::exists(installation() / "app" / hello));
  EXPECT_EQ(daemon_->stop(), 0);
}

TEST_F(DaemonFlatpak, APollFindsANewBuildAndTheDeclaredAppIsUpdatedToIt) {
  // A repository of this test's own, since a new version goes into it.
  const TemporaryDirectory own;
  TestRepository::build(own.path());
  remote_ = "file://" + (own.path() / "repo").native();
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(hello));
  ASSERT_TRUE(readUntil(
      progress, [](const AppProgress& value) { return value.state == AppState::managed(); }));
  EXPECT_EQ(readFile(files(hello) / "version"), "1.0\n");

  TestRepository::addUpdate(own.path());
  DDMPollForUpdatesRequest{}.perform(boost::asio::use_future).get();
  // The update downloads while the app stays installed, then it is managed again.
  bool updating = false;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    updating = updating || std::holds_alternative<AppState::Downloading>(value.state.cases());
    return updating && value.state == AppState::managed();
  }));
  const auto status = statusOf("D-hello");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::managed);
  EXPECT_EQ(status->updateState, std::nullopt);
  EXPECT_TRUE(status->reasons.empty());
  ASSERT_TRUE(status->installedVersionInfo.has_value());
  EXPECT_EQ(status->installedVersionInfo->bundleShortVersion, "2.0");
  EXPECT_EQ(readFile(files(hello) / "version"), "2.0\n");
}

TEST_F(DaemonFlatpak, AFlatpakrefManifestInstallsTheAppItNames) {
  start();
  const auto install = [](const std::filesystem::path& manifest) {
    InstallEnterpriseManifestRequest(EnterpriseApp(boost::urls::url("file://" + manifest.native())))
        .perform(boost::asio::use_future)
        .get();
  };
  struct Row {
    const char* what;
    std::string contents;
    std::string says;
  };
  const std::vector<Row> refused = {
      {"not a key file", "this is not a flatpakref\n", "is not a .flatpakref: "},
      {"no app named", "[Flatpak Ref]\nUrl=" + TestRepository::get().url() + "\n",
       "it names no app (Name)"},
  };
  for (const auto& row : refused) {
    SCOPED_TRACE(row.what);
    const auto manifest = state_.path() / "bad.flatpakref";
    std::ofstream(manifest) << row.contents;
    const auto error = failureOf([&] { install(manifest); });
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->cause().find(row.says), std::string::npos) << error->cause();
  }

  auto progress = ManagedAppLibrary::shared().progressUpdates();
  install(TestRepository::get().outDir() / (hello + ".flatpakref"));
  ASSERT_TRUE(reaches(progress, hello, AppState::managed()));
  EXPECT_EQ(readFile(files(hello) / "version"), "1.0\n");
}

TEST_F(DaemonFlatpak, AnAppInstalledWithoutTheDaemonIsLeftAlone) {
  {
    auto installation = openInstallation();
    flatpak::Transaction transaction(installation);
    transaction.addInstall("corvane-test", flatpak::appRef(hello, branch));
    transaction.run();
  }
  start();
  declare("D-hello", StoreAppIdentifier::bundleID(hello));
  const auto status = statusOf("D-hello");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::failed);
  EXPECT_EQ(status->reasons, std::vector<Reason>{Reason::unmanagedAppAlreadyInstalled});

  // The declaration goes; so would an install of the daemon's own. An install queued after it
  // finishing shows the workers got that far.
  DDMRemoveManagedAppRequest{"D-hello"}.performSynchronously();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-quiet", StoreAppIdentifier::bundleID(quiet));
  ASSERT_TRUE(reaches(progress, quiet, AppState::managed()));
  ASSERT_TRUE(daemon_->process().waitForError(quiet + ": Managed"));
  EXPECT_TRUE(std::filesystem::exists(files(hello)));
  EXPECT_EQ(daemon_->process().err().find(fmt::format("{}: uninstalled", hello)),
            std::string::npos);
}

TEST_F(DaemonFlatpak, AManagedAppUninstalledBehindTheDaemonsBackIsNoticedRunningOrNot) {
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(hello));
  declare("D-quiet", StoreAppIdentifier::bundleID(quiet));
  std::set<std::string> managed;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    if (value.state == AppState::managed()) managed.insert(value.bundleID);
    return managed.size() == 2;
  }));

  openInstallation().uninstall(flatpak::appRef(hello, branch));
  ASSERT_TRUE(reaches(progress, hello, AppState::available(AppState::Availability::available)));
  EXPECT_EQ(statusOf("D-hello")->state, State::managedButUninstalled);

  ASSERT_EQ(daemon_->stop(), 0);
  openInstallation().uninstall(flatpak::appRef(quiet, branch));
  // The records are reconciled with the installation before the first client is served.
  daemon_->restart();
  EXPECT_EQ(statusOf("D-quiet")->state, State::managedButUninstalled);
}

}  // namespace
}  // namespace corvane::testing
