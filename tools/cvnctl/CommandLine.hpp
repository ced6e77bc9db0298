#pragma once

#include "Options.hpp"

#include <optional>

namespace cvnctl {

/// Parses the command line. Returns the options to run, or nothing when the command line only
/// asked for help or the version (already printed). Throws `UsageError` for anything CLI11
/// refuses and for combinations it cannot check (vpp-install without --item or --bundle, ...).
[[nodiscard]] std::optional<Options> parseCommandLine(int argc, char** argv);

/// Whether `--json` appears among the arguments, for reporting a command line that did not
/// parse in the form the caller asked for.
[[nodiscard]] bool asksForJson(int argc, char** argv) noexcept;

}  // namespace cvnctl
