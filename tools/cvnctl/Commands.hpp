#pragma once

#include "ExitStatus.hpp"
#include "Options.hpp"
#include "Output.hpp"

namespace cvnctl {

/// Runs the subcommand of `options`, writing its results to `output`. Returns the exit status of
/// a command that finished; throws for a failure (`corvane::Error`, `UsageError`, ...), which
/// the caller reports.
[[nodiscard]] ExitStatus runCommand(const Options& options, Output& output);

/// The commands that follow pushed values (catalog, progress, state), in WatchCommands.cpp.
[[nodiscard]] ExitStatus runCatalog(const Options& options, Output& output);
[[nodiscard]] ExitStatus runProgress(const Options& options, Output& output);
[[nodiscard]] ExitStatus runState(const Options& options, Output& output);

}  // namespace cvnctl
