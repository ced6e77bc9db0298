#include <corvane/platform/Localization.hpp>

#include <cstdlib>
#include <libintl.h>
#include <mutex>

// glibc's counter of loaded catalogues; bumping it invalidates gettext's look-up cache.
extern "C" int _nl_msg_cat_cntr;  // NOLINT(bugprone-reserved-identifier)

namespace corvane::platform {
namespace {

constexpr const char* domain = "corvane";

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
  return dir != nullptr ? std::filesystem::path(dir)
                        : std::filesystem::path(CORVANE_INSTALL_RESOURCE_DIR);
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
