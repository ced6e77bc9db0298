#include <corvane/model/AppState.hpp>

#include <stdexcept>
#include <utility>

namespace corvane {
namespace {

// F(p): the fraction as a percentage with two decimals. fmt formats floating point without
// consulting the locale, as the text form requires.
std::string percent(double fraction) {
  return fmt::format("{:.2f}", fraction * 100.0);
}

struct Describe {
  std::string operator()(const AppState::Available& c) const {
    return std::string(corvane::description(c._0));
  }
  std::string operator()(const AppState::Downloading& c) const {
    return "Downloading (" + percent(c._0) + "%)";
  }
  std::string operator()(const AppState::Installing& c) const {
    return "Installing (" + percent(c._0) + "%)";
  }
  std::string operator()(const AppState::Paused& c) const {
    return "Paused at state " + c._0->description();
  }
  std::string operator()(const AppState::Installed&) const { return "Installed"; }
  std::string operator()(const AppState::Managed&) const { return "Managed"; }
  std::string operator()(const AppState::Waiting&) const { return "Waiting"; }
};

}  // namespace

AppState::AppState(Cases cases) : cases_(std::move(cases)) {
  if (const auto* paused = std::get_if<Paused>(&cases_); paused && !paused->_0) {
    throw std::invalid_argument("A paused app state needs the state it was paused in.");
  }
}

AppState AppState::paused(AppState state) {
  return AppState(Cases(Paused{std::make_shared<const AppState>(std::move(state))}));
}

std::string AppState::description() const {
  return std::visit(Describe{}, cases_);
}

bool operator==(const AppState& a, const AppState& b) noexcept {
  if (a.cases_.index() != b.cases_.index()) return false;
  return std::visit(
      [&](const auto& left) {
        using Case = std::remove_cvref_t<decltype(left)>;
        const auto& right = std::get<Case>(b.cases_);
        if constexpr (std::is_same_v<Case, AppState::Paused>) {
          return *left._0 == *right._0;
        } else if constexpr (
            std::is_same_v<
                Case,
                AppState::
                    Available> || std::is_same_v<Case, AppState::Downloading> || std::is_same_v<Case, AppState::Installing>) {
          return left._0 == right._0;
        } else {
          return true;
        }
      },
      a.cases_);
}

std::string_view description(AppState::Availability availability) noexcept {
  switch (availability) {
    case AppState::Availability::available:
      return "Available";
    case AppState::Availability::redownload:
      return "Redownload";
    case AppState::Availability::update:
      return "Update";
  }
  return "";
}

}  // namespace corvane
