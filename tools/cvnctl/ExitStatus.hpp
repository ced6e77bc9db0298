#pragma once

namespace cvnctl {

/// cvnctl's exit statuses, the same for every command, as `cvnctl --help`, the manual page and
/// docs/cvnctl.md list them. Scripts test for these numbers: never renumber one.
enum class ExitStatus : int {
  success = 0,        ///< done (a watch ended by Ctrl-C included)
  failure = 1,        ///< the daemon reported an error, or a waited-for app failed
  usage = 2,          ///< a bad command line, file or number
  notFound = 3,       ///< an unknown declaration, declaration key or bundle identifier
  unavailable = 4,    ///< corvaned is not running, cannot be reached, or went away
  timedOut = 5,       ///< --timeout (or the 15 s answer bound) passed first
  notInstalled = 6,   ///< a waited-for app was cancelled, removed or set back to optional
  interrupted = 130,  ///< SIGINT while a command waited
  terminated = 143,   ///< SIGTERM while a command waited or watched
};

[[nodiscard]] constexpr int toInt(ExitStatus status) noexcept {
  return static_cast<int>(status);
}

/// The status for a signal that ended a command: 128 + its number, as a shell reports it.
[[nodiscard]] ExitStatus signalStatus(int signal) noexcept;

}  // namespace cvnctl
