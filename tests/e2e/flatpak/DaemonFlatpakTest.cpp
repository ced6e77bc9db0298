// corvaned with the Flatpak engine, as a real process with a private installation and the test
// repository, driven through the library: a declared app is really installed (its files on disk,
// its version in the status) and uninstalled with its declaration; an app no remote offers and
// one whose runtime is missing fail with their reasons; a cancel mid-download leaves nothing
// installed; SIGKILL mid-install and a restart finish the install once; a managed app is launched
// as its caller; a .flatpakref manifest installs the app it names; an app installed without the
// daemon is left alone; a managed app uninstalled behind the daemon's back is noticed.
// Each case runs in a process of its own, so each gets a fresh shared connection.

#include "Installation.hpp"
#include "TestRepository.hpp"
#include "Transaction.hpp"
#include "support/DaemonProcess.hpp"
#include "support/ServiceClient.hpp"
#include "support/TemporaryDirectory.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/url/url.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace corvane::testing {
namespace {

using State = ManagedAppStatus::State;
using Reason = ManagedAppStatus::Reason;
using namespace std::chrono_literals;

constexpr std::string_view hello = "org.corvane.Test.Hello";
constexpr std::string_view big = "org.corvane.Test.Big";
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

/// Reads the progress stream until `app` shows `state`.
template <class Stream>
bool reaches(Stream& progress, std::string_view app, const AppState& state) {
  return readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == app && value.state == state;
  });
}

class DaemonFlatpak : public ::testing::Test {
 protected:
  void SetUp() override {
    (void)TestRepository::get();  // the environment first: nothing may reach the machine's own
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
  }
  void start(const std::string& url) {
    remote_ = url;
    daemon_ = std::make_unique<DaemonProcess>(runtime_.path(), arguments());
  }
  [[nodiscard]] std::vector<std::string> arguments() const {
    return {"--engine",       "flatpak",
            "--installation", installation().native(),
            "--remote",       "corvane-test=" + remote_,
            "--state",        (state_.path() / "state.db").native(),
            "--tick-ms",      "20",
            "--verbose"};
  }
  [[nodiscard]] std::filesystem::path installation() const {
    return state_.path() / "installation";
  }
  /// The private installation as the test process opens it, with the test remote.
  [[nodiscard]] flatpak::Installation openInstallation() const {
    auto opened = flatpak::Installation::openAt(installation());
    if (opened.remotes().empty()) opened.addRemote("corvane-test", TestRepository::get().url());
    return opened;
  }
  /// The deployed files of `app`, when it is installed.
  [[nodiscard]] std::filesystem::path files(std::string_view app) const {
    return installation() / "app" / app / "current/active/files";
  }

  TemporaryDirectory runtime_;
  TemporaryDirectory state_;
  std::string remote_;
  std::unique_ptr<DaemonProcess> daemon_;
};

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

TEST_F(DaemonFlatpak, InstallsTheDeclaredAppAndUninstallsItWithTheDeclaration) {
  start(TestRepository::get().url());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  std::vector<std::string> seen;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    seen.push_back(fmt::format("{}", value.state));
    return value.state == AppState::managed();
  })) << fmt::format("{}", fmt::join(seen, ", "));
  EXPECT_TRUE(
      std::ranges::any_of(seen, [](const auto& s) { return s.starts_with("Downloading"); }));
  EXPECT_TRUE(std::ranges::any_of(seen, [](const auto& s) { return s.starts_with("Installing"); }));

  const auto status = statusOf("D-hello");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::managed);
  EXPECT_EQ(status->name, "Corvane Hello");
  ASSERT_TRUE(status->installedVersionInfo.has_value());
  EXPECT_EQ(status->installedVersionInfo->bundleShortVersion, "1.0");
  // Really installed: the app's own files, and the runtime it needs.
  EXPECT_EQ(readAll(files(hello) / "version"), "1.0");
  EXPECT_TRUE(std::filesystem::exists(installation() / "runtime/org.corvane.Platform"));

  // The catalogue describes it from the remote's AppStream data.
  auto catalog = ManagedAppLibrary::shared().managedApps();
  const auto entries = nextWithin(catalog);
  ASSERT_TRUE(entries.has_value());
  const auto* apps = std::get_if<std::vector<ManagedApp>>(&*entries);
  ASSERT_NE(apps, nullptr);
  ASSERT_EQ(apps->size(), 1U);
  EXPECT_EQ((*apps)[0].name(), "Corvane Hello");
  EXPECT_EQ((*apps)[0].seller(), "Corvane Test Developers");
  EXPECT_TRUE((*apps)[0].itemID().has_value());

  DDMRemoveManagedAppRequest{"D-hello"}.performSynchronously();
  EXPECT_TRUE(daemon_->process().waitForError(fmt::format("{}: uninstalled", hello), bound));
  EXPECT_FALSE(std::filesystem::exists(installation() / "app" / hello));
  EXPECT_EQ(daemon_->stop(), 0);
}

TEST_F(DaemonFlatpak, APollFindsANewBuildAndTheDeclaredAppIsUpdatedToIt) {
  // A repository of this test's own, since a new version goes into it.
  const TemporaryDirectory own;
  TestRepository::build(own.path());
  start("file://" + (own.path() / "repo").native());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  ASSERT_TRUE(readUntil(
      progress, [](const AppProgress& value) { return value.state == AppState::managed(); }));
  EXPECT_EQ(readAll(files(hello) / "version"), "1.0");

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
  EXPECT_EQ(readAll(files(hello) / "version"), "2.0");
}

TEST_F(DaemonFlatpak, AppsThatCannotBeInstalledFailWithTheirReasons) {
  start(TestRepository::get().url());
  struct Row {
    const char* declaration;
    const char* app;
    Reason reason;
  };
  const std::vector<Row> table = {
      {"D-unknown", "org.corvane.Test.Nobody", Reason::couldNotVerifyAppID},
      // Its runtime is in no remote: the transaction fails before anything is fetched.
      {"D-broken", "org.corvane.Test.Broken", Reason::downloadFailed},
  };
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  for (const auto& row : table) declare(row.declaration, StoreAppIdentifier::bundleID(row.app));
  // The broken app starts, then is available again once its transaction failed.
  bool started = false;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    if (value.bundleID != "org.corvane.Test.Broken") return false;
    started = started || std::holds_alternative<AppState::Downloading>(value.state.cases());
    return started && std::holds_alternative<AppState::Available>(value.state.cases());
  }));
  for (const auto& row : table) {
    const auto status = statusOf(row.declaration);
    ASSERT_TRUE(status.has_value()) << row.app;
    EXPECT_EQ(status->state, State::failed) << row.app;
    EXPECT_EQ(status->reasons, std::vector<Reason>{row.reason}) << row.app;
    EXPECT_FALSE(std::filesystem::exists(installation() / "app" / row.app)) << row.app;
  }
  EXPECT_TRUE(daemon_->process().waitForError("requires the runtime org.corvane.Missing"));
}

TEST_F(DaemonFlatpak, CancelMidDownloadLeavesNothingInstalled) {
  // Served slowly, so that the download is still going when the cancel arrives.
  const RepositoryServer server(TestRepository::get().outDir(), 1 << 20);
  start(server.url() + "/repo");
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-big", StoreAppIdentifier::bundleID(std::string(big)));
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    const auto* downloading = std::get_if<AppState::Downloading>(&value.state.cases());
    return value.bundleID == big && downloading != nullptr && downloading->_0 > 0;
  }));
  cancelDeclared("D-big");
  EXPECT_EQ(statusOf("D-big")->state, State::optional);
  ASSERT_TRUE(daemon_->process().waitForError(fmt::format("{}: install cancelled", big), bound));
  EXPECT_FALSE(std::filesystem::exists(installation() / "app" / big));
}

TEST_F(DaemonFlatpak, AnInstallCutShortBySigkillFinishesOnceAfterARestart) {
  const RepositoryServer server(TestRepository::get().outDir(), 1 << 20);
  start(server.url() + "/repo");
  {
    auto progress = ManagedAppLibrary::shared().progressUpdates();
    declare("D-big", StoreAppIdentifier::bundleID(std::string(big)));
    ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
      return value.bundleID == big
             && std::holds_alternative<AppState::Downloading>(value.state.cases());
    }));
  }
  daemon_->kill();
  daemon_->restart();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == big && value.state == AppState::managed();
  }));
  EXPECT_EQ(statusOf("D-big")->state, State::managed);
  EXPECT_TRUE(std::filesystem::exists(files(big)));
}

TEST_F(DaemonFlatpak, LaunchesAManagedAppAsItsCaller) {
  start(TestRepository::get().url());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  ASSERT_TRUE(reaches(progress, hello, AppState::managed()));

  // The daemon's caller is this process's user: the app writes into this HOME.
  AppLaunchRequest{std::string(hello)}.perform(boost::asio::use_future).get();
  const auto marker = TestRepository::get().home() / ".var/app" / hello / "data/corvane-marker";
  ASSERT_TRUE(appears(marker)) << daemon_->process().err();

  const auto error = failureOf(
      [] { AppLaunchRequest{"org.corvane.Test.Quiet"}.perform(boost::asio::use_future).get(); });
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->cause(), "org.corvane.Test.Quiet is not installed, so it cannot be launched");
}

TEST_F(DaemonFlatpak, AFlatpakrefManifestInstallsTheAppItNames) {
  start(TestRepository::get().url());
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
  install(TestRepository::get().outDir() / (std::string(hello) + ".flatpakref"));
  ASSERT_TRUE(reaches(progress, hello, AppState::managed()));
  EXPECT_EQ(readAll(files(hello) / "version"), "1.0");
}

TEST_F(DaemonFlatpak, AnAppInstalledWithoutTheDaemonIsLeftAlone) {
  {
    auto installation = openInstallation();
    flatpak::Transaction transaction(installation);
    transaction.addInstall("corvane-test", flatpak::appRef(std::string(hello), branch));
    transaction.run();
  }
  start(TestRepository::get().url());
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  const auto status = statusOf("D-hello");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::failed);
  EXPECT_EQ(status->reasons, std::vector<Reason>{Reason::unmanagedAppAlreadyInstalled});

  // The declaration goes; so would an install of the daemon's own. An install queued after it
  // finishing shows the workers got that far.
  DDMRemoveManagedAppRequest{"D-hello"}.performSynchronously();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-quiet", StoreAppIdentifier::bundleID("org.corvane.Test.Quiet"));
  ASSERT_TRUE(reaches(progress, "org.corvane.Test.Quiet", AppState::managed()));
  ASSERT_TRUE(daemon_->process().waitForError("org.corvane.Test.Quiet: Managed"));
  EXPECT_TRUE(std::filesystem::exists(files(hello)));
  EXPECT_EQ(daemon_->process().err().find(fmt::format("{}: uninstalled", hello)),
            std::string::npos);
}

TEST_F(DaemonFlatpak, AManagedAppUninstalledBehindTheDaemonsBackIsNoticed) {
  start(TestRepository::get().url());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
  ASSERT_TRUE(reaches(progress, hello, AppState::managed()));

  openInstallation().uninstall(flatpak::appRef(std::string(hello), branch));
  ASSERT_TRUE(reaches(progress, hello, AppState::available(AppState::Availability::available)));
  EXPECT_EQ(statusOf("D-hello")->state, State::managedButUninstalled);
}

TEST_F(DaemonFlatpak, AnAppUninstalledWhileTheDaemonWasDownIsNoticedWhenItStarts) {
  start(TestRepository::get().url());
  {
    auto progress = ManagedAppLibrary::shared().progressUpdates();
    declare("D-hello", StoreAppIdentifier::bundleID(std::string(hello)));
    ASSERT_TRUE(reaches(progress, hello, AppState::managed()));
  }
  ASSERT_EQ(daemon_->stop(), 0);
  openInstallation().uninstall(flatpak::appRef(std::string(hello), branch));
  // The records are reconciled with the installation before the first client is served.
  daemon_->restart();
  EXPECT_EQ(statusOf("D-hello")->state, State::managedButUninstalled);
}

}  // namespace
}  // namespace corvane::testing
