// The install engine over the simulated backend, stepped by hand: every state an app passes
// through, in order.

#include "Engine.hpp"
#include "SimulatedBackend.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace corvane::sim {
namespace {

using Reason = ManagedAppStatus::Reason;

// An engine and the backend it drives.
struct Rig {
  explicit Rig(int downloadSteps = 5, int installSteps = 2, std::size_t parallel = 2,
               std::map<std::string, Reason, std::less<>> failures = {})
      : backend(SimulationSettings{downloadSteps, installSteps, std::move(failures)}),
        engine(backend, EngineSettings{parallel}) {}
  SimulatedBackend backend;
  Engine engine;
};

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
  states.reserve(changes.size());
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
  Rig rig(4, 2);
  Engine& engine = rig.engine;
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
  Rig rig(2, 1, 2);
  Engine& engine = rig.engine;
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
    Rig rig(2, 2);
    Engine& engine = rig.engine;
    engine.put(app("a"));
    engine.install("a");
    // Each tick's changes are taken, as the daemon commits them: only then does the backend
    // hear of them.
    (void)engine.takeChanges();
    for (int i = 0; i < row.ticks; ++i) {
      engine.tick();
      (void)engine.takeChanges();
    }
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
    Rig rig(2, 2, 2, {{"a", row.reason}});
    Engine& engine = rig.engine;
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
  Rig rig;
  Engine& engine = rig.engine;
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
  Rig rig(4, 1);
  Engine& engine = rig.engine;
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
  Rig restartedRig;
  Engine& restarted = restartedRig.engine;
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
  const auto prepare = [](Engine& engine) {
    for (const char* name : {"a", "b", "c", "d", "e"}) engine.put(app(name));
    engine.install("a");
    runToRest(engine);
    for (const char* name : {"b", "c", "d"}) engine.install(name);
    engine.tick();
    engine.fail("e", Reason::installFailed);
    (void)engine.takeChanges();
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
    Rig rig(3, 2);
    Engine& engine = rig.engine;
    prepare(engine);
    Rig untouched(3, 2);
    Engine& expected = untouched.engine;
    prepare(expected);
    row.change(engine);
    EXPECT_FALSE(engine.changes().empty()) << row.what;
    engine.rollback();
    EXPECT_TRUE(engine.changes().empty()) << row.what;
    EXPECT_EQ(engine.records(), expected.records()) << row.what;
    // The queue and the backend's jobs are back too, and what the backend reported is applied
    // again: from here both go through the same states in the same order.
    EXPECT_EQ(statesOfAll(runToRest(engine)), statesOfAll(runToRest(expected))) << row.what;
    EXPECT_EQ(describe(engine), describe(expected)) << row.what;
  }
}

TEST(Engine, RollbackKeepsWhatWasTaken) {
  Rig rig(2, 1);
  Engine& engine = rig.engine;
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

// A backend that does what the test says: it logs what it is told and reports what it is given.
class ScriptedBackend final : public InstallBackend {
 public:
  void start(std::uint64_t job, const AppRecord& app) override {
    log.push_back(fmt::format("start {}#{}", app.bundleID, job));
  }
  void cancel(std::uint64_t job, const std::string& bundleID) override {
    log.push_back(fmt::format("cancel {}#{}", bundleID, job));
  }
  void uninstall(const AppRecord& app) override { log.push_back("uninstall " + app.bundleID); }
  std::vector<InstallReport> takeReports() override { return std::exchange(reports, {}); }

  void report(std::uint64_t job, InstallReport::Kind kind,
              std::optional<std::string> version = {}) {
    InstallReport report;
    report.job = job;
    report.bundleID = "a";
    report.kind = kind;
    report.version = std::move(version);
    reports.push_back(std::move(report));
  }
  std::vector<std::string> takeLog() { return std::exchange(log, {}); }

  std::vector<std::string> log;
  std::vector<InstallReport> reports;
};

TEST(Engine, TheBackendHearsOnlyOfTakenChangesAndLateReportsAreIgnored) {
  using Log = std::vector<std::string>;
  using Kind = InstallReport::Kind;
  ScriptedBackend backend;
  Engine engine(backend);
  engine.put(app("a"));
  engine.install("a");
  engine.update();
  EXPECT_EQ(backend.takeLog(), Log{});  // nothing committed yet
  (void)engine.takeChanges();
  EXPECT_EQ(backend.takeLog(), Log{"start a#1"});

  // A cancel that is rolled back reaches no backend.
  engine.cancel("a");
  engine.rollback();
  (void)engine.takeChanges();
  EXPECT_EQ(backend.takeLog(), Log{});
  EXPECT_EQ(engine.find("a")->phase, Phase::downloading);
  engine.cancel("a");
  (void)engine.takeChanges();
  EXPECT_EQ(backend.takeLog(), Log{"cancel a#1"});

  // The cancelled job finished anyway: its report no longer counts.
  backend.report(1, Kind::installed);
  engine.update();
  EXPECT_EQ(engine.find("a")->phase, Phase::optional);

  engine.install("a");
  engine.update();
  (void)engine.takeChanges();
  EXPECT_EQ(backend.takeLog(), Log{"start a#2"});
  backend.report(2, Kind::progressed);
  backend.reports.back().progress = 0.5;
  backend.report(2, Kind::downloaded);
  backend.report(2, Kind::installed, "2.0");
  engine.update();
  EXPECT_EQ(engine.find("a")->phase, Phase::managed);
  // A store that refuses the change does not lose what the backend said: it is applied again.
  engine.rollback();
  EXPECT_EQ(engine.find("a")->phase, Phase::downloading);
  engine.update();
  EXPECT_EQ(engine.find("a")->phase, Phase::managed);
  EXPECT_EQ(engine.find("a")->version, "2.0");
  EXPECT_EQ(statesOf(engine.takeChanges(), "a"),
            (Log{"Downloading (50.00%)", "Installing (0.00%)", "Managed"}));

  // What the daemon installed goes when the app is no longer looked after.
  engine.remove("a");
  (void)engine.takeChanges();
  EXPECT_EQ(backend.takeLog(), Log{"uninstall a"});
}

TEST(Engine, AnUpdateKeepsTheAppInstalledWhateverBecomesOfIt) {
  using Log = std::vector<std::string>;
  using Kind = InstallReport::Kind;
  using UpdateState = ManagedAppStatus::UpdateState;
  ScriptedBackend backend;
  Engine engine(backend);
  engine.put(app("a"));
  engine.install("a");
  engine.update();
  (void)engine.takeChanges();
  backend.report(1, Kind::installed, "1.0");
  engine.update();
  EXPECT_FALSE(engine.upgrade("b"));  // unknown
  EXPECT_EQ(engine.find("a")->status().updateState, std::nullopt);

  backend.report(0, Kind::updateAvailable);
  backend.report(0, Kind::updateAvailable);  // found twice, noted once
  engine.update();
  EXPECT_EQ(engine.find("a")->reasons, std::vector<Reason>{Reason::updateAvailable});
  EXPECT_EQ(engine.find("a")->status().updateState, UpdateState::available);

  struct Row {
    const char* what;
    std::function<void(std::uint64_t job)> outcome;
    std::string version;
    std::vector<Reason> reasons;
    std::optional<UpdateState> updateState;
  };
  const std::vector<Row> table = {
      {"installed",
       [&](std::uint64_t job) {
         backend.report(job, Kind::progressed);
         backend.reports.back().progress = 0.5;
         backend.report(job, Kind::downloaded);
         backend.report(job, Kind::installed, "2.0");
       },
       "2.0",
       {},
       std::nullopt},
      {"cancelled",
       [&](std::uint64_t /*job*/) { EXPECT_TRUE(engine.cancel("a")); },
       "2.0",
       {},
       std::nullopt},
      {"failed",
       [&](std::uint64_t job) { backend.report(job, Kind::failed); },
       "2.0",
       {Reason::updateFailed},
       UpdateState::failed},
  };
  std::uint64_t job = 1;
  (void)backend.takeLog();
  for (const auto& row : table) {
    ASSERT_TRUE(engine.upgrade("a")) << row.what;
    ++job;
    (void)engine.takeChanges();
    EXPECT_EQ(backend.takeLog(), Log{fmt::format("start a#{}", job)}) << row.what;
    const auto during = engine.find("a")->status();
    EXPECT_EQ(during.state, ManagedAppStatus::State::managed) << row.what;
    EXPECT_EQ(during.updateState, UpdateState::updating) << row.what;
    EXPECT_TRUE(engine.busy()) << row.what;
    row.outcome(job);
    engine.update();
    const AppRecord* record = engine.find("a");
    EXPECT_EQ(record->phase, Phase::managed) << row.what;
    EXPECT_EQ(record->version, row.version) << row.what;
    EXPECT_EQ(record->reasons, row.reasons) << row.what;
    EXPECT_EQ(record->status().updateState, row.updateState) << row.what;
    EXPECT_FALSE(engine.busy()) << row.what;
    (void)engine.takeChanges();
    (void)backend.takeLog();
  }
}

TEST(Engine, AnInventoryMarksOnlyManagedAppsMissingFromIt) {
  using Kind = InstallReport::Kind;
  ScriptedBackend backend;
  Engine engine(backend, EngineSettings{4});
  const std::vector<std::string> ids{"gone", "kept", "underway", "dropped"};
  for (const auto& id : ids) {
    engine.put(app(id));
    engine.install(id);
  }
  engine.update();
  (void)engine.takeChanges();  // jobs 1 to 4, in that order
  for (const std::uint64_t job : {1U, 2U, 4U}) {
    backend.report(job, Kind::installed);
    backend.reports.back().bundleID = ids[job - 1];
  }
  engine.update();
  engine.uninstall("dropped");  // the daemon's own uninstall
  (void)engine.takeChanges();

  // Nothing but "kept" is installed now.
  InstallReport inventory;
  inventory.kind = Kind::inventory;
  inventory.installedApps = {"kept"};
  backend.reports.push_back(std::move(inventory));
  engine.update();
  EXPECT_EQ(engine.find("gone")->phase, Phase::managedButUninstalled);
  EXPECT_EQ(engine.find("gone")->status().state, ManagedAppStatus::State::managedButUninstalled);
  EXPECT_EQ(engine.find("kept")->phase, Phase::managed);
  EXPECT_EQ(engine.find("underway")->phase, Phase::downloading);
  EXPECT_EQ(engine.find("dropped")->phase, Phase::optional);
  EXPECT_EQ(statesOfAll(engine.takeChanges()), std::vector<std::string>{"gone: Available"});
  // It can be installed again.
  EXPECT_TRUE(engine.install("gone"));
}

}  // namespace
}  // namespace corvane::sim
