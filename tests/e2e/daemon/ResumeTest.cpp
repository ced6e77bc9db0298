// Streams across a daemon restart: a catalogue, a state and a progress stream opened before the
// daemon is killed (or stopped) deliver again once it is back, before the caller issues any
// command, and the hub never registers a second time: the connection comes back by itself and
// the daemon restores what the hub had registered from its store.

#include "support/EngineDaemon.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <tuple>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;

struct Restart {
  std::string_view name;
  bool kill;  // SIGKILL, else SIGTERM
};

void PrintTo(const Restart& restart, std::ostream* out) {
  *out << restart.name;
}

class Resume : public EngineDaemon,
               public ::testing::WithParamInterface<std::tuple<const Engine*, Restart>> {
 protected:
  Resume() : EngineDaemon(*std::get<0>(GetParam())) {
    // The daemon logs each registration, and each restored one, at info level.
    ::setenv("CORVANE_LOG_LEVEL", "info", 1);  // NOLINT: no threads yet
  }
};

TEST_P(Resume, StreamsDeliverAgainAfterARestartWithoutASecondRegistration) {
  start();
  auto& daemon = *daemon_;
  declare("D-hello", StoreAppIdentifier::bundleID(engine_.hello), InstallTimingEnum::onDemand);
  auto catalog = ManagedAppLibrary::shared().managedApps();
  std::optional<ManagedApp> entry = firstCatalogEntry(catalog);
  ASSERT_TRUE(entry.has_value());
  auto states = entry->stateUpdates();
  ASSERT_TRUE(nextWithin(states).has_value());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  // The three registrations are in before the daemon goes.
  ASSERT_TRUE(daemon.process().waitFor([](const std::string&, const std::string& err) {
    return occurrences(err, ") registered ") == 3;
  })) << daemon.process().err();

  if (std::get<1>(GetParam()).kill) {
    daemon.kill();
  } else {
    ASSERT_EQ(daemon.stop(), 0);
  }
  daemon.restart();

  // No command yet: what arrives was sent because the hub's connection came back by itself.
  const auto catalogAgain = nextWithin(catalog);
  ASSERT_TRUE(catalogAgain.has_value());
  const auto* apps = std::get_if<std::vector<ManagedApp>>(&*catalogAgain);
  ASSERT_NE(apps, nullptr);
  ASSERT_EQ(apps->size(), 1U);
  EXPECT_EQ(apps->front().bundleID(), entry->bundleID());
  const auto stateAgain = nextWithin(states);
  ASSERT_TRUE(stateAgain.has_value());
  EXPECT_EQ(*stateAgain, AppState::available(AppState::Availability::available));

  // Changes reach both streams that follow them, and progress too.
  ManagedAppLibrary::shared().install(*entry, asio::use_future).get();
  EXPECT_TRUE(readUntil(
      progress, [](const AppProgress& value) { return value.state == AppState::managed(); }));
  EXPECT_TRUE(
      readUntil(states, [](const AppState& state) { return state == AppState::managed(); }));

  // All three came back in one restoration, and the hub asked for none of them again.
  EXPECT_TRUE(daemon.process().waitForError(") resumed with ")) << daemon.process().err();
  const auto& err = daemon.process().err();
  EXPECT_EQ(occurrences(err, ") resumed with "), 1U) << err;
  EXPECT_EQ(occurrences(err, ") registered "), 0U) << err;
}

INSTANTIATE_TEST_SUITE_P(Restarts, Resume,
                         ::testing::Combine(::testing::ValuesIn(engines),
                                            ::testing::Values(Restart{"SIGKILL", true},
                                                              Restart{"SIGTERM", false})),
                         [](const auto& test) {
                           return std::get<0>(test.param)->label
                                  + std::string(std::get<1>(test.param).name);
                         });

}  // namespace
}  // namespace corvane::testing
