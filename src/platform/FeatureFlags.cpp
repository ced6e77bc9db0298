#include <corvane/platform/FeatureFlags.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <boost/json/parse.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace corvane::platform {
namespace {

constexpr const char* defaultConfigPath = "/etc/corvane/features.json";

std::optional<bool> parseSwitch(std::string_view text) noexcept {
  for (auto on : {"1", "on", "true", "yes"}) {
    if (text == on) return true;
  }
  for (auto off : {"0", "off", "false", "no"}) {
    if (text == off) return false;
  }
  return std::nullopt;
}

// CORVANE_FEATURE_<DOMAIN>_<FEATURE> as a C string: in `small` when it fits (so a query allocates
// nothing), else in `large`.
const char* environmentName(std::string_view domain, std::string_view feature,
                            std::span<char> small, std::string& large) {
  constexpr std::string_view prefix = "CORVANE_FEATURE_";
  const std::size_t size = prefix.size() + domain.size() + 1 + feature.size();
  char* const begin = size < small.size() ? small.data() : (large.resize(size), large.data());
  char* end = std::ranges::copy(prefix, begin).out;
  // ASCII only, whatever the locale: an environment variable's name is.
  auto append = [&](std::string_view part) {
    for (const char c : part) {
      if (c >= 'a' && c <= 'z') {
        *end++ = static_cast<char>(c - 'a' + 'A');
      } else if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
        *end++ = c;
      } else {
        *end++ = '_';
      }
    }
  };
  append(domain);
  *end++ = '_';
  append(feature);
  *end = '\0';
  return begin;
}

// The parsed configuration file. Which file it is ($CORVANE_FEATURES_FILE) and its identity are
// looked at again at most once per `recheckInterval` (a stat(2) per query would be a sizeable
// share of a service call's cost), and the file is parsed again only when either has changed.
class FileCache {
 public:
  std::optional<bool> lookup(std::string_view domain, std::string_view feature) {
    const auto now = std::chrono::steady_clock::now();
    {
      const std::lock_guard fileCache(mutex_);
      if (checkedAt_ && now - *checkedAt_ < recheckInterval) return find(domain, feature);
    }
    // As configPath(), without building a path.
    const char* path = std::getenv("CORVANE_FEATURES_FILE");  // NOLINT(concurrency-mt-unsafe)
    if (path == nullptr) path = defaultConfigPath;
    struct stat info {};
    const bool exists = ::stat(path, &info) == 0;
    const std::lock_guard fileCache(mutex_);
    checkedAt_ = now;
    if (!exists) {
      path_ = path;
      flags_.clear();
      stamp_.reset();
      return std::nullopt;
    }
    const Stamp stamp{info.st_mtim.tv_sec, info.st_mtim.tv_nsec, info.st_size, info.st_ino};
    if (!stamp_ || !(*stamp_ == stamp) || path_ != path) {
      path_ = path;
      reload();
      stamp_ = stamp;
    }
    return find(domain, feature);
  }

 private:
  struct Stamp {
    long seconds;
    long nanoseconds;
    off_t size;
    ino_t inode;
    bool operator==(const Stamp&) const = default;
  };

  static constexpr std::chrono::milliseconds recheckInterval{1};

  std::optional<bool> find(std::string_view domain, std::string_view feature) const {
    const auto features = flags_.find(domain);
    if (features == flags_.end()) return std::nullopt;
    const auto it = features->second.find(feature);
    if (it == features->second.end()) return std::nullopt;
    return it->second;
  }

  void reload() {
    flags_.clear();
    std::ifstream file(path_);
    std::stringstream text;
    text << file.rdbuf();
    boost::system::error_code ec;
    const auto document = boost::json::parse(text.str(), ec);
    if (ec || !document.is_object()) {
      LogCategory::general().error("Ignoring malformed feature-flag file {}: {}", path_,
                                   ec ? ec.message() : "top level is not an object");
      return;
    }
    for (const auto& domain : document.get_object()) {
      if (!domain.value().is_object()) continue;
      for (const auto& feature : domain.value().get_object()) {
        if (feature.value().is_bool()) {
          flags_[std::string(domain.key())][std::string(feature.key())] =
              feature.value().get_bool();
        }
      }
    }
  }

  std::mutex mutex_;
  std::string path_;  // the file that `stamp_` and `flags_` describe
  std::optional<Stamp> stamp_;
  std::optional<std::chrono::steady_clock::time_point> checkedAt_;
  // Domain, then feature; looked up by views, without building a key.
  std::map<std::string, std::map<std::string, bool, std::less<>>, std::less<>> flags_;
};

}  // namespace

std::filesystem::path FeatureFlags::configPath() {
  const char* path = std::getenv("CORVANE_FEATURES_FILE");  // NOLINT(concurrency-mt-unsafe)
  return path != nullptr ? std::filesystem::path(path) : std::filesystem::path(defaultConfigPath);
}

bool FeatureFlags::isEnabled(std::string_view domain, std::string_view feature) noexcept {
  try {
    std::array<char, 128> small;  // NOLINT(cppcoreguidelines-pro-type-member-init): written first
    std::string large;
    const char* name = environmentName(domain, feature, small, large);
    if (const char* value = std::getenv(name)) {  // NOLINT(concurrency-mt-unsafe)
      if (auto answer = parseSwitch(value)) return *answer;
    }
    static FileCache cache;
    if (auto answer = cache.lookup(domain, feature)) return *answer;
  } catch (...) {
    // An unreadable configuration leaves the default.
  }
  return true;
}

}  // namespace corvane::platform
