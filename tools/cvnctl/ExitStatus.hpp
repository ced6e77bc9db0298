#pragma once

namespace cvnctl {

/// cvnctl's exit statuses, as `cvnctl --help` and the manual page list them.
enum class ExitStatus : int {
  success = 0,  ///< done (a watch ended by Ctrl-C included)
  failure = 1,  ///< the library or the daemon reported an error, or a waited-for app failed
  usage = 2,    ///< a bad command line, file or number
};

[[nodiscard]] constexpr int toInt(ExitStatus status) noexcept {
  return static_cast<int>(status);
}

}  // namespace cvnctl
