#include <corvane/requests/StoreAppIdentifier.hpp>

namespace corvane {

std::optional<std::int64_t> StoreAppIdentifier::itemIdentifier() const noexcept {
  if (const auto* item = std::get_if<ItemID>(&cases_)) return item->_0;
  return std::nullopt;
}

std::optional<std::string> StoreAppIdentifier::bundleIdentifier() const {
  if (const auto* bundle = std::get_if<BundleID>(&cases_)) return bundle->_0;
  return std::nullopt;
}

std::string StoreAppIdentifier::description() const {
  if (const auto* item = std::get_if<ItemID>(&cases_)) return fmt::format("Item ID: {}", item->_0);
  return "Bundle ID: " + std::get<BundleID>(cases_)._0;
}

bool operator==(const StoreAppIdentifier& a, const StoreAppIdentifier& b) noexcept {
  if (a.cases_.index() != b.cases_.index()) return false;
  if (const auto* item = std::get_if<StoreAppIdentifier::ItemID>(&a.cases_)) {
    return item->_0 == std::get<StoreAppIdentifier::ItemID>(b.cases_)._0;
  }
  return std::get<StoreAppIdentifier::BundleID>(a.cases_)._0
         == std::get<StoreAppIdentifier::BundleID>(b.cases_)._0;
}

}  // namespace corvane

std::size_t std::hash<corvane::StoreAppIdentifier>::operator()(
    const corvane::StoreAppIdentifier& value) const noexcept {
  // Combine the case index with the payload's hash, so that item 5 and bundle "5" differ.
  const std::size_t index = value.cases().index();
  const std::size_t payload = std::visit(
      [](const auto& c) { return std::hash<std::remove_cvref_t<decltype(c._0)>>{}(c._0); },
      value.cases());
  return index * 0x9E3779B97F4A7C15ULL ^ (payload + 0x9E3779B97F4A7C15ULL + (index << 6U));
}
