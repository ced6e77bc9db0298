#pragma once

#include <corvane/coding/ServiceSignature.hpp>
#include <corvane/coding/StoredCoding.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/model/Platform.hpp>

#include <boost/describe/class.hpp>
#include <boost/url/url.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

template <class T>
class AsyncStream;
class AppState;

/// The base address of the store's licence-agreement page; an item's page is this address
/// followed by its item number.
inline constexpr std::string_view licenseAgreementBaseURL =
    "https://apps.corvane.dev/legal/licence-agreements/view.html?cc=us&id=";
static_assert(licenseAgreementBaseURL.size() == 69
              && licenseAgreementBaseURL.ends_with("cc=us&id="));

/// One entry of the catalogue of managed apps, identified by its bundle identifier. Its fields
/// are fixed once constructed. The artwork and the licence flag are reached only through the
/// derived addresses (`resolvedIconURL`, `screenshotURLs`, `licenseAgreementURL`).
class ManagedApp {
 public:
  /// The same platform type as the top-level `corvane::Platform`.
  using Platform = corvane::Platform;

  /// A requested image size in points.
  struct Size {
    double width = 0;
    double height = 0;
  };

  /// One image that the store renders at many sizes from an address template holding the
  /// placeholders {w}, {h}, {c} and {f}.
  struct Artwork {
    std::string urlTemplate;
    std::int64_t maxWidth = 0;
    std::int64_t maxHeight = 0;

    /// The template filled for `size` on this screen: {w}/{h} become the size in pixels (points
    /// times the screen scale, rounded away from zero, capped at maxWidth/maxHeight), {c} the
    /// crop code and {f} the format, verbatim. Empty when the filled text is not an absolute
    /// URL or a pixel size is not finite or outside the 64-bit range. Never throws for those;
    /// throws std::bad_alloc only.
    [[nodiscard]] std::optional<boost::urls::url> url(Size size, std::string_view crop,
                                                      std::string_view format) const;
    /// The filled template text that `url` parses; empty only when a pixel size is unusable.
    [[nodiscard]] std::optional<std::string> fill(Size size, std::string_view crop,
                                                  std::string_view format) const;

    BOOST_DESCRIBE_CLASS(Artwork, (), (urlTemplate, maxWidth, maxHeight), (), ())
  };

  /// Builds an entry from its 26 fields, in coding order.
  ManagedApp(std::string declarationIdentifier, std::string bundleID,
             std::optional<std::int64_t> itemID, std::optional<std::int64_t> externalVersionID,
             Platform platform, std::optional<InformationStorage> fileSize,
             std::optional<LanguageIdentifier> metadataLanguage, std::string name,
             std::optional<std::string> subtitle, std::optional<std::string> seller,
             std::vector<std::string> genres, std::optional<std::string> description,
             std::vector<LanguageIdentifier> languages, std::optional<std::string> requirements,
             std::optional<std::string> version, std::optional<TimePoint> releaseDate,
             std::optional<std::string> releaseNotes, std::optional<Artwork> icon,
             std::optional<boost::urls::url> iconURL, std::vector<Artwork> screenshots,
             std::optional<std::string> contentRating,
             std::optional<boost::urls::url> developerWebsite,
             std::optional<boost::urls::url> privacyPolicy, bool hasLicenseAgreement,
             std::optional<std::string> copyright, std::optional<std::string> buyParams);

  /// The entry's identity: its bundle identifier.
  [[nodiscard]] const std::string& id() const noexcept { return stored_.bundleID; }
  [[nodiscard]] const std::string& bundleID() const noexcept { return stored_.bundleID; }
  [[nodiscard]] const std::string& declarationIdentifier() const noexcept {
    return stored_.declarationIdentifier;
  }
  [[nodiscard]] const std::optional<std::int64_t>& itemID() const noexcept {
    return stored_.itemID;
  }
  [[nodiscard]] const std::optional<std::int64_t>& externalVersionID() const noexcept {
    return stored_.externalVersionID;
  }
  [[nodiscard]] Platform platform() const noexcept { return stored_.platform; }
  [[nodiscard]] const std::optional<InformationStorage>& fileSize() const noexcept {
    return stored_.fileSize;
  }
  [[nodiscard]] const std::optional<LanguageIdentifier>& metadataLanguage() const noexcept {
    return stored_.metadataLanguage;
  }
  [[nodiscard]] const std::string& name() const noexcept { return stored_.name; }
  [[nodiscard]] const std::optional<std::string>& subtitle() const noexcept {
    return stored_.subtitle;
  }
  [[nodiscard]] const std::optional<std::string>& seller() const noexcept { return stored_.seller; }
  [[nodiscard]] const std::vector<std::string>& genres() const noexcept { return stored_.genres; }
  /// The store's description of the app (the entry has no text form of its own).
  [[nodiscard]] const std::optional<std::string>& description() const noexcept {
    return stored_.description;
  }
  [[nodiscard]] const std::vector<LanguageIdentifier>& languages() const noexcept {
    return stored_.languages;
  }
  [[nodiscard]] const std::optional<std::string>& requirements() const noexcept {
    return stored_.requirements;
  }
  [[nodiscard]] const std::optional<std::string>& version() const noexcept {
    return stored_.version;
  }
  [[nodiscard]] const std::optional<TimePoint>& releaseDate() const noexcept {
    return stored_.releaseDate;
  }
  [[nodiscard]] const std::optional<std::string>& releaseNotes() const noexcept {
    return stored_.releaseNotes;
  }
  [[nodiscard]] const std::optional<std::string>& contentRating() const noexcept {
    return stored_.contentRating;
  }
  [[nodiscard]] const std::optional<boost::urls::url>& developerWebsite() const noexcept {
    return stored_.developerWebsite;
  }
  [[nodiscard]] const std::optional<boost::urls::url>& privacyPolicy() const noexcept {
    return stored_.privacyPolicy;
  }
  [[nodiscard]] const std::optional<std::string>& copyright() const noexcept {
    return stored_.copyright;
  }
  /// The opaque purchase parameters, handed back in an install request.
  [[nodiscard]] const std::optional<std::string>& buyParams() const noexcept {
    return stored_.buyParams;
  }

  /// The icon's address for `size` (crop "wd", format "png"); the stored icon address when there
  /// is no icon artwork or its filled template is unusable; empty when neither gives one.
  [[nodiscard]] std::optional<boost::urls::url> resolvedIconURL(Size size) const;
  /// The screenshots' addresses for `size` (crop "bb", format "png"), in display order; a
  /// screenshot whose address is unusable is left out.
  [[nodiscard]] std::vector<boost::urls::url> screenshotURLs(Size size) const;
  /// The store's licence-agreement page for this item; empty without a licence agreement or an
  /// item number.
  [[nodiscard]] std::optional<boost::urls::url> licenseAgreementURL() const;

  /// Asks the daemon to launch this app: an `AppLaunchRequest` for its `bundleID`, performed.
  /// Completion: `void(std::exception_ptr)` through any Asio completion token (see
  /// `AppLaunchRequest::perform`). Defined in <corvane/service/RequestOperations.hpp>.
  template <ServiceToken<None> CompletionToken>
  auto launch(CompletionToken&& token) const;

  /// The installation state of this app as the daemon pushes it, starting with the cached state
  /// if there is one; every value kept. Ending the stream removes its listener and may withdraw
  /// the registration. Defined with the push layer (<corvane/push/ListenerStreams.hpp>).
  [[nodiscard]] AsyncStream<AppState> stateUpdates() const;

 private:
  friend struct coding::StoredCoding<ManagedApp>;

  struct Stored {
    std::string declarationIdentifier;
    std::string bundleID;
    std::optional<std::int64_t> itemID;
    std::optional<std::int64_t> externalVersionID;
    Platform platform;
    std::optional<InformationStorage> fileSize;
    std::optional<LanguageIdentifier> metadataLanguage;
    std::string name;
    std::optional<std::string> subtitle;
    std::optional<std::string> seller;
    std::vector<std::string> genres;
    std::optional<std::string> description;
    std::vector<LanguageIdentifier> languages;
    std::optional<std::string> requirements;
    std::optional<std::string> version;
    std::optional<TimePoint> releaseDate;
    std::optional<std::string> releaseNotes;
    std::optional<Artwork> icon;
    std::optional<boost::urls::url> iconURL;
    std::vector<Artwork> screenshots;
    std::optional<std::string> contentRating;
    std::optional<boost::urls::url> developerWebsite;
    std::optional<boost::urls::url> privacyPolicy;
    bool hasLicenseAgreement = false;
    std::optional<std::string> copyright;
    std::optional<std::string> buyParams;

    BOOST_DESCRIBE_CLASS(Stored, (),
                         (declarationIdentifier, bundleID, itemID, externalVersionID, platform,
                          fileSize, metadataLanguage, name, subtitle, seller, genres, description,
                          languages, requirements, version, releaseDate, releaseNotes, icon,
                          iconURL, screenshots, contentRating, developerWebsite, privacyPolicy,
                          hasLicenseAgreement, copyright, buyParams),
                         (), ())
  };

  explicit ManagedApp(Stored stored) noexcept : stored_(std::move(stored)) {}

  Stored stored_;
};

namespace coding {
/// A catalogue entry is coded as the keyed record of its 26 fields.
template <>
struct Coding<ManagedApp> : StoredCoding<ManagedApp> {};
}  // namespace coding

}  // namespace corvane
