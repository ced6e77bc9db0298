#include "Catalog.hpp"

#include "DaemonCalls.hpp"
#include "Problems.hpp"

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <variant>

namespace cvnctl {

std::vector<corvane::ManagedApp> currentCatalog(const Options& options) {
  checkDaemon(options);
  auto apps = corvane::ManagedAppLibrary::shared().managedApps();
  auto result = awaitFirst<corvane::CatalogResult>(apps, options, "no catalogue");
  if (!result) {
    throw corvane::Error(corvane::CorvaneError::unrecoverableError,
                         "the catalogue stream ended before a catalogue arrived");
  }
  if (const auto* error = std::get_if<corvane::CorvaneError>(&*result))
    throw corvane::Error(*error);
  return std::get<std::vector<corvane::ManagedApp>>(std::move(*result));
}

corvane::ManagedApp catalogApp(const std::string& declarationIdentifier, const Options& options) {
  auto apps = currentCatalog(options);
  const auto found = std::find_if(apps.begin(), apps.end(), [&](const corvane::ManagedApp& app) {
    return app.declarationIdentifier() == declarationIdentifier;
  });
  if (found == apps.end()) {
    throw notFound(
        fmt::format("no catalogue app has the declaration identifier \"{}\" (see cvnctl catalog)",
                    declarationIdentifier));
  }
  return *found;
}

}  // namespace cvnctl
