#include <corvane/platform/Localization.hpp>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <libintl.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

// glibc's counter of loaded catalogues; bumping it invalidates gettext's look-up cache.
extern "C" int _nl_msg_cat_cntr;  // NOLINT(bugprone-reserved-identifier)

namespace corvane::platform {
namespace {

constexpr const char* domain = "corvane";

// The bundle installed with the library: CORVANE_RESOURCE_DIR_FROM_LIBDIR taken from the folder
// of the file this code was loaded from, so that a package installed under any prefix finds its
// own catalogues; the configured CORVANE_INSTALL_RESOURCE_DIR when there is none there.
std::filesystem::path installedResourceDirectory() {
  Dl_info info{};
  if (::dladdr(&domain, &info) != 0 && info.dli_fname != nullptr) {
    std::error_code ec;
    const auto library = std::filesystem::canonical(info.dli_fname, ec);
    if (!ec) {
      auto bundle = (library.parent_path() / CORVANE_RESOURCE_DIR_FROM_LIBDIR).lexically_normal();
      if (std::filesystem::is_directory(bundle / "locale", ec)) return bundle;
    }
  }
  return CORVANE_INSTALL_RESOURCE_DIR;
}

/// The texts of one compiled catalogue (a GNU .mo file), read whole; empty when the file is
/// missing or malformed.
std::map<std::string, std::string, std::less<>> readCatalogue(const std::filesystem::path& path) {
  std::map<std::string, std::string, std::less<>> texts;
  std::ifstream file(path, std::ios::binary);
  if (!file) return texts;
  const std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  constexpr std::uint32_t magic = 0x950412de;
  const auto word = [&](std::size_t at, bool swapped) -> std::optional<std::uint32_t> {
    if (at > data.size() || data.size() - at < 4) return std::nullopt;
    std::uint32_t value = 0;
    std::memcpy(&value, data.data() + at, 4);
    return swapped ? __builtin_bswap32(value) : value;
  };
  const auto first = word(0, false);
  if (!first || (*first != magic && __builtin_bswap32(*first) != magic)) return texts;
  const bool swapped = *first != magic;
  const auto count = word(8, swapped);
  const auto originals = word(12, swapped);
  const auto translations = word(16, swapped);
  if (!count || !originals || !translations) return texts;
  // A string table entry: length, then offset, of a string that ends in NUL.
  const auto text = [&](std::size_t table, std::uint32_t index) -> std::optional<std::string> {
    const std::size_t entry = table + std::size_t{8} * index;
    const auto length = word(entry, swapped);
    const auto offset = word(entry + 4, swapped);
    if (!length || !offset || *offset > data.size() || data.size() - *offset <= *length)
      return std::nullopt;
    return data.substr(*offset, *length);
  };
  for (std::uint32_t i = 0; i < *count; ++i) {
    auto original = text(*originals, i);
    auto translation = text(*translations, i);
    if (!original || !translation) return {};
    if (!original->empty()) texts.emplace(std::move(*original), std::move(*translation));
  }
  return texts;
}

/// The English text of `key`: English is the language the library is written in, so it serves
/// every locale that has no catalogue of its own (C, POSIX, a language nobody translated).
std::optional<std::string> englishText(std::string_view key) {
  static std::mutex mutex;
  static std::map<std::filesystem::path, std::map<std::string, std::string, std::less<>>> loaded;
  const auto directory = Localization::resourceDirectory();
  const std::lock_guard catalogues(mutex);
  auto found = loaded.find(directory);
  if (found == loaded.end()) {
    found = loaded
                .emplace(directory,
                         readCatalogue(directory / "locale" / "en" / "LC_MESSAGES" / "corvane.mo"))
                .first;
  }
  const auto text = found->second.find(key);
  if (text == found->second.end()) return std::nullopt;
  return text->second;
}

void bindOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    const auto locale = Localization::resourceDirectory() / "locale";
    ::bindtextdomain(domain, locale.c_str());
    ::bind_textdomain_codeset(domain, "UTF-8");
  });
}

}  // namespace

std::filesystem::path Localization::resourceDirectory() {
  const char* dir = std::getenv("CORVANE_RESOURCE_DIR");  // NOLINT(concurrency-mt-unsafe)
  if (dir != nullptr) return dir;
  static const std::filesystem::path installed = installedResourceDirectory();
  return installed;
}

std::string Localization::localizedString(std::string_view key) {
  bindOnce();
  const std::string id(key);
  const char* text = ::dgettext(domain, id.c_str());
  // gettext hands the key itself back when the locale's catalogue has no text for it.
  if (text != id.c_str()) return text;
  return englishText(key).value_or(id);
}

void Localization::languageChanged() noexcept {
  ++_nl_msg_cat_cntr;
}

}  // namespace corvane::platform
