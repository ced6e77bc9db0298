// Usage errors: status 2 and a message naming the mistake, before any daemon is asked.

#include "e2e/cvnctl/CvnctlFixture.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <utility>

namespace corvane::testing {
namespace {

TEST_F(CvnctlTest, UsageErrorsExitWithTwoAndSayWhatIsWrong) {
  const auto notJson = writeFile("not-json.txt", "{\"declarationKey\": ");
  const auto badTiming = writeFile(
      "bad-timing.json", declarationJson("D1", 1, "immediately")
                             .replace(declarationJson("D1", 1).find("immediately"), 11, "later"));
  const auto missingKey = writeFile("missing-key.json", R"({"declarationIdentifier": "D1"})");
  const auto unnamed = writeFile("unnamed.json", declarationJson("", notesItem));
  std::string keyless = declarationJson("D-keyless", notesItem);
  keyless.replace(keyless.find("key-D-keyless"), std::string_view("key-D-keyless").size(), "");
  const auto keylessFile = writeFile("keyless.json", keyless);
  // Spaces are valid JSON, so only the size can refuse it.
  const auto tooLarge = writeFile("large.json", std::string(1024 * 1024 + 1, ' '));
  struct Row {
    std::vector<std::string> arguments;
    std::string message;  // a part of what standard error says
  };
  const std::vector<Row> rows = {
      {{}, "A subcommand is required"},
      {{"frobnicate"}, "unknown command \"frobnicate\""},
      {{"--json", "frobnicate"}, "\"error\":\"usageError\""},
      {{"remove"}, "DECLARATION_ID is required"},
      {{"remove", ""}, "DECLARATION_ID must not be empty"},
      {{"vpp-install", "--type", "1"}, "vpp-install needs --item N or --bundle ID"},
      {{"vpp-install", "--item", "12x", "--type", "1"},
       "--item must be a non-negative whole number, not \"12x\""},
      {{"vpp-install", "--item", "1", "--type", "4"},
       "--type must be 1 (install), 2 (update) or 3 (uninstall), not 4"},
      {{"vpp-install", "--item", "1", "--bundle", "b", "--type", "1"}, "excludes"},
      {{"vpp-install", "--item", "1"}, "--type is required"},
      {{"vpp-install", "--item", "1", "--type", "1", "--account", "-5"},
       "--account must be a non-negative whole number, not \"-5\""},
      {{"enterprise-install", "not a url"}, "MANIFEST_URL \"not a url\" is not an absolute URL"},
      {{"--timeout", "0", "keys"}, "--timeout must be a positive number of seconds"},
      {{"--timeout", "-3", "keys"}, "--timeout must be a positive number of seconds"},
      {{"--timeout", "1e400", "keys"}, "--timeout must be a positive number of seconds"},
      {{"--timeout", "soon", "keys"}, "--timeout must be a positive number of seconds"},
      {{"status", ""}, "DECLARATION_KEY must not be empty"},
      // --follow belongs to a watch or a wait.
      {{"keys", "--follow"}, "--follow"},
      {{"catalog", "--follow"}, "--follow goes with --watch"},
      {{"install", "D1", "--follow"}, "--follow goes with --wait"},
      {{"add", "/dev/zero"}, "cannot read /dev/zero: it is not a regular file"},
      {{"add", tooLarge}, "is larger than 1024 KiB"},
      {{"add", unnamed}, "unnamed.json: declarationIdentifier must not be empty"},
      {{"add", keylessFile}, "keyless.json: declarationKey must not be empty"},
      {{"add", "/nonexistent/declaration.json"}, "cannot read /nonexistent/declaration.json"},
      {{"add", "/"}, "cannot read /: it is a directory"},
      {{"add", notJson}, "is not a JSON document"},
      {{"add", badTiming},
       "is not a managed-app declaration: typeMismatch at "
       "installBehavior.installTiming"},
      {{"add", missingKey}, "is not a managed-app declaration: keyNotFound at the top level"},
      {{"install", "D1", "extra"}, "extra"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(row.arguments, " ")));
    const auto result = run(row.arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.contains(row.message)) << result.err;
  }
}

TEST_F(CvnctlTest, StandardInputIsReadOnlyUpToTheLimit) {
  const auto result = run({"add", "-"}, std::string(1024 * 1024 + 1, ' '));
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(result.err.contains("standard input is larger than 1024 KiB")) << result.err;
}

TEST_F(CvnctlTest, UsageErrorsInJsonNameTheCodingPath) {
  const auto badTiming = writeFile("bad.json", R"({"declarationKey": "K",
      "declarationIdentifier": "I", "managementScope": {"user": {}},
      "installBehavior": {"installTiming": {"sometime": {}}, "isAccountPromptAllowed": false,
        "purchaseMethod": {"manifest": {"_0": "https://corvane.dev/m.plist"}}},
      "backupBehavior": {"backupAppData": false}, "updateBehavior": {"automaticallyUpdate": {}},
      "platform": 1})");
  const auto decoding = run({"--json", "add", badTiming});
  EXPECT_EQ(decoding.status, 2);
  EXPECT_EQ(decoding.out, "");
  auto errors = jsonLines(decoding.err);
  ASSERT_EQ(errors.size(), 1U) << decoding.err;
  EXPECT_EQ(errors[0].at("error"), "usageError");
  EXPECT_EQ(errors[0].at("path"), "installBehavior.installTiming");

  // A command line CLI11 refuses is reported in JSON too when --json was asked for.
  const auto parse = run({"--json", "vpp-install", "--type", "9", "--item", "1"});
  EXPECT_EQ(parse.status, 2);
  errors = jsonLines(parse.err);
  ASSERT_EQ(errors.size(), 1U) << parse.err;
  EXPECT_EQ(errors[0].at("error"), "usageError");
}

TEST_F(CvnctlTest, HelpListsEveryCommandAndTheExitStatuses) {
  const auto help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const auto* word : {"keys",
                           "status",
                           "add",
                           "remove",
                           "reset-history",
                           "poll",
                           "vpp-install",
                           "enterprise-install",
                           "launch",
                           "install",
                           "cancel",
                           "catalog",
                           "progress",
                           "state",
                           "Exit status",
                           "2    usage error",
                           "3    not found",
                           "4    corvaned is not running",
                           "5    timed out",
                           "130  interrupted by SIGINT",
                           "143  ended by SIGTERM"}) {
    EXPECT_TRUE(help.out.contains(word)) << word;
  }
}

/// The statuses a text lists: the lines after `from` (up to the next `until`) that `row` matches,
/// its first group being the status.
std::vector<int> statusesListed(std::string_view text, std::string_view from,
                                std::string_view until, const std::regex& row) {
  std::vector<int> statuses;
  const auto start = text.find(from);
  if (start == std::string_view::npos) return statuses;
  text.remove_prefix(start + from.size());
  text = text.substr(0, text.find(until));
  std::smatch match;
  for (const auto& line : linesOf(text)) {
    if (std::regex_match(line, match, row)) statuses.push_back(std::stoi(match[1]));
  }
  return statuses;
}

TEST_F(CvnctlTest, HelpManualPageAndGuideListTheSameExitStatuses) {
  auto read = [](const std::string& path) {
    std::ifstream in(std::filesystem::path(CORVANE_SOURCE_DIR) / path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const auto help = statusesListed(run({"--help"}).out, "Exit status",
                                   "Environment:", std::regex(R"(^  (\d+) +\S.*)"));
  const auto manual = statusesListed(read("tools/cvnctl/cvnctl.1"), ".SH EXIT STATUS", ".SH ",
                                     std::regex(R"(^\.B (\d+)$)"));
  const auto guide = statusesListed(read("docs/cvnctl.md"), "## Exit status", "\n## ",
                                    std::regex(R"(^\| (\d+) \| .*)"));
  const std::vector<int> expected{0, 1, 2, 3, 4, 5, 6, 130, 143};
  EXPECT_EQ(help, expected);
  EXPECT_EQ(manual, expected);
  EXPECT_EQ(guide, expected);
}

TEST_F(CvnctlTest, CommandHelpListsTheGlobalOptionsToo) {
  for (const auto* command : {"install", "keys", "vpp-install", "state"}) {
    SCOPED_TRACE(command);
    const auto help = run({command, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.contains("Global options")) << help.out;
    for (const auto* option :
         {"--json", "--sync", "-v,--verbose", "--runtime-dir", "--timeout", "--version"}) {
      EXPECT_TRUE(help.out.contains(option)) << option << "\n" << help.out;
    }
  }
  // The command's own options stay in its help.
  EXPECT_TRUE(run({"install", "--help"}).out.contains("--wait"));
  EXPECT_TRUE(run({"vpp-install", "--help"}).out.contains("--item"));
}

}  // namespace
}  // namespace corvane::testing

namespace corvane::testing {
namespace {

/// The completions bash offers for `words` (the last one being completed), with the two
/// bash-completion helpers the script uses stood in for.
std::vector<std::string> complete(const std::vector<std::string>& words,
                                  const std::map<std::string, std::string>& environment = {}) {
  std::vector<std::string> argv{
      "bash", "-c",
      R"(_init_completion() { cur=${COMP_WORDS[COMP_CWORD]}; prev=${COMP_WORDS[COMP_CWORD-1]};
           words=("${COMP_WORDS[@]}"); cword=$COMP_CWORD; }
         _filedir() { COMPREPLY=(FILE); }
         source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _cvnctl
         printf '%s\n' "${COMPREPLY[@]}")",
      CVNCTL_COMPLETION_PATH};
  argv.insert(argv.end(), words.begin(), words.end());
  Process bash(argv, environment);
  bash.closeStdin();
  EXPECT_EQ(bash.wait(), 0) << bash.err();
  return linesOf(bash.out());
}

TEST(CvnctlCompletion, CompletesCommandsAndTheirOptions) {
  using Words = std::vector<std::string>;
  struct Row {
    Words words;
    Words expected;
  };
  const std::vector<Row> rows = {
      {{"cvnctl", "re"}, {"remove", "reset-history"}},
      {{"cvnctl", "--json", "ins"}, {"install"}},
      {{"cvnctl", "--runtime-dir", "/tmp", "state", "--w"}, {"--watch"}},
      {{"cvnctl", "vpp-install", "--i"}, {"--item"}},
      {{"cvnctl", "vpp-install", "--type", ""}, {"1", "2", "3"}},
      {{"cvnctl", "add", "--w"}, {"--wait"}},
      {{"cvnctl", "add", ""}, {"FILE", "-"}},
      {{"cvnctl", "--ti"}, {"--timeout"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(complete(row.words), row.expected) << fmt::format("{}", fmt::join(row.words, " "));
  }
}

TEST(CvnctlCompletion, OffersEveryCommandTheToolHas) {
  Process help({CVNCTL_PATH, "--help"});
  help.closeStdin();
  ASSERT_EQ(help.wait(), 0);
  // CLI11 lists the subcommands under "Subcommands:", one per line, name first.
  const auto& out = help.out();
  const auto start = out.find("Subcommands:");
  ASSERT_NE(start, std::string::npos) << out;
  std::vector<std::string> fromHelp;
  for (const auto& line : linesOf(std::string_view(out).substr(start + 12))) {
    if (!line.starts_with("  ")) break;
    const auto name = line.substr(2, line.find(' ', 2) - 2);
    if (!name.empty()) fromHelp.push_back(name);
  }
  auto offered = complete({"cvnctl", ""});
  std::sort(fromHelp.begin(), fromHelp.end());
  std::sort(offered.begin(), offered.end());
  EXPECT_EQ(offered, fromHelp);
}

/// The environment in which bash finds the built cvnctl by name and cvnctl finds the test's
/// daemon.
std::map<std::string, std::string> completionEnvironment(const std::filesystem::path& runtime) {
  const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): read before threads
  return {{"PATH", std::filesystem::path(CVNCTL_PATH).parent_path().native() + ":"
                       + (path != nullptr ? path : "/usr/bin:/bin")},
          {"CORVANE_RUNTIME_DIR", runtime.native()}};
}

/// Completes `words` and says how long it took.
std::pair<std::vector<std::string>, std::chrono::steady_clock::duration> timedCompletion(
    const std::vector<std::string>& words, const std::map<std::string, std::string>& environment) {
  const auto start = std::chrono::steady_clock::now();
  auto offered = complete(words, environment);
  return {std::move(offered), std::chrono::steady_clock::now() - start};
}

/// cvnctl gives the daemon half a second; starting bash and cvnctl adds a little to that.
constexpr auto completionDeadline = std::chrono::seconds(3);

TEST_F(CvnctlTest, CompletionOffersWhatTheDaemonHasDeclared) {
  startDaemon();
  declare("D-notes", notesItem);
  declare("D-maps", mapsItem);
  declare("Other", notesItem + 1);
  const auto environment = completionEnvironment(directory_.path());
  using Words = std::vector<std::string>;
  struct Row {
    Words words;
    Words expected;
  };
  const std::string runtime = directory_.path().native();
  const std::vector<Row> rows = {
      {{"cvnctl", "remove", "D-"}, {"D-maps", "D-notes"}},
      {{"cvnctl", "install", ""}, {"D-maps", "D-notes", "Other"}},
      {{"cvnctl", "--json", "cancel", "O"}, {"Other"}},
      {{"cvnctl", "status", "key-D"}, {"key-D-maps", "key-D-notes"}},
      {{"cvnctl", "state", "dev.corvane.sample.m"}, {std::string(mapsBundle)}},
      {{"cvnctl", "launch", "dev.corvane.sample.n"}, {std::string(notesBundle)}},
      {{"cvnctl", "vpp-install", "--bundle", "dev.corvane.sample.ma"}, {std::string(mapsBundle)}},
      // Only the one argument the command takes is completed.
      {{"cvnctl", "remove", "D-maps", "D-"}, {}},
      {{"cvnctl", "remove", "Z"}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(row.words, " ")));
    const auto [offered, took] = timedCompletion(row.words, environment);
    EXPECT_EQ(offered, row.expected);
    EXPECT_LT(took, completionDeadline);
  }

  // --runtime-dir on the command line being completed is the one asked, not the environment's.
  auto elsewhere = completionEnvironment("/nonexistent");
  EXPECT_EQ(complete({"cvnctl", "--runtime-dir", runtime, "remove", "D-n"}, elsewhere),
            std::vector<std::string>{"D-notes"});
  EXPECT_EQ(complete({"cvnctl", "remove", "D-n"}, elsewhere), std::vector<std::string>{});
}

TEST_F(CvnctlTest, CompletionOffersNothingPromptlyWithoutAnAnsweringDaemon) {
  // No daemon at all.
  const auto environment = completionEnvironment(directory_.path());
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"cvnctl", "remove", ""}, {"cvnctl", "status", ""}, {"cvnctl", "state", ""}}) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(words, " ")));
    const auto [offered, took] = timedCompletion(words, environment);
    EXPECT_EQ(offered, std::vector<std::string>{});
    EXPECT_LT(took, completionDeadline);
  }
  const auto quiet = run({"__complete", "declarations"});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(quiet.err, "");

  // A daemon that takes five seconds over every answer: completion gives up on it in time.
  startDaemon({"--delay-ms", "5000"});
  const auto [offered, took] = timedCompletion({"cvnctl", "remove", ""}, environment);
  EXPECT_EQ(offered, std::vector<std::string>{});
  EXPECT_LT(took, completionDeadline);
}

}  // namespace
}  // namespace corvane::testing
