#include "Catalog.hpp"

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/TetherDecoder.hpp>

#include <fmt/format.h>

#include <fstream>
#include <sstream>

namespace corvane::sim {

Catalog Catalog::sample() {
  return parse(sampleDocument(), "the built-in catalogue");
}

Catalog Catalog::load(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw CatalogError(fmt::format("{}: cannot read the catalogue file", file.native()));
  std::ostringstream text;
  text << in.rdbuf();
  return parse(text.str(), file.native());
}

Catalog Catalog::parse(std::string_view document, std::string_view origin) {
  Catalog catalog;
  try {
    const boost::json::value parsed = coding::parseDocument(document);
    catalog.apps_ = coding::decode<std::vector<ManagedApp>>(parsed);
    for (const auto& entry : parsed.as_array()) catalog.documents_.push_back(entry.as_object());
  } catch (const CodingError& error) {
    throw CatalogError(
        fmt::format("{}: the catalogue does not decode at {}: {} ({})", origin,
                    error.codingPath().empty() ? "the top level" : error.codingPath(),
                    error.description(), toString(error.kind())));
  }
  return catalog;
}

const ManagedApp* Catalog::find(const StoreAppIdentifier& identifier) const {
  if (const auto item = identifier.itemIdentifier()) {
    for (const auto& app : apps_)
      if (app.itemID() == *item) return &app;
    return nullptr;
  }
  return findBundle(identifier.bundleIdentifier().value_or(std::string()));
}

const ManagedApp* Catalog::findBundle(std::string_view bundleID) const {
  for (const auto& app : apps_)
    if (app.bundleID() == bundleID) return &app;
  return nullptr;
}

std::optional<ManagedApp> Catalog::entryFor(std::string_view bundleID,
                                            std::string_view declarationIdentifier) const {
  for (std::size_t i = 0; i < apps_.size(); ++i) {
    if (apps_[i].bundleID() != bundleID) continue;
    boost::json::object document = documents_[i];
    document["declarationIdentifier"] = declarationIdentifier;
    return coding::decode<ManagedApp>(document);
  }
  return std::nullopt;
}

}  // namespace corvane::sim
