#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {
class AppState;
}

namespace cvnctl {

/// Shows the installation state of apps, one line per app.
///
/// On a terminal the lines are redrawn in place. Before each redraw the display reads the
/// terminal's size (TIOCGWINSZ); `resized` (on SIGWINCH) redraws without waiting for a change. Each
/// line is clipped to the width so that it never wraps: the bar goes first, then the end of a long
/// label; widths are the locale's (wcwidth), so a wide character takes two cells. When the apps
/// do not fit the height, a summary line ("3 installing, 2 waiting") comes first and the apps
/// still in progress get the rows that remain. The frame never grows taller than the screen, so
/// nothing of it scrolls away into the scrollback; after a shrink that pushed its top away, it is
/// drawn again from the first row.
///
/// Elsewhere (not a terminal, or TERM=dumb) each change of an app's text is written as a plain
/// line "BUNDLE_ID: TEXT", without control codes, and an unchanged text is not repeated.
class ProgressDisplay {
 public:
  enum class Mode { terminal, plain };

  ProgressDisplay(std::FILE* out, Mode mode) noexcept : out_(out), mode_(mode) {}

  /// Shows `state` for `label`, adding a line for a label not seen before.
  void update(const std::string& label, const corvane::AppState& state);
  /// Draws the lines again for the terminal's new size.
  void resized();
  /// Something else was written below the lines (a note on standard error): they stay as they
  /// are, and the next redraw draws them afresh below it rather than over it.
  void leave() noexcept { drawn_.clear(); }

  /// What an app is doing, for the summary line.
  enum class Phase { installing, paused, waiting, installed, failed };

  /// Shows a text without a state (how an install ended), with a bar for `fraction` (empty
  /// without one), counted under `phase` in the summary.
  void update(const std::string& label, std::string text, std::optional<double> fraction,
              Phase phase);

  /// The fraction a state's bar shows: the progress of downloading and installing (that of the
  /// paused state for a paused one), full once installed or managed, empty otherwise.
  [[nodiscard]] static double fractionOf(const corvane::AppState& state) noexcept;
  /// "[#######-------------]" for `fraction` (clamped to 0..1) over `width` cells.
  [[nodiscard]] static std::string bar(double fraction, std::size_t width);
  /// The longest start of the UTF-8 text `text` that fits in `columns` cells of the terminal,
  /// counted with the locale's character widths (wcwidth): a wide character (CJK, most emoji)
  /// takes two, a combining mark none.
  [[nodiscard]] static std::string clip(std::string_view text, std::size_t columns);

 private:
  struct Line {
    std::string label;
    std::string text;
    double fraction = 0;
    Phase phase = Phase::waiting;
  };
  struct Size {
    std::size_t columns;
    std::size_t rows;
  };

  void set(const std::string& label, std::string text, double fraction, Phase phase);
  void redraw();
  [[nodiscard]] Size size() const noexcept;
  [[nodiscard]] std::string render(const Line& line, std::size_t columns) const;
  [[nodiscard]] std::string summary() const;

  std::FILE* out_;
  Mode mode_;
  std::vector<Line> lines_;
  /// The columns each row of the last frame took up, to know how many rows it takes now.
  std::vector<std::size_t> drawn_;
  std::size_t labelWidth_ = 0;
};

}  // namespace cvnctl
