// The live progress display, read off a real pseudo-terminal.

#include "e2e/cvnctl/CvnctlFixture.hpp"
#include "e2e/cvnctl/PtyProcess.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

namespace corvane::testing {
namespace {

/// The text of each line the display drew last, after replaying the cursor movements it uses
/// (CR, LF, CSI n A, CSI 2K) on a screen.
std::vector<std::string> replay(const std::string& drawn) {
  std::vector<std::string> rows(1);
  std::size_t row = 0;
  std::size_t column = 0;
  for (std::size_t i = 0; i < drawn.size(); ++i) {
    const char c = drawn[i];
    if (c == '\x1b' && i + 1 < drawn.size() && drawn[i + 1] == '[') {
      std::size_t end = i + 2;
      while (end < drawn.size() && (std::isdigit(static_cast<unsigned char>(drawn[end])) != 0))
        ++end;
      const std::string number = drawn.substr(i + 2, end - i - 2);
      const char command = end < drawn.size() ? drawn[end] : '\0';
      if (command == 'A') {
        row -= std::min(row, number.empty() ? 1 : std::stoul(number));
      } else if (command == 'K') {
        rows[row].clear();
      }
      i = end;
    } else if (c == '\r') {
      column = 0;
    } else if (c == '\n') {
      ++row;
      column = 0;
      if (rows.size() <= row) rows.resize(row + 1);
    } else {
      auto& text = rows[row];
      if (text.size() <= column) text.resize(column + 1, ' ');
      text[column++] = c;
    }
  }
  while (!rows.empty() && rows.back().empty()) rows.pop_back();
  return rows;
}

TEST_F(CvnctlTest, ProgressIsRedrawnInPlaceOnATerminal) {
  startDaemon({"--tick-ms", "20"});
  const auto declaration = writeFile("notes.json", declarationJson("D-notes", notesItem));
  PtyProcess terminal(command({"add", "--wait", declaration}), environment());
  const auto status = terminal.wait(bound);
  ASSERT_TRUE(status.has_value()) << terminal.screen();
  EXPECT_EQ(*status, 0) << terminal.screen();
  const auto& screen = terminal.screen();
  // One line, drawn again over itself: the cursor goes up one line before each redraw.
  EXPECT_TRUE(screen.contains("\x1b[1A")) << screen;
  EXPECT_TRUE(screen.contains("\x1b[2K")) << screen;
  EXPECT_TRUE(std::regex_search(screen, std::regex(R"(Downloading \(\d+\.\d\d%\))"))) << screen;
  EXPECT_TRUE(screen.contains("[------------------------]")) << "an empty bar";
  // What stays on the screen: the summary and one line for the app, full bar, "Managed".
  const auto rows = replay(screen);
  ASSERT_FALSE(rows.empty()) << screen;
  const auto& last = rows.back();
  EXPECT_TRUE(last.starts_with("dev.corvane.sample.notes")) << last;
  EXPECT_TRUE(last.contains("[########################]")) << last;
  EXPECT_TRUE(last.ends_with("Managed")) << last;
  EXPECT_EQ(std::count_if(rows.begin(), rows.end(),
                          [](const std::string& row) { return row.contains("sample.notes"); }),
            1)
      << "the app's line was repeated instead of redrawn: " << screen;
}

TEST_F(CvnctlTest, ProgressOfSeveralAppsKeepsOneLineEach) {
  startDaemon({"--tick-ms", "20", "--verbose"});
  declare("D-maps", mapsItem, "onDemand");
  declare("D-notes", notesItem, "onDemand");
  PtyProcess terminal(command({"progress"}), environment());
  awaitRegistration();
  ASSERT_EQ(run({"install", "--wait"}).status, 0);
  auto bothManaged = [](const std::string& screen) {
    const auto rows = replay(screen);
    return std::count_if(rows.begin(), rows.end(),
                         [](const std::string& row) {
                           return row.contains("dev.corvane.sample.") && row.ends_with("Managed");
                         })
           == 2;
  };
  ASSERT_TRUE(terminal.waitUntil(bothManaged, bound)) << terminal.screen();
  EXPECT_TRUE(terminal.screen().contains("\x1b[2A")) << "two lines redrawn together";
  terminal.signal(SIGINT);
  EXPECT_EQ(terminal.wait(bound), 0) << terminal.screen();
  const auto rows = replay(terminal.screen());
  std::vector<std::string> appRows;
  for (const auto& row : rows)
    if (row.contains("dev.corvane.sample.")) appRows.push_back(row);
  ASSERT_EQ(appRows.size(), 2U) << terminal.screen();
  for (const auto& row : appRows) EXPECT_TRUE(row.ends_with("Managed")) << row;
}

}  // namespace
}  // namespace corvane::testing
