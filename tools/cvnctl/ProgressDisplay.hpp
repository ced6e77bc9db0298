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
/// On a terminal the lines are redrawn in place: every change moves the cursor back up over the
/// lines drawn before (CSI n A), clears each line (CSI 2K) and writes it again with a bar and the
/// state's text form. Elsewhere each change of an app's text is written as a plain line
/// "BUNDLE_ID: TEXT", and an unchanged text is not repeated.
class ProgressDisplay {
 public:
  enum class Mode { terminal, plain };

  ProgressDisplay(std::FILE* out, Mode mode) noexcept : out_(out), mode_(mode) {}

  /// Shows `state` for `label`, adding a line for a label not seen before.
  void update(const std::string& label, const corvane::AppState& state);
  /// Shows a text without a state (a failure), with an empty bar.
  void update(const std::string& label, std::string text, std::optional<double> fraction);

  /// The fraction a state's bar shows: the progress of downloading and installing (that of the
  /// paused state for a paused one), full once installed or managed, empty otherwise.
  [[nodiscard]] static double fractionOf(const corvane::AppState& state) noexcept;
  /// "[#######-------------]" for `fraction` (clamped to 0..1) over `width` cells.
  [[nodiscard]] static std::string bar(double fraction, std::size_t width);

 private:
  struct Line {
    std::string label;
    std::string text;
    double fraction = 0;
  };

  void redraw();

  std::FILE* out_;
  Mode mode_;
  std::vector<Line> lines_;
  std::size_t drawn_ = 0;
  std::size_t labelWidth_ = 0;
};

}  // namespace cvnctl
