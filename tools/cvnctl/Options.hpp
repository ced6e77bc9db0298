#pragma once

// What the command line asked for: the subcommand, its arguments and the global options.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace cvnctl {

/// One subcommand per library operation, plus the observation commands.
enum class Command {
  keys,
  status,
  add,
  remove,
  resetHistory,
  poll,
  vppInstall,
  enterpriseInstall,
  launch,
  install,
  cancel,
  catalog,
  progress,
  state,
  /// The hidden `__complete`: names for the shell's completion script.
  complete,
};

/// The arguments of `vpp-install`.
struct VppOptions {
  std::optional<std::int64_t> itemID;
  std::optional<std::string> bundleID;
  std::int64_t type = 1;
  std::optional<std::uint64_t> account;
  std::optional<std::int64_t> evid;
};

struct Options {
  Command command = Command::keys;

  // Global options.
  bool json = false;
  bool sync = false;
  bool verbose = false;
  std::optional<std::string> runtimeDirectory;
  /// --timeout: how long the whole command may take, waits included; without it each answer
  /// may take 15 s and a --wait is unbounded.
  std::optional<std::chrono::milliseconds> timeout;
  /// When --timeout runs out, counted from the parse of the command line.
  std::optional<std::chrono::steady_clock::time_point> deadline;

  // Subcommand arguments; each command reads the ones it declares.
  std::optional<std::string> declarationKey;         ///< status
  std::string file;                                  ///< add (a path, or "-" for stdin)
  std::optional<std::string> declarationIdentifier;  ///< remove, install, cancel
  std::string bundleID;                              ///< launch, state
  std::string manifestURL;                           ///< enterprise-install
  VppOptions vpp;                                    ///< vpp-install
  bool wait = false;                                 ///< add, install
  std::string completionList;                        ///< __complete
  bool watch = false;                                ///< catalog, state
  /// catalog --watch, state --watch, progress, add --wait, install --wait: wait for a daemon
  /// that went away to come back instead of ending.
  bool follow = false;
};

}  // namespace cvnctl
