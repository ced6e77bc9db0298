#include <corvane/platform/Random.hpp>
#include <corvane/push/LogKey.hpp>

#include <array>
#include <utility>

namespace corvane {
namespace {

struct PrefixEntry {
  LogKey::Prefix prefix;
  std::string_view rawValue;
  std::string_view description;
};

// In declaration order.
constexpr std::array<PrefixEntry, 9> prefixes{{
    {LogKey::Prefix::general, "GEN", "General"},
    {LogKey::Prefix::vpp, "VPP", "VPP"},
    {LogKey::Prefix::manifest, "MAN", "Manifest"},
    {LogKey::Prefix::ddm, "DDM", "DDM"},
    {LogKey::Prefix::update, "UPD", "UPD"},
    {LogKey::Prefix::edp, "EDP", "EDP"},
    {LogKey::Prefix::unknown, "???", "???"},
    {LogKey::Prefix::appReview, "APR", "App Review"},
    {LogKey::Prefix::cvnctl, "CVNCTL", "cvnctl"},
}};

const PrefixEntry& entry(LogKey::Prefix prefix) noexcept {
  return prefixes[static_cast<std::size_t>(prefix)];
}

}  // namespace

std::string_view rawValue(LogKey::Prefix prefix) noexcept {
  return entry(prefix).rawValue;
}

std::string_view description(LogKey::Prefix prefix) noexcept {
  return entry(prefix).description;
}

std::optional<LogKey::Prefix> logKeyPrefix(std::string_view raw) noexcept {
  for (const auto& e : prefixes) {
    if (e.rawValue == raw) return e.prefix;
  }
  return std::nullopt;
}

LogKey::LogKey(Prefix prefix)
    : representation(Representation::prefixed(
        prefix, static_cast<std::uint32_t>(platform::Random::bits64() & 0xFFFF'FFFFU))) {}

std::string LogKey::description() const {
  if (const auto* p = std::get_if<Representation::Prefixed>(&representation.cases())) {
    return fmt::format("{}{:X}", rawValue(p->prefix), p->number);
  }
  return std::get<Representation::Text>(representation.cases())._0;
}

}  // namespace corvane
