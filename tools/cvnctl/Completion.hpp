#pragma once

#include <string>

namespace cvnctl {

/// What the hidden `__complete` command lists for the shell's completion script.
enum class CompletionList { declarations, keys, bundles };

/// Prints the names of `list` the daemon knows now, one a line, sorted and without repeats.
/// Completion must never stand in the user's way: a daemon that is missing, refuses or answers
/// later than a short bound prints nothing, and this never throws.
void printCompletions(CompletionList list) noexcept;

}  // namespace cvnctl
