#include "ProgressDisplay.hpp"

#include <corvane/model/AppState.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <variant>

namespace cvnctl {
namespace {

constexpr std::size_t barWidth = 24;

}  // namespace

double ProgressDisplay::fractionOf(const corvane::AppState& state) noexcept {
  return std::visit(
      [](const auto& c) -> double {
        using Case = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<
                          Case,
                          corvane::AppState::
                              Downloading> || std::is_same_v<Case, corvane::AppState::Installing>) {
          return c._0;
        } else if constexpr (std::is_same_v<Case, corvane::AppState::Paused>) {
          return fractionOf(*c._0);
        } else if constexpr (
            std::is_same_v<
                Case,
                corvane::AppState::Installed> || std::is_same_v<Case, corvane::AppState::Managed>) {
          return 1.0;
        } else {
          return 0.0;
        }
      },
      state.cases());
}

std::string ProgressDisplay::bar(double fraction, std::size_t width) {
  if (!std::isfinite(fraction)) fraction = 0;
  fraction = std::clamp(fraction, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(std::floor(fraction * static_cast<double>(width)));
  // Built by appending: g++ 12 at -O3 misreads `"[" + std::string(...)` as an overlapping copy.
  std::string bar;
  bar.reserve(width + 2);
  bar += '[';
  bar.append(filled, '#');
  bar.append(width - filled, '-');
  bar += ']';
  return bar;
}

void ProgressDisplay::update(const std::string& label, const corvane::AppState& state) {
  update(label, state.description(), fractionOf(state));
}

void ProgressDisplay::update(const std::string& label, std::string text,
                             std::optional<double> fraction) {
  auto line = std::find_if(lines_.begin(), lines_.end(),
                           [&](const Line& candidate) { return candidate.label == label; });
  if (line == lines_.end()) {
    lines_.push_back({label, {}, 0});
    line = std::prev(lines_.end());
    labelWidth_ = std::max(labelWidth_, label.size());
  } else if (line->text == text && line->fraction == fraction.value_or(0)) {
    return;
  }
  line->text = std::move(text);
  line->fraction = fraction.value_or(0);
  if (mode_ == Mode::plain) {
    fmt::print(out_, "{}: {}\n", line->label, line->text);
    std::fflush(out_);
    return;
  }
  redraw();
}

void ProgressDisplay::redraw() {
  std::string frame;
  // Back to the first line drawn last time; a new line is appended below the others.
  if (drawn_ > 0) frame += fmt::format("\x1b[{}A", drawn_);
  for (const auto& line : lines_) {
    frame += fmt::format("\r\x1b[2K{:<{}}  {}  {}\n", line.label, labelWidth_,
                         bar(line.fraction, barWidth), line.text);
  }
  drawn_ = lines_.size();
  std::fputs(frame.c_str(), out_);
  std::fflush(out_);
}

}  // namespace cvnctl
