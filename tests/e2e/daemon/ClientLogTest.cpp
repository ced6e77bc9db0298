// What a client process writes to its log over a whole life: it connects, calls, loses the daemon,
// connects again and exits. At error level exactly the connection's one line for the loss, and
// nothing at exit; at debug level a line for each connect and each call.

#include "support/DaemonProcess.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

/// The lines of `text` that contain `part`.
std::vector<std::string> linesWith(const std::string& text, std::string_view part) {
  std::vector<std::string> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.find(part) != std::string::npos) found.push_back(line);
  return found;
}

/// Runs the probe's whole life with `level` as the log threshold; returns its standard error.
std::string clientLifeLog(const TemporaryDirectory& runtime, std::string_view level) {
  DaemonProcess daemon(runtime.path(), {"--tick-ms", "5"});
  Process client({CORVANE_PROBE_PATH, "lifecycle"},
                 {{"CORVANE_RUNTIME_DIR", runtime.path().native()},
                  {"CORVANE_LOG_BACKEND", "stderr"},
                  {"CORVANE_LOG_LEVEL", std::string(level)}});
  EXPECT_TRUE(client.waitForOutput("called\n"));
  daemon.kill();
  EXPECT_TRUE(client.waitForOutput("lost\n"));
  daemon.restart();
  client.write("again\n");
  EXPECT_EQ(client.wait(), 0) << client.out() << client.err();
  EXPECT_NE(client.out().find("ok\n"), std::string::npos) << client.out();
  return client.err();
}

TEST(ClientLog, ALossIsOneErrorLineAndANormalExitWritesNone) {
  const TemporaryDirectory runtime;
  const auto err = clientLifeLog(runtime, "notice");
  const auto errors = linesWith(err, "] error: ");
  ASSERT_EQ(errors.size(), 1U) << err;
  EXPECT_EQ(errors.front(), "dev.corvane.Corvane[Tether] error: Daemon connection interrupted");
  EXPECT_TRUE(linesWith(err, "invalidated").empty()) << err;
}

TEST(ClientLog, AtDebugLevelEachConnectCallAndLossHasItsLine) {
  const TemporaryDirectory runtime;
  const auto err = clientLifeLog(runtime, "debug");
  EXPECT_EQ(linesWith(err, "[Tether] debug: Connected to ").size(), 2U) << err;
  EXPECT_EQ(linesWith(err, "[Tether] debug: currentDeclarationKeysWithReply: succeeded in ").size(),
            2U)
      << err;
  EXPECT_EQ(linesWith(err, "Daemon connection interrupted").size(), 1U) << err;
  EXPECT_TRUE(linesWith(err, "invalidated").empty()) << err;
}

}  // namespace
}  // namespace corvane::testing
