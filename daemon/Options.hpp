#pragma once

#include <corvane/coding/CorvaneError.hpp>
#include <corvane/model/ManagedAppStatus.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace corvane::sim {

/// What installs the apps.
enum class EngineKind {
  /// Nothing is installed: each install moves a step per tick (the default, for demos and tests).
  simulated,
  /// Flatpak apps from the installation's remotes, through libflatpak.
  flatpak,
};

/// What the daemon was started with.
struct Options {
  EngineKind engine = EngineKind::simulated;
  /// The Flatpak installation: empty = the system installation.
  std::filesystem::path installation;
  /// Remotes the Flatpak installation is given when it lacks them: name to URL.
  std::map<std::string, std::string, std::less<>> remotes;
  /// Installs that run at once.
  std::size_t parallelInstalls = 2;
  /// Where the socket goes; empty = $CORVANE_RUNTIME_DIR, else the system directory.
  std::filesystem::path runtimeDirectory;
  /// The SQLite database; empty = state kept in memory.
  std::filesystem::path stateFile;
  /// A JSON list of catalogue records; empty = the built-in sample.
  std::filesystem::path catalogFile;
  /// One step of the install engine.
  std::chrono::milliseconds tick{200};
  /// Operations (full selector names) answered with a failure instead of being performed.
  std::map<std::string, CorvaneError, std::less<>> failures;
  /// Apps (bundle identifiers) whose install fails on purpose, with the reason.
  std::map<std::string, ManagedAppStatus::Reason, std::less<>> installFailures;
  /// Pause before every reply.
  std::chrono::milliseconds delay{0};
  /// Abort when a call arrives after this many replies.
  std::optional<std::uint64_t> crashAfter;
  /// Members of this group may change state as well as root and the daemon's own user.
  std::optional<std::string> allowGroup;
  /// Mirror the log to standard error.
  bool verbose = false;
  /// Under socket activation: exit after this long with no client and no install.
  std::optional<std::chrono::seconds> idleExit;
  /// Client connections open at once, in all and from one user (uid).
  std::size_t maxConnections = 1024;
  std::size_t maxConnectionsPerUser = 256;
  /// Bytes of partly received frames all clients may have together.
  std::size_t receiveBudgetBytes = std::size_t{64} * 1024 * 1024;
};

/// Parses the command line. Returns the options, or the exit status when the process should stop
/// at once (0 after --help, 2 after a usage error, with the message already printed).
[[nodiscard]] std::variant<Options, int> parseOptions(int argc, const char* const* argv);

}  // namespace corvane::sim
