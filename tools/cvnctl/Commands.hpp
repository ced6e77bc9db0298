#pragma once

#include "ExitStatus.hpp"
#include "Options.hpp"
#include "Output.hpp"
#include "Problems.hpp"

#include <corvane/model/AppState.hpp>

#include <string>

namespace cvnctl {

/// Runs the subcommand of `options`, writing its results to `output`. Returns the exit status of
/// a command that finished; throws for a failure (`corvane::Error`, `UsageError`, ...), which
/// the caller reports.
[[nodiscard]] ExitStatus runCommand(const Options& options, Output& output);

/// The commands that follow pushed values (catalog, progress, state), in WatchCommands.cpp.
[[nodiscard]] ExitStatus runCatalog(const Options& options, Output& output);
[[nodiscard]] ExitStatus runProgress(const Options& options, Output& output);
[[nodiscard]] ExitStatus runState(const Options& options, Output& output);

/// The state corvaned reports for `bundleID` now. Throws a not-found `Problem` at once when the
/// daemon knows no such app (it then sends no state at all).
[[nodiscard]] corvane::AppState currentState(const std::string& bundleID, const Options& options);

/// The failure of a command that names a bundle identifier the daemon does not know.
[[nodiscard]] Problem unknownBundle(const std::string& bundleID);

}  // namespace cvnctl
