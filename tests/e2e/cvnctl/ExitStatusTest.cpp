// The exit statuses every command shares, each reached against a real daemon; the JSON error
// object of every failure; and --wait settling on each outcome: signals, another client's
// cancel or remove, the daemon going away and --timeout.

#include "e2e/cvnctl/CvnctlFixture.hpp"
#include "e2e/cvnctl/PtyProcess.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

namespace corvane::testing {
namespace {

using Clock = std::chrono::steady_clock;

/// Checks that a failed --json run wrote nothing but JSON on standard output and exactly one
/// error object on standard error, whose "exit" is the status it ended with.
void expectOneJsonError(const CvnctlRun& run, std::string_view kind) {
  for (const auto& line : linesOf(run.out)) {
    boost::system::error_code error;
    (void)boost::json::parse(line, error);
    EXPECT_FALSE(error) << "not JSON on standard output: " << line;
  }
  const auto errors = jsonLines(run.err);
  ASSERT_EQ(errors.size(), 1U) << run.err;
  const auto& object = errors[0].as_object();
  EXPECT_EQ(object.at("error").as_string(), kind) << errors[0];
  EXPECT_EQ(object.at("exit").as_int64(), run.status) << errors[0];
  EXPECT_TRUE(object.at("reason").is_string()) << errors[0];
  EXPECT_TRUE(object.at("description").is_string()) << errors[0];
}

/// Whether a wait's output shows its app under way. The first state shown is the newest one when
/// the wait learns the app's bundle, so the engine's first tick may already have replaced
/// "waiting" with "downloading".
bool showsUnderWay(std::string_view output) {
  return output.contains("Waiting") || output.contains("Downloading")
         || output.contains(R"("waiting")") || output.contains(R"("downloading")");
}

/// Waits until `process` (a --wait) shows its app under way.
bool awaitUnderWay(Process& process) {
  return process.waitFor(
      [](const std::string& out, const std::string&) { return showsUnderWay(out); });
}

TEST_F(CvnctlTest, EveryExitStatusOfTheTableIsReached) {
  struct Row {
    std::string name;
    std::vector<std::string> daemon;  // its arguments; empty: no daemon at all
    std::vector<std::string> arguments;
    int status;
    std::string kind;     // the JSON error's "error"
    std::string message;  // part of the human message
    std::function<void(CvnctlTest&)> before = {};
  };
  const std::vector<std::string> plain{"--tick-ms", "5"};
  const std::vector<Row> rows = {
      {"success", plain, {"keys"}, 0, "", "(no declaration keys)"},
      {"daemon failure",
       {"--fail", "currentDeclarationKeys=networkError"},
       {"keys"},
       1,
       "networkError",
       "networkError: The network could not be reached."},
      {"install failed",
       {"--fail-install", "dev.corvane.sample.notes=downloadFailed"},
       {"add", "--wait", "-"},
       1,
       "installFailed",
       "dev.corvane.sample.notes (D-notes) failed: downloadFailed"},
      {"usage", plain, {"remove", ""}, 2, "usageError", "DECLARATION_ID must not be empty"},
      {"unknown declaration",
       plain,
       {"remove", "D-nothing"},
       3,
       "notFound",
       "no declaration has the identifier \"D-nothing\""},
      {"unknown key",
       plain,
       {"status", "key-nothing"},
       3,
       "notFound",
       "no declaration has the key \"key-nothing\""},
      {"unknown catalogue app",
       plain,
       {"install", "D-nothing"},
       3,
       "notFound",
       "no catalogue app has the declaration identifier \"D-nothing\""},
      {"unknown bundle",
       plain,
       {"state", "no.such.bundle"},
       3,
       "notFound",
       "corvaned knows no app with the bundle identifier \"no.such.bundle\""},
      {"unknown bundle watched",
       plain,
       {"state", "no.such.bundle", "--watch"},
       3,
       "notFound",
       "corvaned knows no app with the bundle identifier \"no.such.bundle\""},
      {"unknown bundle to launch",
       plain,
       {"launch", "no.such.bundle"},
       3,
       "notFound",
       "corvaned knows no app with the bundle identifier \"no.such.bundle\""},
      {"unknown bundle to install",
       plain,
       {"vpp-install", "--bundle", "no.such.bundle", "--type", "1"},
       3,
       "notFound",
       "corvaned knows no app with the bundle identifier \"no.such.bundle\""},
      {"no daemon", {}, {"keys"}, 4, "daemonUnavailable", "corvaned is not running"},
      {"slow answer",
       {"--delay-ms", "20000"},
       {"--timeout", "0.5", "keys"},
       5,
       "timedOut",
       "corvaned did not answer within 0.5 s"},
      {"slow synchronous answer",
       {"--delay-ms", "20000"},
       {"--sync", "--timeout", "0.5", "status"},
       5,
       "timedOut",
       "corvaned did not answer within 0.5 s"},
      {"install never ends",
       {"--tick-ms", "60000"},
       {"--timeout", "1", "add", "--wait", "-"},
       5,
       "timedOut",
       "the declaration was stored; the install did not finish within 1 s"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    for (const bool json : {false, true}) {
      daemon_.reset();
      if (!row.daemon.empty()) startDaemon(row.daemon);
      auto arguments = row.arguments;
      if (json) arguments.insert(arguments.begin(), "--json");
      const auto input = row.arguments.back() == "-" ? declarationJson("D-notes", notesItem) : "";
      const auto started = Clock::now();
      const auto result = run(arguments, input);
      EXPECT_EQ(result.status, row.status) << result.out << result.err;
      // Nothing waits longer than it has to: a timeout ends at its time, not the daemon's.
      EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
      if (row.status == 0) {
        EXPECT_EQ(result.err, "");
        if (!json) {
          EXPECT_TRUE(result.out.contains(row.message)) << result.out;
        }
        continue;
      }
      if (json) {
        expectOneJsonError(result, row.kind);
      } else {
        EXPECT_TRUE(result.err.contains(row.message)) << result.err;
      }
    }
  }
}

TEST_F(CvnctlTest, ASignalEndsAWaitWithItsStatusAndLeavesTheInstallGoing) {
  struct Row {
    int signal;
    int status;
    bool terminal;  // drawn on a pseudo-terminal, else written to pipes
    bool json = false;
  };
  const std::vector<Row> rows = {
      {SIGINT, 130, true},   {SIGTERM, 143, true},       {SIGINT, 130, false},
      {SIGTERM, 143, false}, {SIGINT, 130, false, true},
  };
  // Slow steps: the install is still under way when the signal comes.
  startDaemon({"--tick-ms", "400"});
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("signal {} on a {}", row.signal, row.terminal ? "terminal" : "pipe"));
    const auto identifier = fmt::format("D-{}", n++);
    declare(identifier, notesItem, "onDemand");
    std::vector<std::string> arguments{"install", identifier, "--wait"};
    if (row.json) arguments.insert(arguments.begin(), "--json");
    std::optional<int> status;
    std::string err;
    if (row.terminal) {
      PtyProcess waiting(command(arguments), environment());
      ASSERT_TRUE(waiting.waitUntil([](const std::string& s) { return showsUnderWay(s); }, bound))
          << waiting.screen();
      waiting.signal(row.signal);
      status = waiting.wait(bound);
      err = waiting.screen();
    } else {
      auto waiting = start(arguments);
      ASSERT_TRUE(awaitUnderWay(*waiting)) << waiting->out() << waiting->err();
      waiting->signal(row.signal);
      status = waiting->wait(bound);
      err = waiting->err();
      if (row.json) {
        expectOneJsonError({status.value_or(-1), waiting->out(), err}, "interrupted");
      }
    }
    EXPECT_EQ(status, row.status) << err;
    EXPECT_TRUE(err.contains("corvaned goes on with the install")) << err;
    // The daemon was not told to stop: the app is still being installed, or done.
    const auto listed = run({"--json", "status"});
    bool found = false;
    const auto documents = jsonLines(listed.out);
    ASSERT_EQ(documents.size(), 1U) << listed.out << listed.err;
    for (const auto& entry : documents[0].as_array()) {
      if (entry.at("declarationIdentifier").as_string() != identifier) continue;
      found = true;
      EXPECT_NE(entry.at("state"), "optional") << entry;
    }
    EXPECT_TRUE(found) << listed.out;
    ASSERT_EQ(run({"remove", identifier}).status, 0);
  }
}

TEST_F(CvnctlTest, ASignalEndsAPendingAnswerWithItsStatus) {
  // Answers that take far longer than the test: cvnctl is still waiting when the signal comes.
  startDaemon({"--delay-ms", "60000", "--verbose"});
  const std::vector<std::vector<std::string>> commands = {
      {"keys"}, {"--sync", "keys"}, {"--json", "remove", "D1"}};
  std::size_t clients = 0;
  for (const auto& arguments : commands) {
    for (const int signal : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(fmt::format("{} / signal {}", fmt::join(arguments, " "), signal));
      auto waiting = start(arguments);
      // Connected: its call is on its way or there.
      ++clients;
      ASSERT_TRUE(daemon().process().waitFor([&](const std::string&, const std::string& err) {
        std::size_t n = 0;
        for (auto at = err.find(" connected (pid"); at != std::string::npos;
             at = err.find(" connected (pid", at + 1))
          ++n;
        return n >= clients;
      })) << daemon().process().err();
      const auto sent = Clock::now();
      waiting->signal(signal);
      const auto status = waiting->wait(bound);
      EXPECT_EQ(status, signal == SIGINT ? 130 : 143) << waiting->err();
      EXPECT_LT(Clock::now() - sent, std::chrono::seconds(3));
      if (arguments[0] == "--json") {
        expectOneJsonError({status.value_or(-1), waiting->out(), waiting->err()}, "interrupted");
      } else {
        EXPECT_TRUE(waiting->err().contains("interrupted by SIG")) << waiting->err();
      }
    }
  }
}

TEST_F(CvnctlTest, AnotherClientEndsAWaitItCannotWinWithStatusSix) {
  struct Row {
    std::vector<std::string> other;  // what another client runs during the wait
    std::string message;
  };
  const std::vector<Row> rows = {
      {{"cancel", "D-maps"}, "is optional again: its install was cancelled before it finished"},
      {{"remove", "D-maps"}, "the declaration D-maps was removed while cvnctl waited"},
  };
  startDaemon({"--tick-ms", "400"});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.other[0]);
    declare("D-maps", mapsItem, "onDemand");
    for (const bool json : {false, true}) {
      std::vector<std::string> arguments{"install", "D-maps", "--wait"};
      if (json) arguments.insert(arguments.begin(), "--json");
      auto waiting = start(arguments);
      ASSERT_TRUE(awaitUnderWay(*waiting)) << waiting->out() << waiting->err();
      ASSERT_EQ(run(row.other).status, 0);
      const auto stopped = Clock::now();
      const auto status = waiting->wait(bound);
      EXPECT_EQ(status, 6) << waiting->err();
      // A bound for a wait left hanging, not a measure of speed: the pushed state ends the wait
      // within milliseconds, the statuses asked for every half second within one.
      EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(3));
      if (json) {
        expectOneJsonError({status.value_or(-1), waiting->out(), waiting->err()}, "notInstalled");
      } else {
        EXPECT_TRUE(waiting->err().contains(row.message)) << waiting->err();
      }
      if (row.other[0] == "remove" && !json) declare("D-maps", mapsItem, "onDemand");
    }
    if (row.other[0] == "cancel") {
      ASSERT_EQ(run({"remove", "D-maps"}).status, 0);
    }
  }
}

TEST_F(CvnctlTest, ARemoveThatAnotherClientsRemoveBeatsIsNotFound) {
  // Every answer takes two seconds, while the change itself is made when the call arrives: both
  // clients find the declaration, then one removal reaches the daemon first and the other is
  // refused. (Were they started so far apart that the second one's look-up came after the first
  // removal, that look-up would find nothing: not found as well.)
  startDaemon({"--delay-ms", "2000"});
  // The asynchronous call (in JSON) and the blocking one, whose refusal reaches cvnctl another
  // way.
  for (const bool sync : {false, true}) {
    SCOPED_TRACE(sync ? "--sync" : "--json");
    const bool json = !sync;
    declare("D-maps", mapsItem, "onDemand");
    std::vector<std::string> arguments{"remove", "D-maps"};
    arguments.insert(arguments.begin(), sync ? "--sync" : "--json");
    auto first = start(arguments);
    auto second = start(arguments);
    std::vector<CvnctlRun> runs;
    for (auto* process : {first.get(), second.get()}) {
      const auto status = process->wait(bound);
      ASSERT_TRUE(status.has_value()) << "a remove did not end";
      runs.push_back({*status, process->out(), process->err()});
    }
    std::sort(runs.begin(), runs.end(),
              [](const auto& a, const auto& b) { return a.status < b.status; });
    EXPECT_EQ(runs[0].status, 0) << runs[0].err;
    EXPECT_EQ(runs[1].status, 3) << runs[1].err;
    if (json) {
      expectOneJsonError(runs[1], "notFound");
    } else {
      EXPECT_TRUE(runs[1].err.contains("no declaration has the identifier \"D-maps\""))
          << runs[1].err;
    }
  }
}

TEST_F(CvnctlTest, AWaitWhoseDaemonDiesEndsWithStatusFour) {
  startDaemon({"--tick-ms", "400"});
  declare("D-maps", mapsItem, "onDemand");
  auto waiting = start({"--json", "install", "D-maps", "--wait"});
  ASSERT_TRUE(awaitUnderWay(*waiting)) << waiting->err();
  daemon().kill();
  const auto status = waiting->wait(bound);
  EXPECT_EQ(status, 4);
  expectOneJsonError({status.value_or(-1), waiting->out(), waiting->err()}, "daemonUnavailable");
}

TEST_F(CvnctlTest, SigtermEndsAWatchWithStatusWhileCtrlCEndsItCleanly) {
  startDaemon();
  for (const int signal : {SIGINT, SIGTERM}) {
    auto watch = start({"--json", "catalog", "--watch"});
    ASSERT_TRUE(watch->waitFor([](const std::string& out, const std::string&) {
      return !linesOf(out).empty();
    })) << watch->err();
    watch->signal(signal);
    const auto status = watch->wait(bound);
    if (signal == SIGINT) {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(watch->err(), "");
    } else {
      EXPECT_EQ(status, 143);
      expectOneJsonError({status.value_or(-1), watch->out(), watch->err()}, "interrupted");
    }
  }
}

TEST_F(CvnctlTest, DeclaredGoesToStandardOutputWithOrWithoutWait) {
  startDaemon();
  for (const bool wait : {false, true}) {
    std::vector<std::string> arguments{"add", "-"};
    if (wait) arguments.insert(arguments.begin() + 1, "--wait");
    const auto identifier = wait ? "D-waited" : "D-plain";
    const auto result = run(arguments, declarationJson(identifier, notesItem));
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(linesOf(result.out).at(0).starts_with(fmt::format("Declared {}", identifier)))
        << result.out;
    EXPECT_FALSE(result.err.contains("Declared")) << result.err;
    ASSERT_EQ(run({"remove", identifier}).status, 0);
  }
}

TEST_F(CvnctlTest, VersionInJsonIsJson) {
  const auto result = run({"--json", "--version"});
  EXPECT_EQ(result.status, 0);
  const auto documents = jsonLines(result.out);
  ASSERT_EQ(documents.size(), 1U) << result.out;
  EXPECT_TRUE(documents[0].at("version").is_string());
}

}  // namespace
}  // namespace corvane::testing
