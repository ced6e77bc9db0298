#pragma once

#include <corvane/model/ManagedApp.hpp>

#include <chrono>
#include <string>
#include <vector>

namespace cvnctl {

/// The catalogue as the daemon pushes it now: the first value of
/// `ManagedAppLibrary::shared().managedApps()`. Throws `corvane::Error` for a catalogue the
/// daemon could not make, or when none arrives within `timeout`.
[[nodiscard]] std::vector<corvane::ManagedApp> currentCatalog(std::chrono::milliseconds timeout);

/// The entry of the current catalogue that carries `declarationIdentifier`. Throws `UsageError`
/// when there is none.
[[nodiscard]] corvane::ManagedApp catalogApp(const std::string& declarationIdentifier,
                                             std::chrono::milliseconds timeout);

}  // namespace cvnctl
