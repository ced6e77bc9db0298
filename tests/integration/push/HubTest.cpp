// The push channel end to end: the in-process daemon of tests/support records the registration
// calls it gets and pushes batches to the client through the real connection; the
// library's hub and streams are observed from the outside. Each test case runs in a process of
// its own, so the shared connection and hub start empty.

#include "integration/ipc/IpcTestSupport.hpp"
#include "push/detail/HubStorage.hpp"
#include "support/FakeDaemon.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/parse.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <future>
#include <mutex>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using ipc::testing::bound;
using ipc::testing::Counter;
using ipc::testing::TemporaryDirectory;

std::string catalogOf(std::string_view name) {
  return fmt::format(
      R"({{"type": {{"managedAppCatalog": {{"_0": [{{"declarationIdentifier": "D-{0}",
          "bundleID": "dev.corvane.{0}", "platform": 1, "name": "{0}", "genres": [],
          "languages": [], "screenshots": [], "hasLicenseAgreement": false}}]}}}}}})",
      name);
}

std::string progressOf(std::string_view bundle, std::string_view state) {
  return fmt::format(
      R"({{"type": {{"appProgress": {{"progress": {{"state": {}, "bundleID": "{}",
          "uuid": "0F0E0D0C-0B0A-0908-0706-050403020100"}}}}}}}})",
      state, bundle);
}

/// The name of the only app of a catalogue result, or its error's case name.
std::string describe(const std::optional<CatalogResult>& result) {
  if (!result) return "<ended>";
  if (const auto* apps = std::get_if<std::vector<ManagedApp>>(&*result)) {
    return apps->empty() ? "<empty>" : apps->front().name();
  }
  return std::string(caseName(std::get<CorvaneError>(*result)));
}

std::string upperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

ManagedApp appWithBundle(const std::string& bundleID) {
  return ManagedApp("D", bundleID, std::nullopt, std::nullopt, Platform(1), std::nullopt,
                    std::nullopt, "N", std::nullopt, std::nullopt, {}, std::nullopt, {},
                    std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                    std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt, false, std::nullopt,
                    std::nullopt);
}

class HubTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("CORVANE_RUNTIME_DIR", directory.path().c_str(), 1);  // NOLINT: before any thread
  }

  /// Waits until the hub's active registrations satisfy `predicate`.
  template <class Predicate>
  static bool waitForHub(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!predicate(push::detail::snapshot(TetherClient::shared()))) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  TemporaryDirectory directory;
  platform::ScopedLogCapture log;
};

TEST_F(HubTest, ASecondCatalogListenerGetsTheCacheFirstAndNoSecondRegistration) {
  FakeDaemon daemon(directory.path());
  auto first = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(daemon.calls.waitFor(1));
  daemon.push(fmt::format("[{}]", catalogOf("One")));
  EXPECT_EQ(describe(first.next()), "One");

  auto second = ManagedAppLibrary::shared().managedApps();
  EXPECT_EQ(describe(second.next()), "One") << "the cached catalogue comes at once";
  daemon.push(fmt::format("[{}]", catalogOf("Two")));
  EXPECT_EQ(describe(first.next()), "Two");
  EXPECT_EQ(describe(second.next()), "Two");
  const auto calls = daemon.received();
  ASSERT_EQ(calls.size(), 1U) << "appCatalog was active already";
  EXPECT_EQ(calls[0].operation, "addMessageRegistrations:reply:");
  EXPECT_EQ(boost::json::parse(calls[0].argument.value()),
            boost::json::parse(
                fmt::format(R"([[{{"appCatalog": {{}}}}], "{}"])",
                            upperCase(boost::uuids::to_string(TetherClient::shared().clientID())))))
      << calls[0].argument.value();
}

TEST_F(HubTest, TheLastListenerWithdrawsAndALaterOneStillGetsTheCache) {
  FakeDaemon daemon(directory.path());
  {
    auto apps = ManagedAppLibrary::shared().managedApps();
    ASSERT_TRUE(daemon.calls.waitFor(1));
    daemon.push(fmt::format("[{}]", catalogOf("One")));
    EXPECT_EQ(describe(apps.next()), "One");
  }  // ending the sequence removes its listener and withdraws the registration
  ASSERT_TRUE(daemon.calls.waitFor(2));
  EXPECT_EQ(daemon.received().at(1).operation, "removeMessageRegistrations:reply:");
  EXPECT_TRUE(waitForHub(
      [](const push::detail::HubStorage& hub) { return hub.activeRegistrations.empty(); }));

  auto later = ManagedAppLibrary::shared().managedApps();
  EXPECT_EQ(describe(later.next()), "One");
  ASSERT_TRUE(daemon.calls.waitFor(3)) << "the later listener registers again";
}

TEST_F(HubTest, AWithdrawalTheDaemonNeverAnswersEndsWithinItsBoundAndStaysActive) {
  FakeDaemon daemon(directory.path());
  std::optional<ManagedAppLibrary::ManagedApps> apps(ManagedAppLibrary::shared().managedApps());
  ASSERT_TRUE(daemon.calls.waitFor(1));
  daemon.hold("removeMessageRegistrations:reply:");
  const auto started = std::chrono::steady_clock::now();
  apps.reset();  // ends the stream: the withdrawal is made, and never answered
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, TetherClient::withdrawalTimeout);
  EXPECT_LT(waited, TetherClient::withdrawalTimeout + bound);
  EXPECT_EQ(daemon.received().back().operation, "removeMessageRegistrations:reply:");
  std::size_t failures = 0;
  for (const auto& record : log.records()) {
    if (record.message.starts_with("Error removing registration for message: ")) {
      ++failures;
      EXPECT_EQ(record.level, platform::LogLevel::error);
      EXPECT_EQ(record.category, "Tether");
    }
  }
  EXPECT_EQ(failures, 1U);
  // Still active, so the hub keeps treating it as asked for and a later withdrawal tries again.
  EXPECT_EQ(push::detail::snapshot(TetherClient::shared())
                .activeRegistrations.count(MessageRegistration::appCatalog()),
            1U);
}

TEST_F(HubTest, CatalogueMessagesBecomeResultsInBatchOrder) {
  FakeDaemon daemon(directory.path());
  auto apps = ManagedAppLibrary::shared().managedApps();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(daemon.calls.waitFor(2));
  // Neither list nor error, then an error, then a list; the newest-only buffer of the catalogue
  // keeps only the last one, so each is taken before the next is pushed.
  daemon.push(R"([{"type": {"managedAppCatalog": {}}}])");
  EXPECT_EQ(describe(apps.next()), "unrecoverableError");
  daemon.push(R"([{"type": {"managedAppCatalog": {"_1": {"networkError": {}}}}}])");
  EXPECT_EQ(describe(apps.next()), "networkError");
  // One batch: a catalogue, then progress; both arrive, the catalogue handled first.
  daemon.push(fmt::format("[{}, {}]", catalogOf("Three"),
                          progressOf("dev.corvane.x", R"({"installing": {"_0": 0.5}})")));
  EXPECT_EQ(describe(apps.next()), "Three");
  const auto value = progress.next();
  ASSERT_TRUE(value);
  EXPECT_EQ(value->bundleID, "dev.corvane.x");
}

TEST_F(HubTest, AnUndecodableBatchChangesNothingAndWritesOneLine) {
  FakeDaemon daemon(directory.path());
  auto apps = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(daemon.calls.waitFor(1));
  daemon.push(fmt::format("[{}, {{\"type\": {{\"bogus\": {{}}}}}}]", catalogOf("Never")));
  daemon.push(fmt::format("[{}]", catalogOf("After")));
  EXPECT_EQ(describe(apps.next()), "After") << "the bad batch was dropped whole";
  std::size_t lines = 0;
  for (const auto& record : log.records())
    lines += record.message.starts_with("Error decoding Tether client message: ") ? 1U : 0U;
  EXPECT_EQ(lines, 1U);
}

TEST_F(HubTest, ProgressForAnAppNobodyWatchesStillUpdatesItsCachedState) {
  FakeDaemon daemon(directory.path());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(daemon.calls.waitFor(1));
  daemon.push(fmt::format("[{}]", progressOf("dev.corvane.quiet", R"({"waiting": {}})")));
  ASSERT_TRUE(progress.next());
  // Progress listeners are served before the state cache is written, so wait for it.
  EXPECT_TRUE(waitForHub([](const push::detail::HubStorage& hub) {
    return hub.cachedStates.contains("dev.corvane.quiet");
  }));
  auto state = appWithBundle("dev.corvane.quiet").stateUpdates();
  const auto cached = state.next();
  ASSERT_TRUE(cached) << "a new state listener gets the cached state at once";
}

TEST_F(HubTest, AStateListenerAndACallbackShareTheRegistration) {
  FakeDaemon daemon(directory.path());
  const std::string bundle = "dev.corvane.notes";
  Counter called;
  auto stream = std::make_optional(appWithBundle(bundle).stateUpdates());
  TetherClient::shared().addStateChangeBlock(bundle, "observer",
                                             [&](const AppState&) { called.add(); });
  ASSERT_TRUE(daemon.calls.waitFor(1));
  daemon.push(fmt::format("[{}]", progressOf(bundle, R"({"installing": {"_0": 0.5}})")));
  ASSERT_TRUE(stream->next());
  ASSERT_TRUE(called.waitFor(1));

  stream.reset();  // the stream's listener goes: cached state deleted, registration kept
  auto hub = push::detail::snapshot(TetherClient::shared());
  EXPECT_FALSE(hub.cachedStates.contains(bundle));
  EXPECT_TRUE(
      hub.activeRegistrations.contains(MessageRegistration::appStateChangeByBundleID(bundle)));
  EXPECT_EQ(daemon.received().size(), 1U);
  daemon.push(fmt::format("[{}]", progressOf(bundle, R"({"waiting": {}})")));
  ASSERT_TRUE(called.waitFor(2)) << "the callback still gets states";

  TetherClient::shared().removeStateChangeBlock(bundle, "observer");
  ASSERT_TRUE(daemon.calls.waitFor(2));
  EXPECT_EQ(daemon.received().back().operation, "removeMessageRegistrations:reply:");
  EXPECT_EQ(push::detail::snapshot(TetherClient::shared()).subscriberCounts.at(bundle), 0);
}

TEST_F(HubTest, AFailedAddLeavesTheRegistrationInactiveSoTheNextListenerAsksAgain) {
  FakeDaemon daemon(directory.path());
  daemon.script("addMessageRegistrations:reply:", R"([{"failure": {"_0": {"networkError": {}}}}])");
  {
    auto apps = ManagedAppLibrary::shared().managedApps();
    ASSERT_TRUE(daemon.calls.waitFor(1));
    ASSERT_TRUE(waitForHub(
        [](const push::detail::HubStorage& hub) { return hub.activeRegistrations.empty(); }));
    EXPECT_TRUE(log.waitFor(
        [](const platform::LogRecord& r) {
          return r.message.starts_with("Error registering for message: [App catalog changed]: ");
        },
        bound));
  }
  auto again = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(daemon.calls.waitFor(2));
  EXPECT_EQ(daemon.received().at(1).operation, "addMessageRegistrations:reply:");
}

TEST_F(HubTest, ASlowCatalogueConsumerSeesTheNewestWhileProgressKeepsEveryValue) {
  FakeDaemon daemon(directory.path());
  auto apps = ManagedAppLibrary::shared().managedApps();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(daemon.calls.waitFor(2));
  daemon.push(fmt::format("[{}, {}, {}, {}]", catalogOf("A"), catalogOf("B"), catalogOf("C"),
                          progressOf("dev.corvane.marker", R"({"waiting": {}})")));
  for (int i = 0; i < 3; ++i)
    daemon.push(fmt::format("[{}]", progressOf("dev.corvane.p", R"({"installing": {"_0": 0.5}})")));
  // All four progress values are kept; by then the catalogue has been fanned out three times.
  std::vector<std::string> bundles;
  for (int i = 0; i < 4; ++i) bundles.push_back(progress.next().value().bundleID);
  EXPECT_EQ(bundles, (std::vector<std::string>{"dev.corvane.marker", "dev.corvane.p",
                                               "dev.corvane.p", "dev.corvane.p"}));
  EXPECT_EQ(describe(apps.next()), "C") << "only the newest undelivered result is kept";
}

TEST_F(HubTest, EndingStreamsFromACallbackAndFromACoroutineDoesNotDeadlock) {
  FakeDaemon daemon(directory.path());
  // From a delivery callback: the state-change callback ends a progress stream, which withdraws
  // its registration with a synchronous call from the connection's delivery thread.
  auto progress = std::make_shared<std::optional<AsyncStream<AppProgress>>>(
      ManagedAppLibrary::shared().progressUpdates());
  std::promise<void> ended;
  TetherClient::shared().addStateChangeBlock("dev.corvane.cb", "ender",
                                             [&, progress](const AppState&) {
                                               if (progress->has_value()) {
                                                 progress->reset();
                                                 ended.set_value();
                                               }
                                             });
  ASSERT_TRUE(daemon.calls.waitFor(2));
  daemon.push(fmt::format("[{}]", progressOf("dev.corvane.cb", R"({"waiting": {}})")));
  ASSERT_EQ(ended.get_future().wait_for(bound), std::future_status::ready);
  ASSERT_TRUE(daemon.calls.waitFor(3));
  EXPECT_EQ(daemon.received().back().operation, "removeMessageRegistrations:reply:");

  // From a coroutine: it takes one catalogue and lets its sequence go.
  asio::io_context io;
  std::string seen;
  asio::co_spawn(
      io,
      [&]() -> asio::awaitable<void> {
        auto apps = ManagedAppLibrary::shared().managedApps();
        auto result = co_await apps.next(asio::use_awaitable);
        seen = describe(result);
      },
      asio::detached);
  std::thread pusher([&] {
    ASSERT_TRUE(daemon.calls.waitFor(4));
    daemon.push(fmt::format("[{}]", catalogOf("Co")));
  });
  io.run();
  pusher.join();
  EXPECT_EQ(seen, "Co");
  ASSERT_TRUE(daemon.calls.waitFor(5)) << "the coroutine's sequence withdrew";
}

TEST_F(HubTest, OnAnInternalBuildDaemonLinesArePrintedAndLoggingIsAskedFor) {
  ::setenv("CORVANE_INTERNAL_BUILD", "1", 1);  // NOLINT: before the connection's threads
  FakeDaemon daemon(directory.path());
  auto apps = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(daemon.calls.waitFor(1));
  ::testing::internal::CaptureStdout();
  // The catalogue comes behind the other two in the batch, so once it is here they were handled.
  daemon.push(fmt::format(
      R"([{{"type": {{"connectionEstablished": {{}}}}}}, {{"type": {{"log": {{"log": "daemon says hi"}}}}}}, {}])",
      catalogOf("Marker")));
  EXPECT_EQ(describe(apps.next()), "Marker");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "daemon says hi\n");
  ASSERT_TRUE(daemon.calls.waitFor(2));
  const auto calls = daemon.received();
  EXPECT_EQ(boost::json::parse(calls.at(1).argument.value()).as_array().at(0),
            boost::json::parse(R"([{"logging": {}}])"));
}

TEST_F(HubTest, ElsewhereDaemonLinesAndTheConnectionMessageAreIgnored) {
  ::unsetenv("CORVANE_INTERNAL_BUILD");  // NOLINT
  FakeDaemon daemon(directory.path());
  auto apps = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(daemon.calls.waitFor(1));
  ::testing::internal::CaptureStdout();
  daemon.push(fmt::format(
      R"([{{"type": {{"connectionEstablished": {{}}}}}}, {{"type": {{"log": {{"log": "quiet"}}}}}}, {}])",
      catalogOf("Marker")));
  EXPECT_EQ(describe(apps.next()), "Marker");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(daemon.received().size(), 1U) << "no logging registration";
}

TEST_F(HubTest, StreamsOpenedAndEndedWhileBatchesArriveLoseNothingAndKeepTheCountsRight) {
  FakeDaemon daemon(directory.path());
  auto keeper = ManagedAppLibrary::shared().progressUpdates();  // keeps progress registered
  ASSERT_TRUE(daemon.calls.waitFor(1));
  constexpr int rounds = 40;
  std::atomic<bool> pushing{true};
  std::thread pusher([&] {
    for (int batches = 0; pushing && batches < 2000; ++batches) {
      daemon.push(fmt::format("[{}, {}]", progressOf("dev.corvane.race", R"({"waiting": {}})"),
                              catalogOf("Race")));
    }
  });
  std::vector<std::thread> consumers;
  for (int t = 0; t < 3; ++t) {
    consumers.emplace_back([&, t] {
      const auto app = appWithBundle(fmt::format("dev.corvane.race{}", t % 2));
      for (int i = 0; i < rounds; ++i) {
        auto progress = ManagedAppLibrary::shared().progressUpdates();
        auto state = app.stateUpdates();
        auto apps = ManagedAppLibrary::shared().managedApps();
        if (i % 4 == 0) (void)apps.next();  // sometimes take a value before ending
      }
    });
  }
  for (auto& consumer : consumers) consumer.join();
  pushing = false;
  pusher.join();
  // Every stream ended: only the keeper is left, and the per-app counts are back to zero.
  const auto hub = push::detail::snapshot(TetherClient::shared());
  EXPECT_EQ(hub.progressListeners.size(), 1U);
  EXPECT_TRUE(hub.catalogListeners.empty());
  for (const auto& [bundle, count] : hub.subscriberCounts) EXPECT_EQ(count, 0) << bundle;
  EXPECT_TRUE(keeper.next()) << "the remaining stream still gets values";
}

}  // namespace
}  // namespace corvane::testing
