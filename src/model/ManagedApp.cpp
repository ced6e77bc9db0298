#include <corvane/model/ManagedApp.hpp>
#include <corvane/platform/DeviceInfo.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace corvane {
namespace {

// The screen's pixels per point, asked afresh on every call; 1.0 when the device cannot say.
double screenScale() {
  return platform::DeviceInfo::screenScale().value_or(1.0);
}

// P(x) capped at `maximum`: points times scale rounded away from zero. Empty when the product is
// not finite or its rounded value does not lie strictly within the 64-bit signed range, so that
// the conversion below is always defined.
std::optional<std::int64_t> pixels(double points, double scale, std::int64_t maximum) {
  const double product = points * scale;
  if (!std::isfinite(product)) return std::nullopt;
  const double rounded = product >= 0 ? std::ceil(product) : std::floor(product);
  constexpr double bound = 9223372036854775808.0;  // 2^63
  if (!(rounded < bound && rounded > -bound)) return std::nullopt;
  return std::min(static_cast<std::int64_t>(rounded), maximum);
}

}  // namespace

std::optional<boost::urls::url> ManagedApp::Artwork::url(Size size, std::string_view crop,
                                                         std::string_view format) const {
  const auto filled = fill(size, crop, format);
  if (!filled) return std::nullopt;
  return coding::parseUrl(*filled);
}

std::optional<std::string> ManagedApp::Artwork::fill(Size size, std::string_view crop,
                                                     std::string_view format) const {
  const double scale = screenScale();
  const auto width = pixels(size.width, scale, maxWidth);
  const auto height = pixels(size.height, scale, maxHeight);
  if (!width || !height) return std::nullopt;

  // Replaces every "{w}", "{h}", "{c}" and "{f}" scanning left to right; any other brace
  // sequence stays as written (the pattern is exactly a brace, one of the four letters, a brace).
  std::string filled;
  filled.reserve(urlTemplate.size() + 16);
  for (std::size_t i = 0; i < urlTemplate.size();) {
    if (urlTemplate[i] == '{' && i + 2 < urlTemplate.size() && urlTemplate[i + 2] == '}') {
      switch (urlTemplate[i + 1]) {
        case 'w':
          filled += fmt::format("{}", *width);
          i += 3;
          continue;
        case 'h':
          filled += fmt::format("{}", *height);
          i += 3;
          continue;
        case 'c':
          filled += crop;
          i += 3;
          continue;
        case 'f':
          filled += format;
          i += 3;
          continue;
        default:
          break;
      }
    }
    filled += urlTemplate[i];
    ++i;
  }
  return filled;
}

ManagedApp::ManagedApp(
    std::string declarationIdentifier, std::string bundleID, std::optional<std::int64_t> itemID,
    std::optional<std::int64_t> externalVersionID, Platform platform,
    std::optional<InformationStorage> fileSize, std::optional<LanguageIdentifier> metadataLanguage,
    std::string name, std::optional<std::string> subtitle, std::optional<std::string> seller,
    std::vector<std::string> genres, std::optional<std::string> description,
    std::vector<LanguageIdentifier> languages, std::optional<std::string> requirements,
    std::optional<std::string> version, std::optional<TimePoint> releaseDate,
    std::optional<std::string> releaseNotes, std::optional<Artwork> icon,
    std::optional<boost::urls::url> iconURL, std::vector<Artwork> screenshots,
    std::optional<std::string> contentRating, std::optional<boost::urls::url> developerWebsite,
    std::optional<boost::urls::url> privacyPolicy, bool hasLicenseAgreement,
    std::optional<std::string> copyright, std::optional<std::string> buyParams)
    : stored_{std::move(declarationIdentifier),
              std::move(bundleID),
              itemID,
              externalVersionID,
              platform,
              fileSize,
              std::move(metadataLanguage),
              std::move(name),
              std::move(subtitle),
              std::move(seller),
              std::move(genres),
              std::move(description),
              std::move(languages),
              std::move(requirements),
              std::move(version),
              releaseDate,
              std::move(releaseNotes),
              std::move(icon),
              std::move(iconURL),
              std::move(screenshots),
              std::move(contentRating),
              std::move(developerWebsite),
              std::move(privacyPolicy),
              hasLicenseAgreement,
              std::move(copyright),
              std::move(buyParams)} {}

std::optional<boost::urls::url> ManagedApp::resolvedIconURL(Size size) const {
  if (stored_.icon) {
    if (auto url = stored_.icon->url(size, "wd", "png")) return url;
  }
  return stored_.iconURL;
}

std::vector<boost::urls::url> ManagedApp::screenshotURLs(Size size) const {
  std::vector<boost::urls::url> urls;
  for (const Artwork& screenshot : stored_.screenshots) {
    if (auto url = screenshot.url(size, "bb", "png")) urls.push_back(std::move(*url));
  }
  return urls;
}

std::optional<boost::urls::url> ManagedApp::licenseAgreementURL() const {
  if (!stored_.hasLicenseAgreement || !stored_.itemID) return std::nullopt;
  return coding::parseUrl(fmt::format("{}{}", licenseAgreementBaseURL, *stored_.itemID));
}

}  // namespace corvane
