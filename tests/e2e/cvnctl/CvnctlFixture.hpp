#pragma once

// Runs cvnctl against a corvaned-sim of its own, in a private runtime directory.

#include "support/DaemonProcess.hpp"
#include "support/Process.hpp"
#include "support/TemporaryDirectory.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::testing {

/// What one finished cvnctl run left behind.
struct CvnctlRun {
  int status = -1;
  std::string out;
  std::string err;
};

/// Every non-empty line of `text`.
inline std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto line = text.substr(0, end);
    if (!line.empty()) lines.emplace_back(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

/// Each line of `text` parsed as one JSON document; a line that does not parse fails the test.
inline std::vector<boost::json::value> jsonLines(std::string_view text) {
  std::vector<boost::json::value> documents;
  for (const auto& line : linesOf(text)) {
    boost::system::error_code error;
    auto document = boost::json::parse(line, error);
    EXPECT_FALSE(error) << "not JSON: " << line;
    if (!error) documents.push_back(std::move(document));
  }
  return documents;
}

/// A declaration in its coded form, for an app of the daemon's sample catalogue by item number.
inline std::string declarationJson(std::string_view identifier, std::int64_t itemID,
                                   std::string_view timing = "immediately") {
  return fmt::format(
      R"({{"declarationKey": "key-{0}", "declarationIdentifier": "{0}",)"
      R"( "managementScope": {{"user": {{}}}},)"
      R"( "installBehavior": {{"installTiming": {{"{2}": {{}}}}, "isAccountPromptAllowed": false,)"
      R"( "purchaseMethod": {{"volumePurchaseProgram": {{"_0": {{"itemID": {{"_0": {1}}}}},)"
      R"( "license": {{"device": {{}}}}}}}}}},)"
      R"( "backupBehavior": {{"backupAppData": false}},)"
      R"( "updateBehavior": {{"automaticallyUpdate": {{}}}}, "platform": 1}})",
      identifier, itemID, timing);
}

/// The sample catalogue's first apps.
inline constexpr std::int64_t notesItem = 1000000001;
inline constexpr std::string_view notesBundle = "dev.corvane.sample.notes";
inline constexpr std::int64_t mapsItem = 1000000003;
inline constexpr std::string_view mapsBundle = "dev.corvane.sample.maps";

class CvnctlTest : public ::testing::Test {
 protected:
  static constexpr std::chrono::seconds bound{30};

  /// Starts the daemon in this test's runtime directory; the engine steps every 5 ms unless
  /// `arguments` say otherwise.
  void startDaemon(std::vector<std::string> arguments = {}) {
    if (std::find(arguments.begin(), arguments.end(), "--tick-ms") == arguments.end()) {
      arguments.emplace_back("--tick-ms");
      arguments.emplace_back("5");
    }
    daemon_.reset();
    registrations_ = 0;
    daemon_ = std::make_unique<DaemonProcess>(directory_.path(), std::move(arguments));
  }
  DaemonProcess& daemon() { return *daemon_; }

  /// Waits until the daemon (started with --verbose) logs one more message registration than
  /// when this was last called: a watch started before is then connected and registered.
  void awaitRegistration() {
    auto count = [](const std::string& log) {
      std::size_t n = 0;
      for (auto at = log.find(" registered ["); at != std::string::npos;
           at = log.find(" registered [", at + 1))
        ++n;
      return n;
    };
    const std::size_t before = registrations_;
    ASSERT_TRUE(daemon_->process().waitFor([&](const std::string&, const std::string& err) {
      return count(err) > before;
    })) << daemon_->process().err();
    registrations_ = count(daemon_->process().err());
  }

  [[nodiscard]] std::filesystem::path socketPath() const {
    return directory_.path() / "dev.corvane.corvaneagent";
  }

  /// The full command line: cvnctl, this test's runtime directory, then `arguments`.
  [[nodiscard]] std::vector<std::string> command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv{CVNCTL_PATH, "--runtime-dir", directory_.path().native()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }

  /// English messages whatever the developer's locale.
  [[nodiscard]] static std::map<std::string, std::string> environment() {
    return {{"LANGUAGE", "en"}, {"LC_ALL", "C.UTF-8"}, {"TERM", "xterm"}};
  }

  /// Starts cvnctl with `arguments` (a watch, typically).
  std::unique_ptr<Process> start(const std::vector<std::string>& arguments) {
    return std::make_unique<Process>(command(arguments), environment());
  }

  /// Runs cvnctl to its end, `input` on its standard input.
  CvnctlRun run(const std::vector<std::string>& arguments, std::string_view input = {}) {
    Process process(command(arguments), environment());
    if (!input.empty()) process.write(input);
    process.closeStdin();
    const auto status = process.wait(bound);
    EXPECT_TRUE(status.has_value())
        << "cvnctl did not end: " << fmt::format("{}", fmt::join(arguments, " "));
    return {status.value_or(-1), process.out(), process.err()};
  }

  /// Writes `text` to a file in the runtime directory's neighbourhood and returns its path.
  std::string writeFile(const std::string& name, std::string_view text) {
    const auto path = files_.path() / name;
    std::ofstream(path) << text;
    return path.native();
  }

  /// Declares `identifier` for the sample app `itemID` and checks that it worked.
  void declare(std::string_view identifier, std::int64_t itemID,
               std::string_view timing = "immediately") {
    const auto result = run({"add", "-"}, declarationJson(identifier, itemID, timing));
    ASSERT_EQ(result.status, 0) << result.err;
  }

  TemporaryDirectory directory_;
  TemporaryDirectory files_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::size_t registrations_ = 0;
};

}  // namespace corvane::testing
