#include "Catalog.hpp"

#include "DaemonCalls.hpp"
#include "UsageError.hpp"

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <variant>

namespace cvnctl {

std::vector<corvane::ManagedApp> currentCatalog(std::chrono::milliseconds timeout) {
  checkDaemon(timeout);
  auto apps = corvane::ManagedAppLibrary::shared().managedApps();
  auto first = apps.next(boost::asio::use_future);
  if (first.wait_for(timeout) != std::future_status::ready) {
    apps.cancel();
    throw corvane::Error(
        corvane::CorvaneError::unrecoverableError,
        fmt::format("corvaned sent no catalogue within {}", describeDuration(timeout)));
  }
  auto result = first.get();
  if (!result) {
    throw corvane::Error(corvane::CorvaneError::unrecoverableError,
                         "the catalogue stream ended before a catalogue arrived");
  }
  if (const auto* error = std::get_if<corvane::CorvaneError>(&*result))
    throw corvane::Error(*error);
  return std::get<std::vector<corvane::ManagedApp>>(std::move(*result));
}

corvane::ManagedApp catalogApp(const std::string& declarationIdentifier,
                               std::chrono::milliseconds timeout) {
  auto apps = currentCatalog(timeout);
  const auto found = std::find_if(apps.begin(), apps.end(), [&](const corvane::ManagedApp& app) {
    return app.declarationIdentifier() == declarationIdentifier;
  });
  if (found == apps.end()) {
    throw UsageError(
        fmt::format("no catalogue app has the declaration identifier \"{}\" (see cvnctl catalog)",
                    declarationIdentifier));
  }
  return *found;
}

}  // namespace cvnctl
