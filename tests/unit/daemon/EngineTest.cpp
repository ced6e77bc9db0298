// The install engine stepped by hand: every state an app passes through, in order.

#include "Engine.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace corvane::sim {
namespace {

using Reason = ManagedAppStatus::Reason;

EngineSettings settings(int downloadSteps, int installSteps, std::size_t parallel = 2) {
  EngineSettings result;
  result.downloadSteps = downloadSteps;
  result.installSteps = installSteps;
  result.parallelInstalls = parallel;
  return result;
}

AppRecord app(std::string bundleID) {
  AppRecord record;
  record.bundleID = std::move(bundleID);
  record.declarationIdentifier = "D-" + record.bundleID;
  record.declarationKey = "K";
  record.name = "App";
  return record;
}

// The text forms of the states the changes went through, for one app.
std::vector<std::string> statesOf(const std::vector<Engine::Change>& changes,
                                  std::string_view bundleID) {
  std::vector<std::string> states;
  for (const auto& change : changes)
    if (change.record.bundleID == bundleID)
      states.push_back(change.removed ? "removed" : fmt::format("{}", change.record.appState()));
  return states;
}

// Every app's states as the changes went through them, in order.
std::vector<std::string> statesOfAll(const std::vector<Engine::Change>& changes) {
  std::vector<std::string> states;
  for (const auto& change : changes)
    states.push_back(
        fmt::format("{}: {}", change.record.bundleID,
                    change.removed ? "removed" : fmt::format("{}", change.record.appState())));
  return states;
}

// Ticks until nothing is under way (at most `limit` ticks), collecting the changes.
std::vector<Engine::Change> runToRest(Engine& engine, int limit = 100) {
  std::vector<Engine::Change> all = engine.takeChanges();
  for (int i = 0; i < limit && engine.busy(); ++i) {
    engine.tick();
    auto changes = engine.takeChanges();
    all.insert(all.end(), changes.begin(), changes.end());
  }
  return all;
}

TEST(Engine, AnInstallPassesThroughEveryStateInOrder) {
  Engine engine(settings(4, 2));
  engine.put(app("a"));
  ASSERT_TRUE(engine.install("a"));
  const auto changes = runToRest(engine);
  EXPECT_EQ(statesOf(changes, "a"),
            (std::vector<std::string>{"Available", "Waiting", "Downloading (0.00%)",
                                      "Downloading (25.00%)", "Downloading (50.00%)",
                                      "Downloading (75.00%)", "Installing (0.00%)",
                                      "Installing (50.00%)", "Managed"}));
  EXPECT_FALSE(engine.busy());
  const auto status = engine.find("a")->status();
  EXPECT_EQ(status.state, ManagedAppStatus::State::managed);
  EXPECT_TRUE(status.installedVersionInfo.has_value());
  // Only the moves between phases are worth storing, not every step of progress.
  std::size_t phaseChanges = 0;
  for (const auto& change : changes) phaseChanges += change.phaseChanged ? 1 : 0;
  EXPECT_EQ(phaseChanges, 5U);  // put, waiting, downloading, installing, managed
}

TEST(Engine, AtMostTheParallelLimitRunsAndTheRestWaitInOrder) {
  Engine engine(settings(2, 1, 2));
  for (const char* name : {"a", "b", "c"}) {
    engine.put(app(name));
    engine.install(name);
  }
  engine.tick();
  EXPECT_EQ(engine.find("a")->phase, Phase::downloading);
  EXPECT_EQ(engine.find("b")->phase, Phase::downloading);
  EXPECT_EQ(engine.find("c")->phase, Phase::waiting);
  EXPECT_EQ(engine.find("c")->status().state, ManagedAppStatus::State::queued);
  runToRest(engine);
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(engine.find(name)->phase, Phase::managed);
}

TEST(Engine, CancelRemoveAndUninstallInEachPhase) {
  struct Row {
    const char* what;
    int ticks;  // after the install was queued
    bool (Engine::*action)(std::string_view);
    bool expected;
    std::optional<Phase> after;  // empty: no longer looked after
  };
  const std::vector<Row> table = {
      {"cancel waiting", 0, &Engine::cancel, true, Phase::optional},
      {"cancel downloading", 2, &Engine::cancel, true, Phase::optional},
      {"cancel installing", 4, &Engine::cancel, true, Phase::optional},
      {"cancel managed", 20, &Engine::cancel, false, Phase::managed},
      {"remove downloading", 2, &Engine::remove, true, std::nullopt},
      {"remove managed", 20, &Engine::remove, true, std::nullopt},
      // Only what is installed can be uninstalled; an install on its way is left alone.
      {"uninstall waiting", 0, &Engine::uninstall, false, Phase::waiting},
      {"uninstall downloading", 2, &Engine::uninstall, false, Phase::downloading},
      {"uninstall managed", 20, &Engine::uninstall, true, Phase::optional},
  };
  for (const auto& row : table) {
    Engine engine(settings(2, 2));
    engine.put(app("a"));
    engine.install("a");
    for (int i = 0; i < row.ticks; ++i) engine.tick();
    (void)engine.takeChanges();
    EXPECT_EQ((engine.*row.action)("a"), row.expected) << row.what;
    const AppRecord* record = engine.find("a");
    EXPECT_EQ(record ? std::optional(record->phase) : std::nullopt, row.after) << row.what;
    EXPECT_EQ(engine.busy(), row.after == Phase::waiting || row.after == Phase::downloading)
        << row.what;
    EXPECT_EQ(engine.takeChanges().empty(), !row.expected) << row.what;
    // A cancelled app can be installed again and then completes.
    if (record != nullptr && record->phase == Phase::optional) {
      EXPECT_TRUE(engine.install("a")) << row.what;
      runToRest(engine);
      EXPECT_EQ(engine.find("a")->phase, Phase::managed) << row.what;
    }
  }
}

TEST(Engine, FailuresOnPurposeHappenWhereTheirReasonSays) {
  struct Row {
    Reason reason;
    bool installs;  // whether the app reaches installing before failing
  };
  for (const auto& row : {Row{Reason::downloadFailed, false}, Row{Reason::installFailed, true},
                          Row{Reason::licenseNotFound, true}}) {
    EngineSettings failing = settings(2, 2);
    failing.failures = {{"a", row.reason}};
    Engine engine(failing);
    engine.put(app("a"));
    engine.put(app("b"));
    engine.install("a");
    engine.install("b");
    const auto changes = runToRest(engine);
    const auto states = statesOf(changes, "a");
    EXPECT_EQ(std::ranges::count(states, "Installing (0.00%)"), row.installs ? 1 : 0);
    const auto status = engine.find("a")->status();
    EXPECT_EQ(status.state, ManagedAppStatus::State::failed);
    EXPECT_EQ(status.reasons, std::vector<Reason>{row.reason});
    EXPECT_EQ(engine.find("b")->phase, Phase::managed);  // the other app is not affected
    EXPECT_EQ(engine.clearFailures(), 1U);
    EXPECT_EQ(engine.find("a")->phase, Phase::optional);
    EXPECT_TRUE(engine.find("a")->reasons.empty());
  }
}

TEST(Engine, InstallIsRefusedWhereItMakesNoSense) {
  Engine engine;
  EXPECT_FALSE(engine.install("unknown"));
  engine.put(app("a"));
  EXPECT_TRUE(engine.install("a"));
  EXPECT_FALSE(engine.install("a"));  // already waiting
  runToRest(engine);
  EXPECT_FALSE(engine.install("a"));  // managed
  EXPECT_TRUE(engine.fail("a", Reason::notSupported));
  EXPECT_TRUE(engine.install("a"));  // a failed app may try again
  EXPECT_TRUE(engine.find("a")->reasons.empty());
}

TEST(Engine, PutKeepsWhereAnInstallStandsAndRestartsOneTakenFromStorage) {
  Engine engine(settings(4, 1));
  engine.put(app("a"));
  engine.install("a");
  engine.tick();
  engine.tick();
  AppRecord renamed = app("a");
  renamed.name = "Renamed";
  engine.put(renamed);
  EXPECT_EQ(engine.find("a")->phase, Phase::downloading);
  EXPECT_EQ(engine.find("a")->name, "Renamed");

  // A record stored while downloading (the daemon stopped) starts again from the queue.
  Engine restarted;
  AppRecord stored = app("b");
  stored.phase = Phase::downloading;
  stored.progress = 0.5;
  restarted.put(stored);
  EXPECT_EQ(restarted.find("b")->phase, Phase::waiting);
  EXPECT_TRUE(restarted.busy());
  runToRest(restarted);
  EXPECT_EQ(restarted.find("b")->phase, Phase::managed);
}

// The apps in a fixed order, each with its state, for comparing two engines.
std::vector<std::string> describe(const Engine& engine) {
  std::vector<std::string> described;
  for (const auto& record : engine.records())
    described.push_back(
        fmt::format("{} {} {}", record.bundleID, record.appState(), record.declarationIdentifier));
  return described;
}

TEST(Engine, RollbackUndoesEveryKindOfChangeSinceTheChangesWereTaken) {
  // One app in each phase: a managed, b downloading, c and d waiting (two at a time), e failed.
  const auto prepared = [] {
    Engine engine(settings(3, 2));
    for (const char* name : {"a", "b", "c", "d", "e"}) engine.put(app(name));
    engine.install("a");
    runToRest(engine);
    for (const char* name : {"b", "c", "d"}) engine.install(name);
    engine.tick();
    engine.fail("e", Reason::installFailed);
    (void)engine.takeChanges();
    return engine;
  };
  struct Row {
    const char* what;
    std::function<void(Engine&)> change;
  };
  const std::vector<Row> table = {
      {"put a new app", [](Engine& e) { e.put(app("f")); }},
      {"put over an app", [](Engine& e) { e.put(app("b")); }},
      {"install", [](Engine& e) { EXPECT_TRUE(e.install("e")); }},
      {"cancel a download", [](Engine& e) { EXPECT_TRUE(e.cancel("b")); }},
      {"cancel a waiting install", [](Engine& e) { EXPECT_TRUE(e.cancel("d")); }},
      {"uninstall", [](Engine& e) { EXPECT_TRUE(e.uninstall("a")); }},
      {"remove", [](Engine& e) { EXPECT_TRUE(e.remove("c")); }},
      {"fail", [](Engine& e) { EXPECT_TRUE(e.fail("b", Reason::notSupported)); }},
      {"clear failures", [](Engine& e) { EXPECT_EQ(e.clearFailures(), 1U); }},
      {"tick", [](Engine& e) { e.tick(); }},
      {"several",
       [](Engine& e) {
         e.remove("a");
         e.put(app("a"));
         e.install("a");
         e.cancel("b");
         e.tick();
         e.tick();
       }},
  };
  for (const auto& row : table) {
    Engine engine = prepared();
    const Engine untouched = engine;
    row.change(engine);
    EXPECT_FALSE(engine.changes().empty()) << row.what;
    engine.rollback();
    EXPECT_TRUE(engine.changes().empty()) << row.what;
    EXPECT_EQ(engine.records(), untouched.records()) << row.what;
    // The queue is back too: from here both go through the same states in the same order.
    Engine expected = untouched;
    EXPECT_EQ(statesOfAll(runToRest(engine)), statesOfAll(runToRest(expected))) << row.what;
    EXPECT_EQ(describe(engine), describe(expected)) << row.what;
  }
}

TEST(Engine, RollbackKeepsWhatWasTaken) {
  Engine engine(settings(2, 1));
  engine.put(app("a"));
  engine.install("a");
  (void)engine.takeChanges();
  engine.tick();
  engine.rollback();
  EXPECT_EQ(engine.find("a")->phase, Phase::waiting);
  EXPECT_TRUE(engine.busy());
  engine.rollback();  // nothing more to undo
  EXPECT_EQ(engine.find("a")->phase, Phase::waiting);
  runToRest(engine);
  EXPECT_EQ(engine.find("a")->phase, Phase::managed);
}

}  // namespace
}  // namespace corvane::sim
