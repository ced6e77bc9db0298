// The live progress display, read back off the screen of a real terminal (tmux).

#include "e2e/cvnctl/CvnctlFixture.hpp"
#include "support/Process.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>
#include <unistd.h>

namespace corvane::testing {
namespace {

/// A private tmux server running one command in a window of a given size; the server is killed
/// when this goes. The command's exit status is printed after it as "[exit N]", and the pane
/// stays so that its screen can be read.
class Tmux {
 public:
  Tmux(std::size_t columns, std::size_t rows, const std::vector<std::string>& argv,
       const std::map<std::string, std::string>& environment)
      : socket_(fmt::format("cvnctl-test-{}-{}", ::getpid(), counter_++)) {
    std::string command = "env";
    for (const auto& [key, value] : environment) {
      command += ' ';
      command += quoted(fmt::format("{}={}", key, value));
    }
    for (const auto& argument : argv) command += " " + quoted(argument);
    command += R"(; printf '[exit %d]' $?; exec cat)";
    tmux({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows), command});
  }
  ~Tmux() {
    Process kill({"tmux", "-L", socket_, "kill-server"});
    (void)kill.wait(std::chrono::seconds(10));
  }
  Tmux(const Tmux&) = delete;
  Tmux& operator=(const Tmux&) = delete;

  /// The rows on the screen, or with `history` those of the scrollback too; without trailing
  /// empty rows. With `joined`, a line that wrapped onto the next row is one row.
  [[nodiscard]] std::vector<std::string> screen(bool history = false, bool joined = false) const {
    std::vector<std::string> arguments{"capture-pane", "-p"};
    if (history) arguments.insert(arguments.end(), {"-S", "-"});
    if (joined) arguments.emplace_back("-J");
    std::vector<std::string> rows;
    const auto captured = tmux(arguments);
    std::string_view text = captured;
    while (!text.empty()) {
      const auto end = text.find('\n');
      rows.emplace_back(text.substr(0, end));
      if (end == std::string_view::npos) break;
      text.remove_prefix(end + 1);
    }
    while (!rows.empty() && rows.back().empty()) rows.pop_back();
    return rows;
  }
  [[nodiscard]] std::string text(bool history = false) const {
    return fmt::format("{}", fmt::join(screen(history), "\n"));
  }

  /// Polls the screen until `predicate` holds for it, for at most `bound`.
  bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& predicate,
                 std::chrono::seconds bound) const {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (std::chrono::steady_clock::now() < deadline) {
      if (predicate(screen())) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the poll's period
    }
    return predicate(screen());
  }
  /// Waits for the command's end and returns its exit status.
  std::optional<int> exitStatus(std::chrono::seconds bound) const {
    static const std::regex exit(R"(\[exit (\d+)\])");
    std::optional<int> status;
    (void)waitUntil(
        [&](const std::vector<std::string>& rows) {
          std::smatch match;
          for (const auto& row : rows)
            if (std::regex_search(row, match, exit)) status = std::stoi(match[1]);
          return status.has_value();
        },
        bound);
    return status;
  }

  void resize(std::size_t columns, std::size_t rows) const {
    tmux({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
  }

 private:
  static std::string quoted(std::string_view text) {
    std::string result = "'";
    for (const char c : text) {
      if (c == '\'')
        result += R"('\'')";
      else
        result += c;
    }
    return result + "'";
  }

  std::string tmux(const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv{"tmux", "-L", socket_, "-f", "/dev/null"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Process process(argv);
    process.closeStdin();
    const auto status = process.wait(std::chrono::seconds(10));
    EXPECT_EQ(status, 0) << fmt::format("{}", fmt::join(argv, " ")) << ": " << process.err();
    return process.out();
  }

  static inline std::atomic<int> counter_{0};
  std::string socket_;
};

/// The rows that show an app of the sample catalogue.
std::vector<std::string> appRows(const std::vector<std::string>& rows) {
  std::vector<std::string> found;
  for (const auto& row : rows)
    if (row.starts_with("dev.corvane.sample.")) found.push_back(row);
  return found;
}

/// Every row fits in `columns` - 1 cells: the display never writes into the last column.
void expectClipped(const std::vector<std::string>& rows, std::size_t columns) {
  for (const auto& row : rows) EXPECT_LT(row.size(), columns) << row;
}

constexpr std::string_view longBundle =
    "dev.corvane.sample.notes-with-a-rather-long-bundle-identifier";

/// A catalogue of one app (item 1000000001) whose bundle identifier is longer than a narrow
/// terminal.
std::string longCatalog(std::string_view bundleID = longBundle) {
  return fmt::format(R"([
{{"declarationIdentifier": "sample.notes", "bundleID": "{}", "itemID": 1000000001, "externalVersionID": 880000, "platform": 1, "fileSize": {{"value": 52.5, "unit": "MB"}}, "metadataLanguage": "en-GB", "name": "Notes", "subtitle": "Write things down", "seller": "Corvane Labs", "genres": ["Productivity"], "description": "Notes: write things down.", "languages": ["en-GB", "de", "fr"], "requirements": "Runs on any managed device.", "version": "4.1.2", "releaseDate": "2026-01-10T09:00:00Z", "releaseNotes": "Fixes and improvements.", "icon": {{"urlTemplate": "https://img.corvane.dev/apps/notes/icon/{{w}}x{{h}}{{c}}.{{f}}", "maxWidth": 1024, "maxHeight": 1024}}, "screenshots": [{{"urlTemplate": "https://img.corvane.dev/apps/notes/shot1/{{w}}x{{h}}{{c}}.{{f}}", "maxWidth": 2048, "maxHeight": 1536}}, {{"urlTemplate": "https://img.corvane.dev/apps/notes/shot2/{{w}}x{{h}}{{c}}.{{f}}", "maxWidth": 2048, "maxHeight": 1536}}], "contentRating": "4+", "developerWebsite": "https://corvane.dev/apps/notes", "privacyPolicy": "https://corvane.dev/privacy", "hasLicenseAgreement": true, "copyright": "(c) 2026 Corvane Labs", "buyParams": "productType=C&salableAdamId=1000000001&pricingParameters=VPP&price=0"}}
])",
                     bundleID);
}

TEST_F(CvnctlTest, ProgressOfALongIdentifierStaysOnOneLine) {
  for (const std::size_t columns : {40U, 80U}) {
    SCOPED_TRACE(fmt::format("{} columns", columns));
    startDaemon({"--tick-ms", "20", "--catalog", writeFile("catalog.json", longCatalog())});
    const auto declaration = writeFile("notes.json", declarationJson("D-notes", notesItem));
    Tmux terminal(columns, 12, command({"add", "--wait", declaration}), environment());
    ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
    const auto rows = terminal.screen(true);
    expectClipped(rows, columns);
    // One row for the app in the screen and scrollback together, redrawn to its end.
    const auto apps = appRows(rows);
    ASSERT_EQ(apps.size(), 1U) << terminal.text(true);
    EXPECT_TRUE(apps.front().ends_with("Managed")) << apps.front();
    // At 80 columns only the bar gives way; at 40 the end of the label does too.
    if (columns == 80) {
      EXPECT_TRUE(apps.front().starts_with(longBundle)) << apps.front();
    } else {
      EXPECT_TRUE(apps.front().contains("...")) << "the label was shortened";
    }
  }
}

TEST_F(CvnctlTest, ProgressOfMoreAppsThanRowsShowsASummary) {
  // Slow enough for the poll to see the apps while they install.
  startDaemon({"--tick-ms", "40"});
  for (std::int64_t item = notesItem; item < notesItem + 8; ++item)
    declare(fmt::format("D-{}", item), item, "onDemand");
  constexpr std::size_t height = 6;
  Tmux terminal(80, height, command({"install", "--wait"}), environment());
  static const std::regex summary(
      R"(^\d+ (installing|paused|waiting|installed|failed)(, \d+ \w+)*$)");
  auto summaryRow = [](const std::vector<std::string>& rows) {
    return std::count_if(rows.begin(), rows.end(),
                         [](const std::string& row) { return std::regex_match(row, summary); });
  };
  // While the apps install: the summary and the apps that fit below it.
  ASSERT_TRUE(terminal.waitUntil(
      [&](const std::vector<std::string>& rows) {
        return summaryRow(rows) == 1 && appRows(rows).size() == height - 2
               && std::any_of(rows.begin(), rows.end(), [](const std::string& row) {
                    return std::regex_match(row, summary) && row.contains(" installing");
                  });
      },
      bound))
      << terminal.text();
  ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
  const auto rows = terminal.screen(true);
  EXPECT_EQ(summaryRow(rows), 1) << terminal.text(true);
  EXPECT_TRUE(std::find(rows.begin(), rows.end(), "8 installed") != rows.end())
      << terminal.text(true);
  const auto apps = appRows(rows);
  EXPECT_EQ(apps.size(), height - 2) << "no stale rows in the scrollback: " << terminal.text(true);
  for (const auto& row : apps) EXPECT_TRUE(row.ends_with("Managed")) << row;
}

TEST_F(CvnctlTest, ProgressCountsWideCharactersAsTwoColumns) {
  // 19 narrow characters, then 13 wide ones (CJK and an emoji): 45 columns in 32 characters.
  const std::string wide =
      "dev.corvane.sample.\u30CE\u30FC\u30C8\u5E33\u30A2\u30D7\u30EA"
      "\u30B1\u30FC\u30B7\u30E7\u30F3\U0001F4DD";
  struct Row {
    std::size_t columns;
    bool shortened;  // the end of the label gives way
  };
  for (const auto& row : {Row{50, true}, Row{64, false}}) {
    SCOPED_TRACE(fmt::format("{} columns", row.columns));
    startDaemon({"--tick-ms", "20", "--catalog", writeFile("catalog.json", longCatalog(wide))});
    const auto declaration = writeFile("notes.json", declarationJson("D-notes", notesItem));
    Tmux terminal(row.columns, 12, command({"add", "--wait", declaration}), environment());
    ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
    // No line wrapped onto a second row, while the app installed or at its end.
    EXPECT_EQ(terminal.screen(true, true).size(), terminal.screen(true).size())
        << terminal.text(true);
    const auto apps = appRows(terminal.screen(true));
    ASSERT_EQ(apps.size(), 1U) << terminal.text(true);
    EXPECT_TRUE(apps.front().ends_with("Managed")) << apps.front();
    EXPECT_EQ(apps.front().contains("..."), row.shortened) << apps.front();
  }
}

TEST_F(CvnctlTest, ProgressOnAShorterTerminalLeavesNoStaleCopyOnTheScreen) {
  struct Row {
    std::size_t columns, rows;  // after the resize; before it, 80 by 14 rows
  };
  for (const auto& row : {Row{80, 5}, Row{40, 7}}) {
    SCOPED_TRACE(fmt::format("to {}x{}", row.columns, row.rows));
    // Slow enough for the resize to come while the apps install.
    startDaemon({"--tick-ms", "60"});
    for (std::int64_t item = notesItem; item < notesItem + 8; ++item)
      declare(fmt::format("D-{}", item), item, "onDemand");
    Tmux terminal(80, 14, command({"install", "--wait"}), environment());
    // Every app has a row, one of them moving.
    ASSERT_TRUE(terminal.waitUntil(
        [](const std::vector<std::string>& rows) {
          const auto apps = appRows(rows);
          return apps.size() == 8 && std::any_of(apps.begin(), apps.end(), [](const auto& app) {
                   return app.contains("%)");
                 });
        },
        bound))
        << terminal.text();
    // The terminal pushes the top of the frame into its scrollback as it shrinks.
    terminal.resize(row.columns, row.rows);
    ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
    const auto rows = terminal.screen();
    // One frame on the screen: the summary, then one row per app that fits, each app once.
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows.front(), "8 installed") << terminal.text();
    // The rows the terminal pushed away are the old frame's: no frame drawn since (the first
    // with a summary) was scrolled off the screen after it.
    const auto all = terminal.screen(true);
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const std::string& line) {
                              return std::regex_match(line, std::regex(R"(^\d+ \w+(, \d+ \w+)*$)"));
                            }),
              1)
        << terminal.text(true);
    auto apps = appRows(rows);
    EXPECT_EQ(apps.size(), row.rows - 2) << terminal.text();
    for (const auto& app : apps) EXPECT_TRUE(app.ends_with("Managed")) << app;
    std::sort(apps.begin(), apps.end());
    EXPECT_EQ(std::adjacent_find(apps.begin(), apps.end()), apps.end()) << terminal.text();
    expectClipped(rows, row.columns);
  }
}

TEST_F(CvnctlTest, ProgressFollowsAResizedTerminal) {
  startDaemon({"--tick-ms", "40", "--catalog", writeFile("catalog.json", longCatalog())});
  const auto declaration = writeFile("notes.json", declarationJson("D-notes", notesItem));
  Tmux terminal(80, 12, command({"add", "--wait", declaration}), environment());
  ASSERT_TRUE(terminal.waitUntil(
      [](const std::vector<std::string>& rows) {
        const auto apps = appRows(rows);
        return apps.size() == 1 && apps.front().contains("%)");
      },
      bound))
      << terminal.text();
  terminal.resize(40, 12);
  ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
  const auto rows = terminal.screen(true);
  expectClipped(rows, 40);
  const auto apps = appRows(rows);
  ASSERT_EQ(apps.size(), 1U) << terminal.text(true);
  EXPECT_TRUE(apps.front().ends_with("Managed")) << apps.front();
}

TEST_F(CvnctlTest, ProgressOfSeveralAppsKeepsOneLineEach) {
  startDaemon({"--tick-ms", "20", "--verbose"});
  declare("D-maps", mapsItem, "onDemand");
  declare("D-notes", notesItem, "onDemand");
  Tmux terminal(100, 10, command({"progress"}), environment());
  awaitRegistration();
  ASSERT_EQ(run({"install", "--wait"}).status, 0);
  auto bothManaged = [](const std::vector<std::string>& rows) {
    const auto apps = appRows(rows);
    return apps.size() == 2 && std::all_of(apps.begin(), apps.end(), [](const std::string& row) {
             return row.contains("[########################]") && row.ends_with("Managed");
           });
  };
  ASSERT_TRUE(terminal.waitUntil(bothManaged, bound)) << terminal.text();
  EXPECT_EQ(appRows(terminal.screen(true)).size(), 2U) << terminal.text(true);
  // Nothing changes any more: only SIGWINCH makes the display redraw for a narrower window.
  terminal.resize(40, 10);
  EXPECT_TRUE(terminal.waitUntil(
      [](const std::vector<std::string>& rows) {
        const auto apps = appRows(rows);
        return apps.size() == 2
               && std::all_of(rows.begin(), rows.end(),
                              [](const std::string& row) { return row.size() < 40; })
               && std::all_of(apps.begin(), apps.end(),
                              [](const std::string& row) { return row.ends_with("Managed"); });
      },
      bound))
      << terminal.text(true);
}

TEST_F(CvnctlTest, ProgressIsLineOrientedForADumbTerminal) {
  startDaemon({"--tick-ms", "20"});
  const auto declaration = writeFile("notes.json", declarationJson("D-notes", notesItem));
  auto environment = CvnctlTest::environment();
  environment["TERM"] = "dumb";
  Tmux terminal(80, 40, command({"add", "--wait", declaration}), environment);
  ASSERT_EQ(terminal.exitStatus(bound), 0) << terminal.text();
  const auto rows = terminal.screen(true);
  // Each change is a line of its own: nothing was drawn over.
  const auto apps = appRows(rows);
  ASSERT_GE(apps.size(), 2U) << terminal.text(true);
  for (const auto& row : apps) EXPECT_TRUE(row.starts_with("dev.corvane.sample.notes: ")) << row;
  EXPECT_EQ(apps.back(), "dev.corvane.sample.notes: Managed");
}

}  // namespace
}  // namespace corvane::testing
