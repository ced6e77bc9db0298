#include <corvane/push/MessageRegistration.hpp>

namespace corvane {

std::string MessageRegistration::description() const {
  switch (cases_.index()) {
    case 0:
      return "App catalog changed";
    case 1:
      return "App state changes: " + std::get<AppStateChangeByBundleID>(cases_).bundleID;
    case 2:
      return "Global app progress";
    default:
      return "Logging";
  }
}

bool operator==(const MessageRegistration& a, const MessageRegistration& b) noexcept {
  if (a.cases_.index() != b.cases_.index()) return false;
  const auto* left = std::get_if<MessageRegistration::AppStateChangeByBundleID>(&a.cases_);
  const auto* right = std::get_if<MessageRegistration::AppStateChangeByBundleID>(&b.cases_);
  return left == nullptr || (right != nullptr && left->bundleID == right->bundleID);
}

std::string description(const std::vector<MessageRegistration>& registrations) {
  std::string out = "[";
  for (std::size_t i = 0; i < registrations.size(); ++i) {
    if (i != 0) out += ", ";
    out += registrations[i].description();
  }
  out += ']';
  return out;
}

}  // namespace corvane

std::size_t std::hash<corvane::MessageRegistration>::operator()(
    const corvane::MessageRegistration& value) const noexcept {
  const std::size_t index = value.cases().index();
  const auto* change =
      std::get_if<corvane::MessageRegistration::AppStateChangeByBundleID>(&value.cases());
  if (change == nullptr) return std::hash<std::size_t>{}(index);
  // Mix the case index into the bundle identifier's hash.
  const std::size_t bundle = std::hash<std::string>{}(change->bundleID);
  return bundle ^ (0x9E3779B97F4A7C15ULL + (index << 6U) + (bundle >> 2U));
}
