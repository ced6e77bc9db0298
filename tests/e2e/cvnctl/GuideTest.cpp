// The commands of docs/cvnctl.md, run as the guide shows them: from the top of the source tree,
// against a real corvaned-sim, each ending with the status the guide says it ends with and
// writing the first and last lines the guide shows for it.

#include "e2e/cvnctl/CvnctlFixture.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace corvane::testing {
namespace {

/// One `$ cvnctl ...` line, the output the guide shows under it and the status it gives it.
struct GuideCommand {
  std::string line;  // without the "$ "
  std::vector<std::string> shows;
  int status = 0;
};

/// The lines of what a command shows that every run writes the same way: its first and its
/// last. A line naming an absolute path (the runtime directory differs from the guide's) or a
/// percentage (where an install stands depends on timing) is left out.
std::vector<std::string> stableLines(const GuideCommand& command) {
  std::vector<std::string> lines;
  if (command.shows.empty()) return lines;
  for (const auto& line : {command.shows.front(), command.shows.back()}) {
    if (line.contains(" /") || line.contains("(/") || line.contains('%')) continue;
    if (lines.empty() || lines.back() != line) lines.push_back(line);
  }
  return lines;
}

/// A fenced block with cvnctl commands and the marker before it that says how to run them.
struct GuideBlock {
  std::size_t lineNumber = 0;  // of the opening fence
  std::string how;             // "daemon ...", "no daemon" or "skip (...)"
  std::vector<GuideCommand> commands;
};

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

/// The blocks of `path` that show cvnctl commands. A status is the number on the line after
/// `$ echo $?`; a command without one is expected to succeed.
std::vector<GuideBlock> readGuide(const std::filesystem::path& path) {
  std::ifstream in(path);
  EXPECT_TRUE(in) << "cannot read " << path;
  std::vector<GuideBlock> blocks;
  std::optional<GuideBlock> open;
  std::string marker;
  bool statusNext = false;
  // The command whose output the next lines are; none after another shell command.
  GuideCommand* current = nullptr;
  std::string line;
  for (std::size_t number = 1; std::getline(in, line); ++number) {
    if (!open) {
      if (line.starts_with("<!-- run: ") && line.ends_with(" -->")) {
        marker = line.substr(10, line.size() - 14);
      } else if (line.starts_with("```")) {
        open = GuideBlock{number, marker, {}};
        marker.clear();
      } else if (!trimmed(line).empty()) {
        marker.clear();  // a marker belongs to the fence right after it
      }
      continue;
    }
    if (line.starts_with("```")) {
      if (!open->commands.empty()) blocks.push_back(std::move(*open));
      open.reset();
      current = nullptr;
      continue;
    }
    if (statusNext) {
      statusNext = false;
      if (!open->commands.empty()) open->commands.back().status = std::stoi(line);
      continue;
    }
    if (line.starts_with("$ ")) {
      current = nullptr;
      if (line.starts_with("$ cvnctl ")) {
        open->commands.push_back({line.substr(2), {}, 0});
        current = &open->commands.back();
      }
      if (line == "$ echo $?") statusNext = true;
      continue;
    }
    if (current != nullptr) current->shows.push_back(line);
  }
  return blocks;
}

class CvnctlGuideTest : public CvnctlTest {
 protected:
  /// Runs one guide line in bash from the top of the source tree, finding the built cvnctl by
  /// name and this test's daemon through the environment, as a reader's shell would.
  CvnctlRun runLine(const std::string& line) {
    auto environment = CvnctlTest::environment();
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): no setenv here
    environment["PATH"] = std::filesystem::path(CVNCTL_PATH).parent_path().native() + ":"
                          + (path != nullptr ? path : "/usr/bin:/bin");
    environment["CORVANE_RUNTIME_DIR"] = directory_.path().native();
    Process bash({"bash", "-c", "cd \"$0\" && " + line, CORVANE_SOURCE_DIR}, environment);
    bash.closeStdin();
    const auto status = bash.wait(bound);
    EXPECT_TRUE(status.has_value()) << line << " did not end";
    return {status.value_or(-1), bash.out(), bash.err()};
  }
};

TEST_F(CvnctlGuideTest, EveryCommandOfTheGuideEndsAsItShows) {
  const auto blocks = readGuide(std::filesystem::path(CORVANE_SOURCE_DIR) / "docs/cvnctl.md");
  std::set<int> statusesSeen;
  std::size_t run = 0;
  std::size_t linesChecked = 0;
  for (const auto& block : blocks) {
    SCOPED_TRACE(fmt::format("docs/cvnctl.md:{} ({})", block.lineNumber, block.how));
    if (block.how.starts_with("skip (")) continue;
    if (block.how == "no daemon") {
      daemon_.reset();
    } else if (block.how == "daemon" || block.how.starts_with("daemon ")) {
      std::vector<std::string> arguments;
      std::istringstream words(block.how.substr(6));
      for (std::string word; words >> word;) arguments.push_back(word);
      startDaemon(arguments);
    } else {
      ADD_FAILURE() << "the block has no <!-- run: ... --> marker, or one this test does not know";
      continue;
    }
    for (const auto& command : block.commands) {
      SCOPED_TRACE(command.line);
      const auto result = runLine(command.line);
      EXPECT_EQ(result.status, command.status) << result.out << result.err;
      // Standard output and error are read apart, so each shown line is looked for in both.
      auto written = linesOf(result.out);
      for (auto& line : linesOf(result.err)) written.push_back(std::move(line));
      for (const auto& line : stableLines(command)) {
        EXPECT_TRUE(std::find(written.begin(), written.end(), line) != written.end())
            << "the guide shows \"" << line << "\"; cvnctl wrote:\n"
            << result.out << result.err;
        ++linesChecked;
      }
      statusesSeen.insert(command.status);
      ++run;
    }
  }
  // The guide shows success and each of these failures; a parse that found less is broken.
  EXPECT_GE(run, 15U);
  EXPECT_GE(linesChecked, 15U);
  EXPECT_EQ(statusesSeen, (std::set<int>{0, 1, 2, 3, 4, 5}));
}

}  // namespace
}  // namespace corvane::testing
