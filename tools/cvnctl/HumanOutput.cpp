#include "HumanOutput.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace cvnctl {
namespace {

/// Writes rows under a header, each column as wide as its widest cell.
template <std::size_t N>
void printTable(std::FILE* out, const std::array<std::string, N>& header,
                const std::vector<std::array<std::string, N>>& rows) {
  std::array<std::size_t, N> widths{};
  for (std::size_t i = 0; i < N; ++i) widths[i] = header[i].size();
  for (const auto& row : rows)
    for (std::size_t i = 0; i < N; ++i) widths[i] = std::max(widths[i], row[i].size());
  auto printRow = [&](const std::array<std::string, N>& row) {
    std::string line;
    for (std::size_t i = 0; i < N; ++i) {
      if (i + 1 == N) {
        line += row[i];
      } else {
        line += fmt::format("{:<{}}  ", row[i], widths[i]);
      }
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    fmt::print(out, "{}\n", line);
  };
  printRow(header);
  for (const auto& row : rows) printRow(row);
  std::fflush(out);
}

std::string joinReasons(const std::vector<corvane::ManagedAppStatus::Reason>& reasons) {
  std::string text;
  for (const auto reason : reasons) {
    if (!text.empty()) text += ", ";
    text += corvane::rawValue(reason);
  }
  return text;
}

}  // namespace

std::string HumanOutput::statusText(const corvane::ManagedAppStatus& status) {
  std::string text(corvane::rawValue(status.state));
  if (!text.empty()) text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  if (status.state == corvane::ManagedAppStatus::State::failed && !status.reasons.empty())
    text += " (" + joinReasons(status.reasons) + ")";
  return text;
}

void HumanOutput::keys(const std::vector<std::string>& keys) {
  if (keys.empty()) fmt::print(out_, "(no declaration keys)\n");
  for (const auto& key : keys) fmt::print(out_, "{}\n", key);
  std::fflush(out_);
}

void HumanOutput::statuses(const std::vector<corvane::ManagedAppStatus>& statuses) {
  if (statuses.empty()) {
    fmt::print(out_, "(no declared apps)\n");
    std::fflush(out_);
    return;
  }
  std::vector<std::array<std::string, 7>> rows;
  rows.reserve(statuses.size());
  for (const auto& status : statuses) {
    rows.push_back({status.declarationIdentifier, status.declarationKey, status.bundleID,
                    std::string(corvane::rawValue(status.state)), joinReasons(status.reasons),
                    status.installedVersionInfo ? status.installedVersionInfo->bundleShortVersion
                                                : std::string("-"),
                    status.name});
  }
  printTable<7>(out_, {"DECLARATION", "KEY", "BUNDLE ID", "STATE", "REASONS", "VERSION", "NAME"},
                rows);
}

void HumanOutput::catalog(const std::vector<corvane::ManagedApp>& apps) {
  if (catalogs_++ > 0) fmt::print(out_, "\n");
  if (apps.empty()) {
    fmt::print(out_, "(the catalogue is empty)\n");
    std::fflush(out_);
    return;
  }
  std::vector<std::array<std::string, 5>> rows;
  rows.reserve(apps.size());
  for (const auto& app : apps) {
    rows.push_back({app.declarationIdentifier(), app.bundleID(),
                    app.itemID() ? std::to_string(*app.itemID()) : std::string("-"),
                    app.version().value_or("-"), app.name()});
  }
  printTable<5>(out_, {"DECLARATION", "BUNDLE ID", "ITEM", "VERSION", "NAME"}, rows);
}

void HumanOutput::done(std::string_view summary) {
  fmt::print(out_, "{}\n", summary);
  std::fflush(out_);
}

void HumanOutput::announce(std::string_view summary) {
  done(summary);
}

void HumanOutput::state(const std::string& bundleID, const corvane::AppState& state, bool live) {
  if (live) {
    display_.update(bundleID, state);
    return;
  }
  fmt::print(out_, "{}: {}\n", bundleID, state.description());
  std::fflush(out_);
}

void HumanOutput::progress(const corvane::AppProgress& progress) {
  display_.update(progress.bundleID, progress.state);
}

namespace {

ProgressDisplay::Phase phaseOf(corvane::ManagedAppStatus::State state) noexcept {
  using State = corvane::ManagedAppStatus::State;
  switch (state) {
    case State::managed:
      return ProgressDisplay::Phase::installed;
    case State::downloading:
    case State::installing:
      return ProgressDisplay::Phase::installing;
    case State::managedButUninstalled:
    case State::failed:
      return ProgressDisplay::Phase::failed;
    default:
      return ProgressDisplay::Phase::waiting;
  }
}

}  // namespace

void HumanOutput::settled(const std::vector<corvane::ManagedAppStatus>& statuses) {
  for (const auto& status : statuses) {
    const bool managed = status.state == corvane::ManagedAppStatus::State::managed;
    display_.update(status.bundleID, statusText(status),
                    managed ? std::optional<double>(1.0) : std::nullopt, phaseOf(status.state));
  }
}

void HumanOutput::note(std::string_view text) {
  fmt::print(err_, "{}\n", text);
  std::fflush(err_);
  // On a terminal the note took the row below the display, which must not be drawn over.
  display_.leave();
}

void HumanOutput::failure(const Failure& failure) {
  std::string_view rest = failure.message;
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    fmt::print(err_, "cvnctl: {}\n", rest.substr(0, end));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  std::fflush(err_);
}

}  // namespace cvnctl
