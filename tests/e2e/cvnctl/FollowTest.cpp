// Watches and waits given --follow across restarts of their daemon (SIGKILL, and a clean
// SIGTERM), and the same watch without it, which ends.

#include "e2e/cvnctl/CvnctlFixture.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <iostream>

namespace corvane::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::int64_t millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

enum class Stop { kill, terminate };

TEST_F(CvnctlTest, AFollowedWatchGoesOnAcrossADaemonRestartAndOneWithoutFollowEnds) {
  const std::string maps(mapsBundle);
  const std::string declareNotes = declarationJson("D-notes", notesItem, "onDemand");
  struct Row {
    std::vector<std::string> arguments;
    Stop stop;
    /// The change made once the daemon is back, and what the watch shows of it; empty for a
    /// watch without --follow, which ends with status 4.
    std::vector<std::string> change;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {{"catalog", "--watch", "--follow"}, Stop::kill, {"add", "-"}, "D-notes"},
      {{"--json", "catalog", "--watch", "--follow"},
       Stop::kill,
       {"add", "-"},
       R"("declarationIdentifier":"D-notes")"},
      {{"progress", "--follow"}, Stop::kill, {"install", "D-maps"}, maps + ": Managed"},
      {{"--json", "progress", "--follow"}, Stop::kill, {"install", "D-maps"}, R"("managed":{})"},
      {{"state", maps, "--watch", "--follow"}, Stop::kill, {"install", "D-maps"}, "Managed"},
      {{"--json", "state", maps, "--watch", "--follow"},
       Stop::terminate,
       {"install", "D-maps"},
       R"({"managed":{}})"},
      {{"catalog", "--watch", "--follow"}, Stop::terminate, {"add", "-"}, "D-notes"},
      {{"catalog", "--watch"}, Stop::terminate, {}, ""},
      {{"--json", "state", maps, "--watch"}, Stop::kill, {}, ""},
  };
  int rowNumber = 0;
  for (const auto& row : rows) {
    const auto name = fmt::format("{} ({})", fmt::join(row.arguments, " "),
                                  row.stop == Stop::kill ? "SIGKILL" : "SIGTERM");
    SCOPED_TRACE(name);
    const bool json = row.arguments[0] == "--json";
    startDaemon({"--state", (files_.path() / fmt::format("state-{}.db", rowNumber++)).native(),
                 "--verbose"});
    declare("D-maps", mapsItem, "onDemand");
    auto watch = start(row.arguments);
    awaitRegistration();
    // The first value (the catalogue, the app's state) is shown before the daemon goes away.
    if (row.arguments[0] != "progress" && row.arguments[1] != "progress") {
      ASSERT_TRUE(watch->waitFor([](const std::string& out, const std::string&) {
        return !linesOf(out).empty();
      })) << watch->err();
    }
    if (row.stop == Stop::kill) {
      daemon().kill();
    } else {
      ASSERT_EQ(daemon().stop(), 0);
    }
    if (row.change.empty()) {
      const auto status = watch->wait(bound);
      ASSERT_TRUE(status.has_value()) << "the watch hung after its daemon went away";
      EXPECT_EQ(*status, 4) << watch->err();
      EXPECT_TRUE(watch->err().contains(json ? R"("error":"daemonUnavailable")"
                                             : "cvnctl: corvaned went away"))
          << watch->err();
      continue;
    }
    daemon().restart();
    const auto restarted = Clock::now();
    // The watch's connection comes back by itself and the daemon gives its registration back.
    ASSERT_TRUE(daemon().process().waitForError(" resumed with ")) << daemon().process().err();
    const auto resumedAfter = millisecondsSince(restarted);
    const auto changed = Clock::now();
    const auto change = run(row.change, row.change[0] == "add" ? declareNotes : std::string());
    ASSERT_EQ(change.status, 0) << change.err;
    ASSERT_TRUE(watch->waitForOutput(row.expected)) << watch->out() << watch->err();
    // Measured, not asserted: how soon the daemon had the watch back, and the change reached it.
    std::cout << fmt::format(
        "{}: resumed {} ms after the restart; the change shown {} ms after "
        "it was made\n",
        name, resumedAfter, millisecondsSince(changed));
    ASSERT_TRUE(watch->running()) << watch->err();
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait(bound), 0) << watch->err();
    if (json) {
      EXPECT_EQ(watch->err(), "");
      EXPECT_FALSE(jsonLines(watch->out()).empty());
    } else {
      EXPECT_TRUE(watch->err().contains("cvnctl: corvaned went away (the connection to "
                                        + socketPath().native()
                                        + " was lost); waiting for it to come back (--follow)"))
          << watch->err();
      EXPECT_TRUE(watch->err().contains("cvnctl: corvaned is back after ")) << watch->err();
    }
  }
}

TEST_F(CvnctlTest, AFollowedWaitSettlesAfterARestartAndTimeoutBoundsADaemonGoneForGood) {
  // Slow steps, so that the install is under way when the daemon is killed.
  startDaemon({"--state", (files_.path() / "state.db").native(), "--tick-ms", "50", "--verbose"});
  declare("D-maps", mapsItem, "onDemand");
  auto wait = start({"install", "D-maps", "--wait", "--follow"});
  ASSERT_TRUE(wait->waitForOutput(std::string(mapsBundle) + ": Downloading")) << wait->err();
  daemon().kill();
  ASSERT_TRUE(wait->waitForError("waiting for it to come back")) << wait->err();
  daemon().restart();
  EXPECT_EQ(wait->wait(bound), 0) << wait->err();
  EXPECT_EQ(linesOf(wait->out()).back(), std::string(mapsBundle) + ": Managed") << wait->out();

  // A daemon that does not come back: --timeout bounds the wait for it, a watch's and a wait's.
  declare("D-notes", notesItem, "onDemand");
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--json", "--timeout", "2", "catalog", "--watch", "--follow"},
           {"--json", "--timeout", "4", "install", "D-notes", "--wait", "--follow"}}) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(arguments, " ")));
    auto watch = start(arguments);
    ASSERT_TRUE(watch->waitFor([](const std::string& out, const std::string&) {
      return !linesOf(out).empty();
    })) << watch->err();
    daemon().kill();
    const auto status = watch->wait(bound);
    ASSERT_TRUE(status.has_value()) << "--timeout did not end the wait for a daemon gone for good";
    EXPECT_EQ(*status, 5) << watch->err();
    const auto errors = jsonLines(watch->err());
    ASSERT_EQ(errors.size(), 1U) << watch->err();
    EXPECT_EQ(errors[0].at("error"), "timedOut");
    daemon().restart();
  }

  // While it waits for the daemon, Ctrl-C and SIGTERM end a watch as always.
  for (const auto& [signal, expected] : {std::pair{SIGINT, 0}, std::pair{SIGTERM, 143}}) {
    SCOPED_TRACE(signal);
    auto watch = start({"progress", "--follow"});
    // The daemon logs the watch's registration (the first since its restart) once it has it.
    ASSERT_TRUE(daemon().process().waitForError(") registered ")) << daemon().process().err();
    daemon().kill();
    ASSERT_TRUE(watch->waitForError("waiting for it to come back")) << watch->err();
    watch->signal(signal);
    EXPECT_EQ(watch->wait(bound), expected) << watch->err();
    daemon().restart();
  }
}

}  // namespace
}  // namespace corvane::testing
