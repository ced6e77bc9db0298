// The daemon as a real process on each install engine (tests/support/EngineDaemon.hpp), driven
// through the library: installs, failures, cancel and remove, polls, SIGKILL, every fault option,
// refusals, a store that refuses changes, malformed arguments, socket activation, refused callers.
// A few cases need the simulator's own catalogue and stay on it (SimulatedDaemon). Each case runs
// in a process of its own, so each gets a fresh shared connection pointed at its own daemon.

#include "support/EngineDaemon.hpp"
#include "support/RefusingStore.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
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
using Type = VPPInstallRequest::RequestType;

/// An app no catalogue has.
constexpr std::string_view nobody = "org.corvane.Test.Nobody";

StoreAppIdentifier bundle(std::string_view bundleID) {
  return StoreAppIdentifier::bundleID(std::string(bundleID));
}

void purchase(StoreAppIdentifier app, VPPInstallRequest::RequestType type) {
  VPPInstallRequest(std::move(app), type).perform(asio::use_future).get();
}

void installEnterprise(std::string_view manifest) {
  InstallEnterpriseManifestRequest(EnterpriseApp(boost::urls::url(manifest)))
      .perform(asio::use_future)
      .get();
}

/// Everything the daemon reports of its state, coded: every status (but the one of `except`)
/// and the declaration keys.
std::string reported(std::string_view except = {}) {
  auto statuses = DDMDeclarationStatusRequest{}.performSynchronously();
  std::erase_if(statuses,
                [&](const auto& status) { return status.declarationIdentifier == except; });
  return boost::json::serialize(coding::encode(statuses)) + " keys: "
         + boost::json::serialize(
             coding::encode(DDMDeclarationKeysRequest{}.performSynchronously()));
}

/// The cases that behave the same on both engines.
class Daemon : public EngineDaemon, public ::testing::WithParamInterface<const Engine*> {
 protected:
  Daemon() : EngineDaemon(*GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Engines, Daemon, ::testing::ValuesIn(engines),
                         ::testing::PrintToStringParamName());

/// The cases that need the simulator's own catalogue.
class SimulatedDaemon : public EngineDaemon {
 protected:
  SimulatedDaemon() : EngineDaemon(simulatedEngine) {}
};

TEST_P(Daemon, AnInstallIsObservedFromQueuedToManagedThroughTheProgressStream) {
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D1", bundle(engine_.hello));

  std::vector<std::string> seen;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    EXPECT_EQ(value.bundleID, engine_.hello);
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
            engine_.downloads);

  const auto status = statusOf("D1");
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->state, State::managed);
  EXPECT_EQ(status->bundleID, engine_.hello);
  EXPECT_EQ(status->declarationKey, "key-D1");
  EXPECT_EQ(status->name, engine_.name);
  ASSERT_TRUE(status->installedVersionInfo.has_value());
  EXPECT_EQ(status->installedVersionInfo->bundleShortVersion, engine_.version);
  EXPECT_EQ(DDMDeclarationKeysRequest{}.performSynchronously(), std::vector<std::string>{"key-D1"});
  auto catalog = ManagedAppLibrary::shared().managedApps();
  const auto entry = firstCatalogEntry(catalog);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->name(), engine_.name);
  EXPECT_EQ(entry->seller(), engine_.seller);
  EXPECT_TRUE(entry->itemID().has_value());
  EXPECT_EQ(daemon_->stop(), 0);
}

TEST_P(Daemon, StatusReportsFailuresWithTheirReasons) {
  start();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("unknown", bundle(nobody));
  declare("broken", bundle(engine_.broken));
  // The broken app starts, then is available again once its install failed.
  bool started = false;
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    if (value.bundleID != engine_.broken) return false;
    started = started || std::holds_alternative<AppState::Downloading>(value.state.cases());
    return started && value.state == AppState::available(AppState::Availability::available);
  }));
  const auto broken = statusOf("broken");
  ASSERT_TRUE(broken.has_value());
  EXPECT_EQ(broken->state, State::failed);
  EXPECT_EQ(broken->reasons, std::vector<Reason>{Reason::downloadFailed});
  const auto unknown = statusOf("unknown");
  ASSERT_TRUE(unknown.has_value());
  EXPECT_EQ(unknown->state, State::failed);
  EXPECT_EQ(unknown->reasons, std::vector<Reason>{Reason::couldNotVerifyAppID});

  // Resetting the history forgets the failures: the known app tries again (and fails again).
  DDMResetManagedAppInstallHistoryRequest{}.perform(asio::use_future).get();
  EXPECT_EQ(statusOf("unknown")->state, State::optional);
  EXPECT_TRUE(reaches(progress, engine_.broken, AppState::waiting()));
}

TEST_P(Daemon, OnDemandAppsWaitForACatalogueInstallAndCancelMidDownloadAndRemoveWork) {
  start(Pace::slow, {"--verbose"});
  auto catalog = ManagedAppLibrary::shared().managedApps();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  declare("D-big", bundle(engine_.big), InstallTimingEnum::onDemand);
  std::optional<ManagedApp> entry = firstCatalogEntry(catalog);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->declarationIdentifier(), "D-big");
  EXPECT_EQ(entry->bundleID(), engine_.big);
  EXPECT_EQ(statusOf("D-big")->state, State::optional);

  ManagedAppLibrary::shared().install(*entry, asio::use_future).get();
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    const auto* downloading = std::get_if<AppState::Downloading>(&value.state.cases());
    return value.bundleID == engine_.big && downloading != nullptr && downloading->_0 > 0;
  }));
  ManagedAppLibrary::shared().cancel(*entry, asio::use_future).get();
  EXPECT_EQ(statusOf("D-big")->state, State::optional);
  EXPECT_TRUE(
      reaches(progress, engine_.big, AppState::available(AppState::Availability::available)));
  if (engine_.flatpak) {  // what was fetched is not deployed
    ASSERT_TRUE(daemon_->process().waitForError(engine_.big + ": install cancelled"));
    EXPECT_FALSE(std::filesystem::exists(installation() / "app" / engine_.big));
  }

  DDMRemoveManagedAppRequest{"D-big"}.performSynchronously();
  EXPECT_FALSE(statusOf("D-big").has_value());
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  ASSERT_TRUE(readUntil(catalog, [&](const CatalogResult& result) {
    const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
    return apps != nullptr && apps->empty();
  }));
  // Removing it again, or installing what is not there, is an error the caller sees.
  EXPECT_THROW(DDMRemoveManagedAppRequest{"D-big"}.performSynchronously(), Error);
  EXPECT_THROW(ManagedAppLibrary::shared().install(*entry, asio::use_future).get(), Error);
}

TEST_P(Daemon, ACatalogueWatchSeesAPoll) {
  start();
  declare("D1", bundle(engine_.hello), InstallTimingEnum::onDemand);
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

TEST_P(Daemon, AfterSIGKILLEveryAcknowledgedDeclarationIsThereAndACutShortInstallFinishes) {
  start(Pace::slow);
  {
    auto progress = ManagedAppLibrary::shared().progressUpdates();
    declare("D-big", bundle(engine_.big));
    ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
      return value.bundleID == engine_.big
             && std::holds_alternative<AppState::Downloading>(value.state.cases());
    }));
  }
  // A burst of declarations (on demand: they install nothing) is under way when it is killed.
  const std::vector<std::string> apps{engine_.hello, engine_.quiet, engine_.broken,
                                      std::string(nobody)};
  std::mutex mutex;
  std::vector<std::string> acknowledged;
  std::atomic<bool> killed{false};
  std::thread burst([&] {
    for (std::size_t i = 0; i < 100000; ++i) {
      const std::string identifier = fmt::format("D{}", i);
      try {
        declare(identifier, bundle(apps[i % apps.size()]), InstallTimingEnum::onDemand);
        const std::scoped_lock lock(mutex);
        acknowledged.push_back("key-" + identifier);
      } catch (const Error&) {
        if (killed) return;
        ADD_FAILURE() << "a declaration failed before the daemon was killed";
        return;
      }
    }
  });
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
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(reaches(progress, engine_.big, AppState::managed()));
  EXPECT_EQ(statusOf("D-big")->state, State::managed);
  if (engine_.flatpak) {
    EXPECT_TRUE(std::filesystem::exists(files(engine_.big)));
  }
}

TEST_P(Daemon, EachInjectedFailureReachesTheCallerAsItsError) {
  for (const auto error : {CorvaneError::unrecoverableError, CorvaneError::networkError,
                           CorvaneError::deviceNotManaged, CorvaneError::unsupportedPlatform}) {
    start(Pace::quick, {"--fail", fmt::format("getDeclarationStatus={}", caseName(error)), "--fail",
                        fmt::format("pollForMediaAPIUpdatesWithReply:={}", caseName(error))});
    try {
      (void)DDMDeclarationStatusRequest{}.performSynchronously();
      ADD_FAILURE() << "status did not fail with " << caseName(error);
    } catch (const Error& failure) {
      EXPECT_EQ(failure.error(), error);
      EXPECT_EQ(failure.cause(), "");  // the plain envelope: no reason
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

TEST_P(Daemon, ADelayedDaemonStillAnswersAndACrashingOneFailsTheCall) {
  start(Pace::quick, {"--delay-ms", "100"});
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  EXPECT_EQ(daemon_->stop(), 0);

  start(Pace::quick, {"--crash-after", "2"});
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

TEST_P(Daemon, EveryRefusalReachesTheCallerWithItsReason) {
  start(Pace::still);  // the queued install stays queued while the test looks
  declare("D-hello", bundle(engine_.hello), InstallTimingEnum::onDemand);
  declare("D-quiet", bundle(engine_.quiet));
  DDMAppOrUpdateManagedAppRequest(
      ManagedAppDeclaration(
          "key-D-tool", "D-tool", std::nullopt,
          InstallBehavior{InstallTimingEnum::onDemand, false,
                          PurchaseMethodEnum::manifest(
                              boost::urls::url("https://corvane.dev/apps/Tool.plist"))},
          BackupBehavior{}, UpdateBehaviorEnum::automaticallyUpdate(), Platform::phone))
      .performSynchronously();
  declare("D-old", bundle(engine_.big), InstallTimingEnum::onDemand);
  declare("D-new", bundle(engine_.big), InstallTimingEnum::onDemand);  // takes it from D-old
  const std::string before = reported();

  const auto& e = engine_;
  struct Row {
    std::string what;
    std::function<void()> call;
    std::string reason;
  };
  const std::vector<Row> table = {
      {"a declaration without an identifier", [&] { declare("", bundle(e.hello)); },
       "declarationIdentifier must not be empty"},
      {"a declaration without a key",
       [&] {
         auto keyless = declaration("D-keyless", bundle(e.hello));
         keyless.declarationKey.clear();
         DDMAppOrUpdateManagedAppRequest(keyless).performSynchronously();
       },
       "declarationKey must not be empty"},
      {"removing an unknown declaration",
       [] { DDMRemoveManagedAppRequest{"D-nothing"}.performSynchronously(); },
       "unknown declaration D-nothing"},
      {"installing an unknown declaration", [] { installDeclared("D-nothing"); },
       "unknown declaration D-nothing"},
      {"cancelling an unknown declaration", [] { cancelDeclared("D-nothing"); },
       "unknown declaration D-nothing"},
      {"installing a declaration whose app was taken over", [] { installDeclared("D-old"); },
       "declaration D-old no longer manages an app: another declaration took it over"},
      {"installing an app outside the catalogue", [] { installDeclared("D-tool"); },
       "enterprise.Tool is not in the catalogue"},
      {"launching an app that is not installed",
       [&] { AppLaunchRequest{e.hello}.perform(asio::use_future).get(); },
       e.hello + " is not installed, so it cannot be launched"},
      {"buying an item the catalogue does not know",
       [] { purchase(StoreAppIdentifier::itemID(42), Type::install); },
       "item 42 is not in the catalogue"},
      {"updating a bundle the catalogue does not know",
       [] { purchase(bundle(nobody), Type::update); },
       std::string(nobody) + " is not in the catalogue"},
      {"uninstalling an app whose install is queued",
       [&] { purchase(bundle(e.quiet), Type::uninstall); }, e.quiet + " is not installed"},
      {"uninstalling an app nobody asked for", [&] { purchase(bundle(e.broken), Type::uninstall); },
       e.broken + " is not installed"},
      {"an enterprise manifest over ftp",
       [] { installEnterprise("ftp://corvane.dev/apps/Tool.plist"); }, e.ftpManifestRefusal},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.what);
    const auto error = failureOf(row.call);
    ASSERT_TRUE(error.has_value()) << "the call succeeded";
    EXPECT_EQ(error->error(), CorvaneError::unrecoverableError);
    EXPECT_EQ(error->cause(), row.reason);
    EXPECT_TRUE(std::string_view(error->what()).ends_with(" (" + row.reason + ")"))
        << error->what();
  }
  // None of them left a trace: no status for the unknown item, the queued install still queued.
  EXPECT_EQ(reported(), before);
  EXPECT_EQ(statusOf("D-quiet")->state, State::queued);
}

TEST_P(Daemon, AChangeTheStoreRefusesLeavesMemoryAndDiskAsTheyWere) {
  const auto state = (state_.path() / "state.db").native();
  {
    // One app installed, for the update and the uninstall to act on.
    start();
    auto progress = ManagedAppLibrary::shared().progressUpdates();
    declare("D-hello", bundle(engine_.hello));
    ASSERT_TRUE(reaches(progress, engine_.hello, AppState::managed()));
  }
  EXPECT_EQ(daemon_->stop(), 0);
  start(Pace::still);
  declare("D-quiet", bundle(engine_.quiet));  // queued
  declare("D-broken", bundle(engine_.broken), InstallTimingEnum::onDemand);
  declare("D-unknown", bundle(nobody));  // failed
  const std::string before = reported();
  const std::string beforeButQueued = reported("D-quiet");

  const auto& e = engine_;
  const std::string manifest = manifestURL();
  const std::vector<std::pair<std::string, std::function<void()>>> table = {
      {"a new declaration", [&] { declare("D-big", bundle(e.big)); }},
      {"a declaration replaced", [&] { declare("D-broken", bundle(e.broken)); }},
      {"a declaration that names another app",
       [&] { declare("D-broken", bundle(e.big), InstallTimingEnum::onDemand); }},
      {"a declaration removed",
       [] { DDMRemoveManagedAppRequest{"D-quiet"}.performSynchronously(); }},
      {"an install", [] { installDeclared("D-broken"); }},
      {"an install of every optional app", [] { installDeclared(std::nullopt); }},
      {"a cancel", [] { cancelDeclared("D-quiet"); }},
      {"a cancel of every install", [] { cancelDeclared(std::nullopt); }},
      {"a reset of the history",
       [] { DDMResetManagedAppInstallHistoryRequest{}.perform(asio::use_future).get(); }},
      {"a volume-purchase install", [&] { purchase(bundle(e.big), Type::install); }},
      {"a volume-purchase update", [&] { purchase(bundle(e.hello), Type::update); }},
      {"a volume-purchase uninstall", [&] { purchase(bundle(e.hello), Type::uninstall); }},
      {"an enterprise install", [&] { installEnterprise(manifest); }},
  };
  {
    const RefusingStore refusing(state);
    for (const auto& [what, call] : table) {
      SCOPED_TRACE(what);
      const auto error = failureOf(call);
      ASSERT_TRUE(error.has_value()) << "the call succeeded";
      EXPECT_EQ(error->error(), CorvaneError::unrecoverableError);
      EXPECT_TRUE(error->cause().starts_with("the change could not be stored: ")) << error->cause();
      EXPECT_TRUE(error->cause().ends_with(RefusingStore::message)) << error->cause();
      // Memory as it was.
      EXPECT_EQ(reported(), before);
    }
  }
  // The disk as well: a daemon started on it reports the same (and the refused uninstall never
  // reached the installation).
  EXPECT_EQ(daemon_->stop(), 0);
  start(Pace::still);
  if (engine_.queuedWaitsForATick) {
    EXPECT_EQ(reported(), before);
  } else {
    EXPECT_EQ(reported("D-quiet"), beforeButQueued);
    EXPECT_NE(statusOf("D-quiet")->state, State::optional);
  }
  if (engine_.flatpak) {
    EXPECT_TRUE(std::filesystem::exists(files(engine_.hello)));
  }
  // With the store taking changes again, so does the daemon.
  declare("D-big", bundle(engine_.big));
  EXPECT_NE(statusOf("D-big")->state, State::optional);  // queued, or (flatpak) already started
  purchase(bundle(engine_.hello), Type::uninstall);
  EXPECT_EQ(statusOf("D-hello")->state, State::optional);
}

TEST_P(Daemon, AnInstallWaitsWhileTheStoreRefusesItsStepsAndCarriesOnAfter) {
  const auto state = (state_.path() / "state.db").native();
  start(Pace::still);
  declare("D-hello", bundle(engine_.hello));
  EXPECT_EQ(daemon_->stop(), 0);

  // The stored install starts again with the daemon, and each of its steps is refused.
  auto refusing = std::make_unique<RefusingStore>(state);
  start(Pace::quick, {"--verbose"});
  const std::string refused = "the install state could not be stored";
  ASSERT_TRUE(daemon_->process().waitFor([&](const std::string&, const std::string& err) {
    return occurrences(err, refused) >= 3;
  })) << daemon_->process().err();
  // Each refused step was undone, and tried again on the next tick.
  EXPECT_EQ(statusOf("D-hello")->state, State::queued);

  auto progress = ManagedAppLibrary::shared().progressUpdates();
  refusing.reset();
  ASSERT_TRUE(reaches(progress, engine_.hello, AppState::managed()));
  EXPECT_EQ(daemon_->stop(), 0);
  start(Pace::still);
  EXPECT_EQ(statusOf("D-hello")->state, State::managed);
}

TEST_P(Daemon, AMalformedArgumentGetsAFailureAndTheDaemonKeepsServing) {
  start();
  ipc::ConnectionOptions options;
  options.runtimeDirectory = runtime_.path();
  ipc::Connection raw(std::string(agentServiceName), options);
  raw.setRemoteObjectInterface(ServiceProtocol::interface());
  raw.resume();
  const auto proxy = raw.synchronousRemoteObjectProxy<ServiceProtocol>(
      [](const ipc::CallError& error) { ADD_FAILURE() << error.description(); });
  // Each is answered with what was wrong: the coding error's kind, where, and its description.
  struct Row {
    std::string argument;
    std::string reason;
  };
  const std::vector<Row> table = {
      {"{{{",
       "the argument is malformed: dataCorrupted at the top level: The given data was not a "
       "valid JSON document: syntax error."},
      {"[]",
       "the argument is malformed: valueNotFound at [0]: Expected 1 values but the list holds 0."},
      {R"([{"app": 5}])",
       "the argument is malformed: typeMismatch at [0].app: Expected an object but found a number "
       "instead."},
      {R"([{"app": {"declarationKey": "K"}}])",
       "the argument is malformed: keyNotFound at [0].app: No value associated with key "
       "\"declarationIdentifier\"."},
      {"[1, 2, 3]",
       "the argument is malformed: typeMismatch at [0]: Expected an object but found a number "
       "instead."},
      {std::string(3, '\0'),
       "the argument is malformed: dataCorrupted at the top level: The given data was not a "
       "valid JSON document: syntax error."},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.argument);
    std::optional<Bytes> reply;
    proxy.addOrUpdateManagedApp(Bytes(row.argument), [&](ipc::CallResult result) {
      if (result) {
        reply = std::move(result).reply();
      } else {
        ADD_FAILURE() << result.error().description();
      }
    });
    ASSERT_TRUE(reply.has_value());
    const auto [result] = TetherDecoder<ServiceResult<None>>::decode(*reply);
    EXPECT_EQ(result.error(), CorvaneError::unrecoverableError);
    EXPECT_EQ(result.reason(), row.reason);
  }
  // A call of the wrong shape is refused by the connection itself; the daemon still serves.
  EXPECT_TRUE(DDMDeclarationKeysRequest{}.performSynchronously().empty());
  EXPECT_TRUE(daemon_->process().running());
}

TEST_P(Daemon, UnderSocketActivationItServesAndExitsWhenIdle) {
  if (::access("/usr/bin/systemd-socket-activate", X_OK) != 0)
    GTEST_SKIP() << "systemd-socket-activate is missing";
  const auto socket = runtime_.path() / std::string(agentServiceName);
  // The activator binds the socket and starts the daemon on the first connection, handing the
  // listening socket over as descriptor 3.
  std::vector<std::string> argv{"systemd-socket-activate",
                                "-l",
                                socket.native(),
                                program(),
                                "--runtime-dir",
                                runtime_.path().native(),
                                "--idle-exit",
                                "1"};
  std::ranges::copy(engineArguments(Pace::quick), std::back_inserter(argv));
  // The activator hands the daemon an empty environment unless told otherwise; it gets the test's,
  // as any daemon here does (the sanitizers' options, the Flatpak engine's private directories).
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view entry(*variable);
    argv.insert(argv.begin() + 1, {"-E", std::string(entry.substr(0, entry.find('=')))});
  }
  Process activator(argv);
  ASSERT_TRUE(activator.waitForError("Listening on")) << activator.err();
  Process probe({CORVANE_PROBE_PATH, "keys"}, {{"CORVANE_RUNTIME_DIR", runtime_.path().native()}});
  EXPECT_EQ(probe.wait(), 0) << probe.out() << probe.err();
  EXPECT_EQ(probe.out(), "ok 0\n");
  // With its only client gone and nothing installing, it exits by itself, cleanly.
  EXPECT_EQ(activator.wait(), 0) << activator.err();
  EXPECT_TRUE(activator.out().contains("listening on " + socket.native())) << activator.out();
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

TEST_P(Daemon, CallersOutsideTheAllowedUsersMayReadButNotChangeState) {
  if (::geteuid() != 0) GTEST_SKIP() << "running as another uid needs root";
  if (::access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv (util-linux) is missing";
  const ::group* nogroup = ::getgrnam("nogroup");  // NOLINT(concurrency-mt-unsafe): one thread
  if (nogroup == nullptr) GTEST_SKIP() << "no group 'nogroup' to allow";
  // The other user must be able to reach the socket; the daemon decides by credentials.
  ::chmod(runtime_.path().c_str(), 0755);
  constexpr unsigned nobodyUser = 65534;
  start();

  const auto [readOut, readStatus] = probeAs(nobodyUser, nobodyUser, "keys", runtime_.path());
  EXPECT_EQ(readStatus, 0) << readOut;
  const auto [writeOut, writeStatus] = probeAs(nobodyUser, nobodyUser, "reset", runtime_.path());
  EXPECT_EQ(writeStatus, 1) << writeOut;
  EXPECT_NE(writeOut.find("unrecoverableError"), std::string::npos) << writeOut;
  EXPECT_NE(writeOut.find("permission denied"), std::string::npos) << writeOut;
  EXPECT_TRUE(daemon_->process().waitForError(fmt::format("refused to uid {} (pid ", nobodyUser)))
      << daemon_->process().err();
  EXPECT_EQ(daemon_->stop(), 0);

  // Members of the allowed group may change state.
  start(Pace::quick, {"--allow-group", "nogroup"});
  const auto [allowedOut, allowedStatus] =
      probeAs(nobodyUser, nogroup->gr_gid, "reset", runtime_.path());
  EXPECT_EQ(allowedStatus, 0) << allowedOut;
}

TEST_F(SimulatedDaemon, AClientThatStopsReadingItsPushesIsCutOffAlone) {
  start();
  // A dozen catalogue entries (the simulator's sample) make each push large.
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

  // Each poll pushes the whole catalogue to it, until its unread queue passes the daemon's bound
  // and the daemon closes it.
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

TEST_F(SimulatedDaemon, ACatalogueFileThatDoesNotDecodeStopsItAtStart) {
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

}  // namespace
}  // namespace corvane::testing
