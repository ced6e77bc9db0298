#include "Options.hpp"

#include <corvane/coding/RawValue.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <filesystem>
#include <map>
#include <vector>

namespace corvane::sim {

namespace {

// "getDeclarationStatus" or "getDeclarationStatus:reply:" -> the selector of the operation.
std::optional<std::string> selectorNamed(std::string_view name) {
  for (const auto& operation : ServiceProtocol::operations) {
    const std::string_view selector = operation.name;
    if (selector == name) return std::string(selector);
    const auto colon = selector.find(':');
    std::string_view shortName = selector.substr(0, colon);
    if (shortName.ends_with("WithReply"))
      shortName.remove_suffix(std::string_view("WithReply").size());
    if (shortName == name) return std::string(selector);
  }
  return std::nullopt;
}

std::pair<std::string, std::string> splitAssignment(const std::string& text,
                                                    std::string_view option) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == text.size())
    throw CLI::ValidationError(std::string(option), "expected NAME=VALUE, got '" + text + "'");
  return {text.substr(0, equals), text.substr(equals + 1)};
}

}  // namespace

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
  Options options;
  const std::string program =
      argc > 0 ? std::filesystem::path(argv[0]).filename().string() : "corvaned";
  CLI::App app(program
               + ": the Corvane daemon. Serves the agent's service protocol on "
                 "<runtime dir>/dev.corvane.corvaneagent and installs apps with the simulated "
                 "engine (the default) or the Flatpak engine.",
               program);
  app.add_option("--engine", options.engine, "What installs the apps: simulated or flatpak")
      ->transform(CLI::CheckedTransformer(std::map<std::string, EngineKind>{
          {"simulated", EngineKind::simulated}, {"flatpak", EngineKind::flatpak}}));
  app.add_option("--installation", options.installation,
                 "Flatpak engine: a private installation directory (default: the system "
                 "installation)");
  std::vector<std::string> remotes;
  app.add_option("--remote", remotes,
                 "Flatpak engine: NAME=URL, a remote (without GPG verification) added to the "
                 "installation when it has none of that name");
  app.add_option("--parallel", options.parallelInstalls, "Installs that run at once")
      ->check(CLI::Range(1, 16));
  app.add_option("--runtime-dir", options.runtimeDirectory,
                 "Directory of the socket (default: $CORVANE_RUNTIME_DIR, else /run/corvane)");
  app.add_option("--state", options.stateFile,
                 "SQLite database of the daemon's state (default: kept in memory)");
  app.add_option("--catalog", options.catalogFile,
                 "JSON list of catalogue records (default: the built-in sample)")
      ->check(CLI::ExistingFile);
  std::int64_t tickMs = options.tick.count();
  app.add_option("--tick-ms", tickMs, "Milliseconds per step of the install engine")
      ->check(CLI::Range(1, 3'600'000));
  std::vector<std::string> fails;
  app.add_option("--fail", fails,
                 "OPERATION=ERROR: answer OPERATION with a failure (unrecoverableError, "
                 "networkError, deviceNotManaged, unsupportedPlatform)");
  std::vector<std::string> installFails;
  app.add_option("--fail-install", installFails,
                 "BUNDLE_ID=REASON: make that app's install fail with REASON "
                 "(e.g. downloadFailed, installFailed)");
  std::int64_t delayMs = 0;
  app.add_option("--delay-ms", delayMs, "Milliseconds to wait before every reply")
      ->check(CLI::Range(0, 600'000));
  std::uint64_t crashAfter = 0;
  auto* crash =
      app.add_option("--crash-after", crashAfter, "Abort when a call arrives after N replies");
  std::string group;
  auto* allow =
      app.add_option("--allow-group", group,
                     "Members of GROUP may change state (besides root and the daemon's user)");
  app.add_flag("--verbose", options.verbose, "Mirror the log to standard error");
  std::int64_t idleSeconds = 0;
  auto* idle = app.add_option("--idle-exit", idleSeconds,
                              "Under socket activation, exit after SECONDS with nothing to do")
                   ->check(CLI::Range(1, 86'400));
  app.add_option("--max-connections", options.maxConnections,
                 "Client connections open at once; more are refused")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--max-connections-per-user", options.maxConnectionsPerUser,
                 "Client connections open at once from one user (uid); more are refused")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000'000));
  std::size_t budgetMiB = options.receiveBudgetBytes / (std::size_t{1024} * 1024);
  app.add_option("--receive-budget-mib", budgetMiB,
                 "MiB of partly received frames all clients may have together")
      ->capture_default_str()
      ->check(CLI::Range(1, 4096));

  try {
    app.parse(argc, argv);
    for (const auto& text : fails) {
      const auto [name, value] = splitAssignment(text, "--fail");
      const auto selector = selectorNamed(name);
      if (!selector) throw CLI::ValidationError("--fail", "unknown operation '" + name + "'");
      const auto error = coding::fromCaseName<CorvaneError>(value);
      if (!error) throw CLI::ValidationError("--fail", "unknown error '" + value + "'");
      options.failures[*selector] = *error;
    }
    for (const auto& text : remotes) {
      const auto [remote, url] = splitAssignment(text, "--remote");
      options.remotes[remote] = url;
    }
    for (const auto& text : installFails) {
      const auto [bundleID, value] = splitAssignment(text, "--fail-install");
      const auto reason = coding::fromCaseName<ManagedAppStatus::Reason>(value);
      if (!reason) throw CLI::ValidationError("--fail-install", "unknown reason '" + value + "'");
      options.installFailures[bundleID] = *reason;
    }
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : 2;
  }
  options.tick = std::chrono::milliseconds(tickMs);
  options.delay = std::chrono::milliseconds(delayMs);
  if (crash->count() > 0) options.crashAfter = crashAfter;
  if (allow->count() > 0) options.allowGroup = group;
  if (idle->count() > 0) options.idleExit = std::chrono::seconds(idleSeconds);
  options.receiveBudgetBytes = budgetMiB * 1024 * 1024;
  return options;
}

}  // namespace corvane::sim
