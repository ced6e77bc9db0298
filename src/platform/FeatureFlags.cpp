#include <corvane/platform/FeatureFlags.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <boost/json/parse.hpp>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>

namespace corvane::platform {
namespace {

std::optional<bool> parseSwitch(std::string_view text) noexcept {
  for (auto on : {"1", "on", "true", "yes"}) {
    if (text == on) return true;
  }
  for (auto off : {"0", "off", "false", "no"}) {
    if (text == off) return false;
  }
  return std::nullopt;
}

std::string environmentName(std::string_view domain, std::string_view feature) {
  std::string name = "CORVANE_FEATURE_";
  auto append = [&](std::string_view part) {
    for (const char c : part) {
      name += std::isalnum(static_cast<unsigned char>(c)) != 0
                  ? static_cast<char>(std::toupper(static_cast<unsigned char>(c)))
                  : '_';
    }
  };
  append(domain);
  name += '_';
  append(feature);
  return name;
}

// The parsed configuration file, refreshed when the file's identity changes.
class FileCache {
 public:
  std::optional<bool> lookup(const std::string& path, std::string_view domain,
                             std::string_view feature) {
    struct stat info {};
    const bool exists = ::stat(path.c_str(), &info) == 0;
    const std::lock_guard fileCache(mutex_);
    if (!exists) {
      flags_.clear();
      stamp_.reset();
      return std::nullopt;
    }
    const Stamp stamp{path, info.st_mtim.tv_sec, info.st_mtim.tv_nsec, info.st_size, info.st_ino};
    if (!stamp_ || !(*stamp_ == stamp)) {
      reload(path);
      stamp_ = stamp;
    }
    const auto it = flags_.find(std::string(domain) + '\n' + std::string(feature));
    if (it == flags_.end()) return std::nullopt;
    return it->second;
  }

 private:
  struct Stamp {
    std::string path;
    long seconds;
    long nanoseconds;
    off_t size;
    ino_t inode;
    bool operator==(const Stamp&) const = default;
  };

  void reload(const std::string& path) {
    flags_.clear();
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    boost::system::error_code ec;
    const auto document = boost::json::parse(text.str(), ec);
    if (ec || !document.is_object()) {
      LogCategory::general().error("Ignoring malformed feature-flag file {}: {}", path,
                                   ec ? ec.message() : "top level is not an object");
      return;
    }
    for (const auto& domain : document.get_object()) {
      if (!domain.value().is_object()) continue;
      for (const auto& feature : domain.value().get_object()) {
        if (feature.value().is_bool()) {
          flags_[std::string(domain.key()) + '\n' + std::string(feature.key())] =
              feature.value().get_bool();
        }
      }
    }
  }

  std::mutex mutex_;
  std::optional<Stamp> stamp_;
  std::map<std::string, bool> flags_;
};

}  // namespace

std::filesystem::path FeatureFlags::configPath() {
  const char* path = std::getenv("CORVANE_FEATURES_FILE");  // NOLINT(concurrency-mt-unsafe)
  return path != nullptr ? std::filesystem::path(path)
                         : std::filesystem::path("/etc/corvane/features.json");
}

bool FeatureFlags::isEnabled(std::string_view domain, std::string_view feature) noexcept {
  try {
    const std::string name = environmentName(domain, feature);
    if (const char* value = std::getenv(name.c_str())) {  // NOLINT(concurrency-mt-unsafe)
      if (auto answer = parseSwitch(value)) return *answer;
    }
    static FileCache cache;
    if (auto answer = cache.lookup(configPath().string(), domain, feature)) return *answer;
  } catch (...) {
    // An unreadable configuration leaves the default.
  }
  return true;
}

}  // namespace corvane::platform
