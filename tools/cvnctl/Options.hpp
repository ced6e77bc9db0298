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
  /// How long a one-shot request, or the first value of a stream, may take.
  std::chrono::milliseconds timeout{std::chrono::seconds(15)};

  // Subcommand arguments; each command reads the ones it declares.
  std::optional<std::string> declarationKey;         ///< status
  std::string file;                                  ///< add (a path, or "-" for stdin)
  std::optional<std::string> declarationIdentifier;  ///< remove, install, cancel
  std::string bundleID;                              ///< launch, state
  std::string manifestURL;                           ///< enterprise-install
  VppOptions vpp;                                    ///< vpp-install
  bool wait = false;                                 ///< add, install
  bool watch = false;                                ///< catalog, state
};

}  // namespace cvnctl
