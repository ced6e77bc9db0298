#include <corvane/platform/Localization.hpp>

#include <cstdlib>
#include <dlfcn.h>
#include <libintl.h>
#include <mutex>
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
  return ::dgettext(domain, id.c_str());
}

void Localization::languageChanged() noexcept {
  ++_nl_msg_cat_cntr;
}

}  // namespace corvane::platform
