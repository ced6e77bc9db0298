#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvane::flatpak {

/// One component (app) of a remote's AppStream catalogue: what the catalogue shows. Texts are
/// the untranslated ones.
struct AppStreamComponent {
  /// The app ID, e.g. "org.corvane.Test.Hello".
  std::string id;
  std::string name;
  std::string summary;
  std::string developerName;
  /// The largest cached icon, when the file is there (next to the XML, icons/WxH/NAME).
  std::filesystem::path iconPath;
  /// A remote icon's URL, when the component has one.
  std::string iconUrl;
  /// Screenshot image URLs, the default one first.
  std::vector<std::string> screenshots;
  std::vector<std::string> categories;
  /// Language codes the app is translated into.
  std::vector<std::string> languages;
  /// The newest release's version (empty without releases).
  std::string version;
  std::string projectLicence;
  /// The Flatpak ref the component describes, "app/ID/ARCH/BRANCH" (empty when not given).
  std::string bundle;
};

/// The AppStream data could not be read: what() names the file, the line and libxml2's reason.
class AppStreamError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a catalogue (<components>, plain or gzip-compressed, as
/// Installation::updateAppStream returns it). Components without an ID are skipped. Throws
/// AppStreamError. Reentrant: different threads may read at once.
[[nodiscard]] std::vector<AppStreamComponent> readAppStream(const std::filesystem::path& xml);

}  // namespace corvane::flatpak
