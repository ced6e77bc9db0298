#pragma once

#include "Options.hpp"

#include <corvane/model/ManagedApp.hpp>

#include <string>
#include <vector>

namespace cvnctl {

/// The catalogue as the daemon pushes it now: the first value of
/// `ManagedAppLibrary::shared().managedApps()`. Throws `corvane::Error` for a catalogue the
/// daemon could not make, a timeout `Problem` when none arrives in time.
[[nodiscard]] std::vector<corvane::ManagedApp> currentCatalog(const Options& options);

/// The entry of the current catalogue that carries `declarationIdentifier`. Throws a not-found
/// `Problem` when there is none.
[[nodiscard]] corvane::ManagedApp catalogApp(const std::string& declarationIdentifier,
                                             const Options& options);

}  // namespace cvnctl
