#pragma once

#include "Options.hpp"

namespace cvnctl {

/// Prepares the process before the library's first use: the runtime directory
/// (`--runtime-dir` becomes CORVANE_RUNTIME_DIR), the language of messages, and the library's
/// log level (faults only, unless --verbose or CORVANE_LOG_LEVEL says otherwise).
void prepareEnvironment(const Options& options);

}  // namespace cvnctl
