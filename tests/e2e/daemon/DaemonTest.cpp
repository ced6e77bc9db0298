// corvaned-sim as a real process, driven through the library: installs watched through the
// streams, status against the engine, cancel and remove, a catalogue watch seeing a poll, SIGKILL
// during a burst of declarations, every fault option, malformed arguments and refused callers.
// Each case runs in a process of its own, so each gets a fresh shared connection pointed at its
// own daemon.

#include "support/DaemonProcess.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <grp.h>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using State = ManagedAppStatus::State;
using Reason = ManagedAppStatus::Reason;

constexpr auto bound = 30s;
constexpr std::int64_t notesItem = 1000000001;
constexpr std::int64_t weatherItem = 1000000002;
constexpr std::string_view notesBundle = "dev.corvane.sample.notes";
constexpr std::string_view weatherBundle = "dev.corvane.sample.weather";

ManagedAppDeclaration declaration(const std::string& identifier, StoreAppIdentifier app,
                                  InstallTimingEnum timing = InstallTimingEnum::immediately) {
  return ManagedAppDeclaration(
      "key-" + identifier, identifier, std::nullopt,
      InstallBehavior{timing, false, PurchaseMethodEnum::volumePurchaseProgram(std::move(app))},
      BackupBehavior{}, UpdateBehaviorEnum::automaticallyUpdate(), Platform::phone);
}

void declare(const std::string& identifier, StoreAppIdentifier app,
             InstallTimingEnum timing = InstallTimingEnum::immediately) {
  DDMAppOrUpdateManagedAppRequest(declaration(identifier, std::move(app), timing))
      .performSynchronously();
}

std::optional<ManagedAppStatus> statusOf(std::string_view declarationIdentifier) {
  for (auto& status : DDMDeclarationStatusRequest{}.performSynchronously())
    if (status.declarationIdentifier == declarationIdentifier) return status;
  return std::nullopt;
}

/// The next value of a stream, or nothing when none came within the bound.
template <class Stream>
auto nextWithin(Stream& stream, std::chrono::seconds within = bound) {
  auto future = stream.next(asio::use_future);
  using Result = decltype(future.get());
  if (future.wait_for(within) != std::future_status::ready) return Result();
  return future.get();
}

/// Reads `stream` until `done(value)` holds; false when the stream ended or went quiet.
template <class Stream, class Done>
bool readUntil(Stream& stream, Done&& done) {
  while (true) {
    auto value = nextWithin(stream);
    if (!value) return false;
    if (done(*value)) return true;
  }
}

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    // Before the library's first use, so that its shared connection goes to this daemon.
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
  }
  void start(std::vector<std::string> arguments = {"--tick-ms", "5"}) {
    daemon_ = std::make_unique<DaemonProcess>(runtime_.path(), std::move(arguments));
  }

  TemporaryDirectory runtime_;
  std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(Daemon, AnInstallIsObservedFromQueuedToManagedThroughTheProgressStream) {
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D1", StoreAppIdentifier::itemID(notesItem));

  std::vector<std::string> seen;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    EXPECT_EQ(value.bundleID, notesBundle);
    seen.push_back(fmt::format("{}", value.state));
    return value.state == AppState::managed();
  })) << fmt::format("{}", fmt::join(seen, ", "));
  // Waiting, then downloads rising to installing, then managed: in that order.
  const auto position = [&](std::string_view prefix) {
    return std::ranges::find_if(seen, [&](const auto& s) { return s.starts_with(prefix); })
           - seen.begin();
  };
  EXPECT_LT(position("Waiting"), position("Downloading"));
  EXPECT_LT(position("Downloading"), position("Installing"));
  EXPECT_LT(position("Installing"), position("Managed"));
  EXPECT_GE(std::ranges::count_if(seen, [](const auto& s) { return s.starts_with("Downloading"); }),
            3);

  const auto status = statusOf("D1");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::managed);
  EXPECT_EQ(status->bundleID, notesBundle);
  EXPECT_EQ(status->declarationKey, "key-D1");
  EXPECT_EQ(status->name, "Notes");
  ASSERT_TRUE(status->installedVersionInfo.has_value());
  EXPECT_EQ(status->installedVersionInfo->bundleShortVersion, "4.1.2");
  EXPECT_EQ(DDMDeclarationKeysRequest{}.performSynchronously(), std::vector<std::string>{"key-D1"});
  EXPECT_EQ(daemon_->stop(), 0);
}

TEST_F(Daemon, StatusReportsFailuresWithTheirReasons) {
  start({"--tick-ms", "5", "--fail-install", std::string(weatherBundle) + "=downloadFailed"});
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("unknown", StoreAppIdentifier::itemID(42));
  declare("weather", StoreAppIdentifier::itemID(weatherItem));
  bool downloading = false;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    if (value.bundleID != weatherBundle) return false;
    downloading = downloading || value.state == AppState::downloading(0);
    return downloading && value.state == AppState::available(AppState::Availability::available);
  }));
  const auto weather = statusOf("weather");
  ASSERT_TRUE(weather.has_value());
  EXPECT_EQ(weather->state, State::failed);
  EXPECT_EQ(weather->reasons, std::vector<Reason>{Reason::downloadFailed});
  const auto unknown = statusOf("unknown");
  ASSERT_TRUE(unknown.has_value());
  EXPECT_EQ(unknown->state, State::failed);
  EXPECT_EQ(unknown->reasons, std::vector<Reason>{Reason::couldNotVerifyAppID});

  // Resetting the history forgets the failures: the known app tries again (and fails again).
  DDMResetManagedAppInstallHistoryRequest{}.perform(asio::use_future).get();
  EXPECT_EQ(statusOf("unknown")->state, State::optional);
  EXPECT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == weatherBundle && value.state == AppState::waiting();
  }));
}

TEST_F(Daemon, OnDemandAppsWaitForACatalogueInstallAndCancelAndRemoveWork) {
  // A tick a minute long: nothing moves on its own while the test looks.
  start({"--tick-ms", "60000"});
  auto catalog = ManagedAppLibrary::shared().managedApps();
  declare("D-notes", StoreAppIdentifier::itemID(notesItem), InstallTimingEnum::onDemand);
  std::optional<ManagedApp> entry;
  ASSERT_TRUE(readUntil(catalog, [&](const CatalogResult& result) {
    const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
    if (apps == nullptr || apps->empty()) return false;
    entry = apps->front();
    return true;
  }));
  EXPECT_EQ(entry->declarationIdentifier(), "D-notes");
  EXPECT_EQ(entry->bundleID(), notesBundle);
  EXPECT_EQ(statusOf("D-notes")->state, State::optional);

  ManagedAppLibrary::shared().install(*entry, asio::use_future).get();
  EXPECT_EQ(statusOf("D-notes")->state, State::queued);
  ManagedAppLibrary::shared().cancel(*entry, asio::use_future).get();
  EXPECT_EQ(statusOf("D-notes")->state, State::optional);

  DDMRemoveManagedAppRequest{"D-notes"}.performSynchronously();
  EXPECT_FALSE(statusOf("D-notes").has_value());
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  ASSERT_TRUE(readUntil(catalog, [&](const CatalogResult& result) {
    const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
    return apps != nullptr && apps->empty();
  }));
  // Removing it again, or installing what is not there, is an error the caller sees.
  EXPECT_THROW(DDMRemoveManagedAppRequest{"D-notes"}.performSynchronously(), Error);
  EXPECT_THROW(ManagedAppLibrary::shared().install(*entry, asio::use_future).get(), Error);
}

TEST_F(Daemon, ACatalogueWatchSeesAPoll) {
  start();
  declare("D1", StoreAppIdentifier::itemID(notesItem), InstallTimingEnum::onDemand);
  auto catalog = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(nextWithin(catalog).has_value());
  // Nothing else changes: the next catalogue can only come from the poll.
  auto next = catalog.next(asio::use_future);
  EXPECT_EQ(next.wait_for(200ms), std::future_status::timeout);
  DDMPollForUpdatesRequest{}.perform(asio::use_future).get();
  ASSERT_EQ(next.wait_for(bound), std::future_status::ready);
  const auto result = next.get();
  ASSERT_TRUE(result.has_value());
  const auto* apps = std::get_if<std::vector<ManagedApp>>(&*result);
  ASSERT_NE(apps, nullptr);
  ASSERT_EQ(apps->size(), 1U);
  EXPECT_EQ(apps->front().declarationIdentifier(), "D1");
}

TEST_F(Daemon, EveryAcknowledgedDeclarationSurvivesSIGKILL) {
  const auto state = (runtime_.path() / "state.db").native();
  start({"--tick-ms", "2", "--state", state});
  std::mutex mutex;
  std::vector<std::string> acknowledged;
  std::atomic<bool> killed{false};
  std::thread burst([&] {
    for (int i = 0; i < 100000; ++i) {
      const std::string identifier = fmt::format("D{}", i);
      try {
        declare(identifier, StoreAppIdentifier::itemID(notesItem + i % 12));
        const std::scoped_lock lock(mutex);
        acknowledged.push_back("key-" + identifier);
      } catch (const Error&) {
        if (killed) return;
        ADD_FAILURE() << "a declaration failed before the daemon was killed";
        return;
      }
    }
  });
  // Kill it in the middle of the burst, once some declarations are in.
  while (true) {
    {
      const std::scoped_lock lock(mutex);
      if (acknowledged.size() >= 25) break;
    }
    std::this_thread::yield();
  }
  killed = true;
  daemon_->kill();
  burst.join();

  daemon_->restart();
  const auto keys = DDMDeclarationKeysRequest{}.performSynchronously();
  const std::set<std::string> present(keys.begin(), keys.end());
  for (const auto& key : acknowledged) EXPECT_TRUE(present.contains(key)) << key << " was lost";
  // Installs that were under way carry on after the restart.
  const auto statuses = DDMDeclarationStatusRequest{}.performSynchronously();
  EXPECT_FALSE(statuses.empty());
}

TEST_F(Daemon, EachInjectedFailureReachesTheCallerAsItsError) {
  for (const auto error : {CorvaneError::unrecoverableError, CorvaneError::networkError,
                           CorvaneError::deviceNotManaged, CorvaneError::unsupportedPlatform}) {
    start({"--fail", fmt::format("getDeclarationStatus={}", caseName(error)), "--fail",
           fmt::format("pollForMediaAPIUpdatesWithReply:={}", caseName(error))});
    try {
      (void)DDMDeclarationStatusRequest{}.performSynchronously();
      ADD_FAILURE() << "status did not fail with " << caseName(error);
    } catch (const Error& failure) {
      EXPECT_EQ(failure.error(), error);
    }
    try {
      DDMPollForUpdatesRequest{}.perform(asio::use_future).get();
      ADD_FAILURE() << "poll did not fail with " << caseName(error);
    } catch (const Error& failure) {
      EXPECT_EQ(failure.error(), error);
    }
    // Other operations are not affected.
    EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
    EXPECT_EQ(daemon_->stop(), 0);
  }
}

TEST_F(Daemon, ADelayedDaemonStillAnswersAndACrashingOneFailsTheCall) {
  start({"--delay-ms", "100"});
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  EXPECT_EQ(daemon_->stop(), 0);

  start({"--crash-after", "2"});
  EXPECT_NO_THROW((void)DDMDeclarationKeysRequest{}.performSynchronously());
  EXPECT_NO_THROW((void)DDMDeclarationStatusRequest{}.performSynchronously());
  try {
    (void)DDMDeclarationKeysRequest{}.performSynchronously();
    ADD_FAILURE() << "the third call succeeded";
  } catch (const Error& failure) {
    EXPECT_EQ(failure.error(), CorvaneError::unrecoverableError);
  }
  EXPECT_EQ(daemon_->process().wait(), 128 + SIGABRT);
  // Once a daemon is back, the next call succeeds.
  start();
  EXPECT_NO_THROW((void)DDMDeclarationKeysRequest{}.performSynchronously());
}

TEST_F(Daemon, AMalformedArgumentGetsAFailureAndTheDaemonKeepsServing) {
  start();
  ipc::ConnectionOptions options;
  options.runtimeDirectory = runtime_.path();
  ipc::Connection raw(std::string(agentServiceName), options);
  raw.setRemoteObjectInterface(ServiceProtocol::interface());
  raw.resume();
  const auto proxy = raw.synchronousRemoteObjectProxy<ServiceProtocol>(
      [](const ipc::CallError& error) { ADD_FAILURE() << error.description(); });
  const std::vector<std::string> garbage = {"{{{",
                                            "[]",
                                            R"([{"app": 5}])",
                                            R"([{"app": {"declarationKey": "K"}}])",
                                            "[1, 2, 3]",
                                            std::string(3, '\0')};
  for (const auto& text : garbage) {
    std::optional<Bytes> reply;
    proxy.addOrUpdateManagedApp(Bytes(text), [&](ipc::CallResult result) {
      if (result) {
        reply = std::move(result).reply();
      } else {
        ADD_FAILURE() << result.error().description();
      }
    });
    ASSERT_TRUE(reply.has_value()) << text;
    const auto [result] = TetherDecoder<ServiceResult<None>>::decode(*reply);
    EXPECT_EQ(result.error(), CorvaneError::unrecoverableError) << text;
  }
  // A call of the wrong shape is refused by the connection itself; the daemon still serves.
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  EXPECT_TRUE(daemon_->process().running());
}

TEST_F(Daemon, UnderSocketActivationItServesAndExitsWhenIdle) {
  if (::access("/usr/bin/systemd-socket-activate", X_OK) != 0)
    GTEST_SKIP() << "systemd-socket-activate is missing";
  const auto socket = runtime_.path() / std::string(agentServiceName);
  // The activator binds the socket and starts the daemon on the first connection, handing the
  // listening socket over as descriptor 3.
  Process activator({"systemd-socket-activate", "-l", socket.native(), DaemonProcess::binary(),
                     "--runtime-dir", runtime_.path().native(), "--idle-exit", "1"});
  ASSERT_TRUE(activator.waitForError("Listening on")) << activator.err();
  Process probe({CORVANE_PROBE_PATH, "keys"}, {{"CORVANE_RUNTIME_DIR", runtime_.path().native()}});
  EXPECT_EQ(probe.wait(), 0) << probe.out() << probe.err();
  EXPECT_EQ(probe.out(), "ok 0\n");
  // With its only client gone and nothing installing, it exits by itself, cleanly.
  EXPECT_EQ(activator.wait(), 0) << activator.err();
  EXPECT_TRUE(activator.out().contains("listening on " + socket.native())) << activator.out();
}

TEST_F(Daemon, AClientThatStopsReadingItsPushesIsCutOffAlone) {
  start();
  for (int i = 0; i < 12; ++i)
    declare(fmt::format("D{}", i), StoreAppIdentifier::itemID(notesItem + i),
            InstallTimingEnum::onDemand);
  // A raw client registers for the catalogue and then never reads another byte.
  const Fd stalled(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const auto path = daemon_->socketPath().native();
  std::copy(path.begin(), path.end(), static_cast<char*>(address.sun_path));
  ASSERT_EQ(::connect(stalled.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT
                      sizeof(address)),
            0);
  std::vector<std::byte> out = ipc::encodeFrame(
      ipc::Frame{ipc::FrameKind::hello, 0, {}, Bytes(std::string(ipc::helloPayload))});
  const auto call = ipc::encodeFrame(ipc::Frame{
      ipc::FrameKind::call, 1,
      std::string(ServiceProtocol::Selectors::addMessageRegistrations.name),
      Bytes(std::string(R"([[{"appCatalog": {}}], "0F5C3C57-7E09-4F4B-9B0C-2E1D7C6A9B11"])"))});
  out.insert(out.end(), call.begin(), call.end());
  ASSERT_EQ(::write(stalled.get(), out.data(), out.size()), static_cast<ssize_t>(out.size()));

  // Each poll pushes the whole catalogue (a dozen entries) to it, until its unread queue passes
  // the daemon's bound and the daemon closes it.
  const std::string closed = fmt::format("Closed client connection (pid {})", ::getpid());
  for (int i = 0; i < 2000 && !daemon_->process().err().contains(closed); ++i) {
    DDMPollForUpdatesRequest{}.perform(asio::use_future).get();
    daemon_->process().waitForError(closed, 0ms);
  }
  EXPECT_TRUE(daemon_->process().waitForError(closed)) << daemon_->process().err();
  // Everyone else is still served.
  EXPECT_EQ(DDMDeclarationKeysRequest{}.performSynchronously().size(), 12U);
  EXPECT_TRUE(daemon_->process().running());
}

TEST_F(Daemon, ACatalogueFileThatDoesNotDecodeStopsItAtStart) {
  const auto file = runtime_.path() / "catalog.json";
  std::ofstream(file) << R"([{"declarationIdentifier": "D", "bundleID": "b", "platform": "phone",
                              "name": "n", "genres": [], "languages": [], "screenshots": [],
                              "hasLicenseAgreement": false}])";
  Process daemon({DaemonProcess::binary(), "--runtime-dir", runtime_.path().native(), "--catalog",
                  file.native()});
  EXPECT_EQ(daemon.wait(), 2);
  EXPECT_TRUE(daemon.err().contains(file.native())) << daemon.err();
  EXPECT_TRUE(daemon.err().contains("[0].platform")) << daemon.err();
  EXPECT_FALSE(std::filesystem::exists(runtime_.path() / std::string(agentServiceName)));
}

// Runs the probe client as `uid` with primary group `gid`; returns its output and status.
std::pair<std::string, std::optional<int>> probeAs(unsigned uid, unsigned gid,
                                                   const std::string& what,
                                                   const std::filesystem::path& runtime) {
  Process probe({"setpriv", fmt::format("--reuid={}", uid), fmt::format("--regid={}", gid),
                 "--clear-groups", CORVANE_PROBE_PATH, what},
                {{"CORVANE_RUNTIME_DIR", runtime.native()}});
  const auto status = probe.wait();
  return {probe.out() + probe.err(), status};
}

TEST_F(Daemon, CallersOutsideTheAllowedUsersMayReadButNotChangeState) {
  if (::geteuid() != 0) GTEST_SKIP() << "running as another uid needs root";
  if (::access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv (util-linux) is missing";
  const ::group* nogroup = ::getgrnam("nogroup");
  if (nogroup == nullptr) GTEST_SKIP() << "no group 'nogroup' to allow";
  // The other user must be able to reach the socket; the daemon decides by credentials.
  ::chmod(runtime_.path().c_str(), 0755);
  constexpr unsigned nobody = 65534;
  start();

  const auto [readOut, readStatus] = probeAs(nobody, nobody, "keys", runtime_.path());
  EXPECT_EQ(readStatus, 0) << readOut;
  const auto [writeOut, writeStatus] = probeAs(nobody, nobody, "reset", runtime_.path());
  EXPECT_EQ(writeStatus, 1) << writeOut;
  EXPECT_NE(writeOut.find("unrecoverableError"), std::string::npos) << writeOut;
  EXPECT_NE(writeOut.find("permission denied"), std::string::npos) << writeOut;
  EXPECT_TRUE(daemon_->process().waitForError(fmt::format("refused to uid {} (pid ", nobody)))
      << daemon_->process().err();
  EXPECT_EQ(daemon_->stop(), 0);

  // Members of the allowed group may change state.
  start({"--allow-group", "nogroup"});
  const auto [allowedOut, allowedStatus] =
      probeAs(nobody, nogroup->gr_gid, "reset", runtime_.path());
  EXPECT_EQ(allowedStatus, 0) << allowedOut;
}

}  // namespace
}  // namespace corvane::testing
