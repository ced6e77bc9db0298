#include "ProgressDisplay.hpp"

#include <corvane/model/AppState.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <sys/ioctl.h>
#include <type_traits>
#include <variant>
#include <wchar.h>

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

namespace {

/// One code point of UTF-8 text and the length of its sequence.
struct CodePoint {
  char32_t value;
  std::size_t length;
};

/// The code point that starts at `text[at]`. A byte that does not start a whole, valid sequence
/// stands for itself, as U+FFFD.
CodePoint decodeAt(std::string_view text, std::size_t at) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned lead = byte(0);
  std::size_t length = 1;
  char32_t value = lead;
  if (lead >= 0xF0U && lead < 0xF5U) {
    length = 4;
    value = lead & 0x07U;
  } else if (lead >= 0xE0U) {
    length = lead < 0xF0U ? 3 : 0;
    value = lead & 0x0FU;
  } else if (lead >= 0xC2U) {
    length = 2;
    value = lead & 0x1FU;
  } else if (lead >= 0x80U) {
    length = 0;
  }
  if (length == 0 || at + length > text.size()) return {0xFFFD, 1};
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) return {0xFFFD, 1};
    value = (value << 6U) | (byte(i) & 0x3FU);
  }
  return {value, length};
}

/// The cells a code point takes on the terminal, as the locale's character type says: two for
/// East Asian wide characters and most emoji, none for combining marks. One where the locale
/// does not know it (a locale that is not UTF-8, a control character).
std::size_t widthOf(char32_t value) noexcept {
  const int width = ::wcwidth(static_cast<wchar_t>(value));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

std::size_t columnsOf(std::string_view text) noexcept {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const auto point = decodeAt(text, at);
    columns += widthOf(point.value);
    at += point.length;
  }
  return columns;
}

ProgressDisplay::Phase phaseOf(const corvane::AppState& state) noexcept {
  return std::visit(
      [](const auto& c) {
        using Case = std::decay_t<decltype(c)>;
        using Phase = ProgressDisplay::Phase;
        if constexpr (std::is_same_v<
                          Case,
                          corvane::AppState::
                              Downloading> || std::is_same_v<Case, corvane::AppState::Installing>) {
          return Phase::installing;
        } else if constexpr (std::is_same_v<Case, corvane::AppState::Paused>) {
          return Phase::paused;
        } else if constexpr (
            std::is_same_v<
                Case,
                corvane::AppState::Installed> || std::is_same_v<Case, corvane::AppState::Managed>) {
          return Phase::installed;
        } else {
          return Phase::waiting;
        }
      },
      state.cases());
}

/// Which apps get the rows when not all fit: those moving first, finished ones last.
int priorityOf(ProgressDisplay::Phase phase) noexcept {
  switch (phase) {
    case ProgressDisplay::Phase::installing:
      return 0;
    case ProgressDisplay::Phase::paused:
      return 1;
    case ProgressDisplay::Phase::failed:
      return 2;
    case ProgressDisplay::Phase::waiting:
      return 3;
    case ProgressDisplay::Phase::installed:
      return 4;
  }
  return 4;
}

std::string padded(std::string_view text, std::size_t columns) {
  std::string result(text);
  const auto used = columnsOf(text);
  if (used < columns) result.append(columns - used, ' ');
  return result;
}

}  // namespace

std::string ProgressDisplay::clip(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  std::size_t used = 0;
  while (end < text.size()) {
    const auto point = decodeAt(text, end);
    const auto width = widthOf(point.value);
    // A wide character that would stand across the limit is left out whole.
    if (used + width > columns) break;
    used += width;
    end += point.length;
  }
  return std::string(text.substr(0, end));
}

void ProgressDisplay::update(const std::string& label, const corvane::AppState& state) {
  set(label, state.description(), fractionOf(state), phaseOf(state));
}

void ProgressDisplay::update(const std::string& label, std::string text,
                             std::optional<double> fraction, Phase phase) {
  set(label, std::move(text), fraction.value_or(0), phase);
}

void ProgressDisplay::set(const std::string& label, std::string text, double fraction,
                          Phase phase) {
  auto line = std::find_if(lines_.begin(), lines_.end(),
                           [&](const Line& candidate) { return candidate.label == label; });
  if (line == lines_.end()) {
    lines_.push_back({label, {}, 0, phase});
    line = std::prev(lines_.end());
    labelWidth_ = std::max(labelWidth_, columnsOf(label));
  } else if (line->text == text && line->fraction == fraction && line->phase == phase) {
    return;
  }
  line->text = std::move(text);
  line->fraction = fraction;
  line->phase = phase;
  if (mode_ == Mode::plain) {
    fmt::print(out_, "{}: {}\n", line->label, line->text);
    std::fflush(out_);
    return;
  }
  redraw();
}

void ProgressDisplay::resized() {
  if (mode_ == Mode::terminal && !lines_.empty()) redraw();
}

ProgressDisplay::Size ProgressDisplay::size() const noexcept {
  winsize window{};
  if (::ioctl(::fileno(out_), TIOCGWINSZ, &window) == 0 && window.ws_col > 0 && window.ws_row > 0)
    return {window.ws_col, window.ws_row};
  return {80, 24};
}

std::string ProgressDisplay::render(const Line& line, std::size_t columns) const {
  // The last column stays empty: writing into it leaves some terminals about to wrap.
  const std::size_t limit = std::max<std::size_t>(columns, 2) - 1;
  const auto label = padded(line.label, labelWidth_);
  auto full = fmt::format("{}  {}  {}", label, bar(line.fraction, barWidth), line.text);
  if (columnsOf(full) <= limit) return full;
  auto withoutBar = fmt::format("{}  {}", label, line.text);
  if (columnsOf(withoutBar) <= limit) return withoutBar;
  // Too narrow for the whole label: its end makes room for the text.
  const auto text = columnsOf(line.text);
  if (limit > text + 2 + 8) {
    const auto room = limit - text - 2;
    return fmt::format("{}...  {}", clip(line.label, room - 3), line.text);
  }
  return clip(fmt::format("{}  {}", line.label, line.text), limit);
}

std::string ProgressDisplay::summary() const {
  constexpr std::array phases{Phase::installing, Phase::paused, Phase::waiting, Phase::installed,
                              Phase::failed};
  constexpr std::array names{"installing", "paused", "waiting", "installed", "failed"};
  std::string text;
  for (std::size_t i = 0; i < phases.size(); ++i) {
    const auto count = std::count_if(lines_.begin(), lines_.end(),
                                     [&](const Line& line) { return line.phase == phases.at(i); });
    if (count == 0) continue;
    if (!text.empty()) text += ", ";
    text += fmt::format("{} {}", count, names.at(i));
  }
  return text;
}

void ProgressDisplay::redraw() {
  const auto [columns, height] = size();
  // The row below the frame holds the cursor; a frame taller than the rest would scroll.
  const std::size_t rows = std::max<std::size_t>(height, 2) - 1;

  std::vector<std::string> frame;
  if (lines_.size() <= rows) {
    for (const auto& line : lines_) frame.push_back(render(line, columns));
  } else {
    frame.push_back(clip(summary(), std::max<std::size_t>(columns, 2) - 1));
    std::vector<std::size_t> order(lines_.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return priorityOf(lines_[a].phase) < priorityOf(lines_[b].phase);
    });
    order.resize(rows - 1);
    std::sort(order.begin(), order.end());
    for (const auto index : order) frame.push_back(render(lines_[index], columns));
  }

  // Back to the first row drawn last time. A terminal that got narrower has rewrapped those rows.
  std::size_t up = 0;
  for (const auto used : drawn_) up += std::max<std::size_t>(1, (used + columns - 1) / columns);
  // A terminal that got shorter (or rewrapped the frame taller than the screen) has pushed the
  // top of it into the scrollback, with the cursor on the last row: what is left of the frame
  // starts on the first row. Going up further, or blanking as many rows as the frame had, would
  // scroll the new frame away and leave a stale copy on the screen.
  up = std::min(up, height - 1);
  std::string out = "\r";
  if (up > 0) out += fmt::format("\x1b[{}A", up);
  // Each row is cleared on its own: erasing to the end of the screen from its top-left corner
  // makes some terminals push the screen into the scrollback.
  drawn_.clear();
  for (const auto& row : frame) {
    out += "\x1b[2K";
    out += row;
    out += '\n';
    drawn_.push_back(columnsOf(row));
  }
  // Rows left over from a taller frame are blanked, and the cursor comes back below this one.
  if (up > frame.size()) {
    const auto left = up - frame.size();
    for (std::size_t i = 0; i < left; ++i) out += "\x1b[2K\n";
    out += fmt::format("\x1b[{}A", left);
  }
  std::fputs(out.c_str(), out_);
  std::fflush(out_);
}

}  // namespace cvnctl
