#include <corvane/platform/BuildVariant.hpp>
#include <corvane/platform/DeviceInfo.hpp>
#include <corvane/platform/Random.hpp>

#include <boost/uuid/random_generator.hpp>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string_view>
#include <sys/random.h>

namespace corvane::platform {
namespace {

struct ScaleOverride {
  std::mutex mutex;
  bool active = false;
  std::optional<double> value;
};

ScaleOverride& scaleOverride() noexcept {
  static ScaleOverride instance;
  return instance;
}

std::optional<double> parseScale(const char* text) noexcept {
  if (text == nullptr) return std::nullopt;
  const std::string_view view(text);
  double value = 0;
  const auto [end, ec] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (ec != std::errc() || end != view.data() + view.size() || !std::isfinite(value)
      || value <= 0) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<double> DeviceInfo::screenScale() noexcept {
  {
    auto& o = scaleOverride();
    const std::lock_guard scaleOverrideLock(o.mutex);
    if (o.active) return o.value;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is read, never written, by the library
  if (const char* scale = std::getenv("CORVANE_SCREEN_SCALE")) return parseScale(scale);
  return parseScale(std::getenv("GDK_SCALE"));  // NOLINT(concurrency-mt-unsafe)
}

void DeviceInfo::overrideScreenScale(std::optional<double> scale) noexcept {
  auto& o = scaleOverride();
  const std::lock_guard scaleOverrideLock(o.mutex);
  o.active = true;
  o.value = scale;
}

void DeviceInfo::clearScreenScaleOverride() noexcept {
  auto& o = scaleOverride();
  const std::lock_guard scaleOverrideLock(o.mutex);
  o.active = false;
  o.value.reset();
}

bool BuildVariant::isInternal() noexcept {
  const char* value = std::getenv("CORVANE_INTERNAL_BUILD");  // NOLINT(concurrency-mt-unsafe)
  return value != nullptr && std::string_view(value) == "1";
}

boost::uuids::uuid Random::uuid() {
  thread_local boost::uuids::random_generator generator;
  return generator();
}

std::uint64_t Random::bits64() noexcept {
  std::uint64_t value = 0;
  auto* out = reinterpret_cast<unsigned char*>(&value);  // NOLINT: filling the word's bytes
  std::size_t filled = 0;
  while (filled < sizeof value) {
    const ssize_t n = ::getrandom(out + filled, sizeof value - filled, 0);
    if (n > 0) {
      filled += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      // No kernel source (should not happen on Linux >= 3.17): fall back to random_device.
      std::random_device device;
      return (static_cast<std::uint64_t>(device()) << 32U) ^ device();
    }
  }
  return value;
}

}  // namespace corvane::platform
