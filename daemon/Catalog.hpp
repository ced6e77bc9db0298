#pragma once

#include <corvane/model/ManagedApp.hpp>
#include <corvane/requests/StoreAppIdentifier.hpp>

#include <boost/json/object.hpp>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// A catalogue file that cannot be used; the message names the file and, for a document that
/// does not decode, the coding path.
class CatalogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The apps the simulated store knows: what a declaration or install request can name, by item
/// identifier or bundle identifier. Entries are catalogue records in their wire form; the
/// catalogue published to clients is made from them, one per declared app, carrying that
/// declaration's identifier. Immutable once made; safe to share between threads.
class Catalog {
 public:
  /// The built-in sample of a dozen apps.
  [[nodiscard]] static Catalog sample();
  /// Reads a JSON list of catalogue records. Throws CatalogError when the file cannot be read or
  /// does not decode.
  [[nodiscard]] static Catalog load(const std::filesystem::path& file);
  /// Decodes `document`, a JSON list of catalogue records; `origin` names it in errors.
  [[nodiscard]] static Catalog parse(std::string_view document, std::string_view origin);

  /// The entry `identifier` names: by item identifier, or by bundle identifier.
  [[nodiscard]] const ManagedApp* find(const StoreAppIdentifier& identifier) const;
  [[nodiscard]] const ManagedApp* findBundle(std::string_view bundleID) const;
  [[nodiscard]] const std::vector<ManagedApp>& apps() const noexcept { return apps_; }

  /// The entry of `bundleID` as published for the declaration `declarationIdentifier`.
  [[nodiscard]] std::optional<ManagedApp> entryFor(std::string_view bundleID,
                                                   std::string_view declarationIdentifier) const;

 private:
  static std::string_view sampleDocument() noexcept;

  std::vector<ManagedApp> apps_;
  std::vector<boost::json::object> documents_;  // the same entries, coded
};

}  // namespace corvane::sim
