#include "CommandLine.hpp"

#include "UsageError.hpp"

#include <CLI/CLI.hpp>

#include <cmath>
#include <string_view>

namespace cvnctl {
namespace {

constexpr const char* exitStatusText = R"(Exit status:
  0  success (a watch ended with Ctrl-C included)
  1  the library or the daemon reported an error (its case name, description and cause are
     printed on standard error), the daemon went away during a watch, or an app waited for
     with --wait ended in the failed state
  2  usage error: a bad command line, option value, number or declaration file

Environment:
  CORVANE_RUNTIME_DIR  where the daemon's socket lives (default /run/corvane)
  CORVANE_LOG_LEVEL    the library's log level (cvnctl shows only faults unless --verbose)

With --json, standard output carries only JSON: one document per result (one per line for
watches), and an error is written to standard error as {"error", "description", "cause"}.)";

/// A positional or option whose presence is read after parsing.
template <class T>
void assignIfGiven(const CLI::Option* option, const T& value, std::optional<T>& target) {
  if (option->count() > 0) target = value;
}

}  // namespace

bool asksForJson(int argc, char** argv) noexcept {
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--") break;
    if (std::string_view(argv[i]) == "--json") return true;
  }
  return false;
}

std::optional<Options> parseCommandLine(int argc, char** argv) {
  Options options;
  CLI::App app{"cvnctl: drive the installation of managed apps through the corvane daemon."};
  app.name("cvnctl");
  app.footer(exitStatusText);
  app.set_version_flag("--version", CVNCTL_VERSION);
  app.require_subcommand(1);
  // Global options may also follow the subcommand.
  app.fallthrough();

  app.add_flag("--json", options.json,
               "Write results as JSON documents (one per line for watches) on standard output");
  app.add_flag("--sync", options.sync,
               "Use the blocking form of the request where the library offers one");
  app.add_flag("-v,--verbose", options.verbose, "Show the library's log lines on standard error");
  std::string runtimeDirectory;
  auto* runtimeOption =
      app.add_option("--runtime-dir", runtimeDirectory,
                     "Where the daemon's socket lives (default: $CORVANE_RUNTIME_DIR or "
                     "/run/corvane)");
  double timeoutSeconds = 15;
  app.add_option("--timeout", timeoutSeconds,
                 "Seconds to wait for an answer or for the first pushed value (default 15)")
      ->check(CLI::PositiveNumber);

  auto add = [&](const char* name, Command command, const char* description) {
    auto* sub = app.add_subcommand(name, description);
    sub->callback([&options, command] { options.command = command; });
    return sub;
  };

  add("keys", Command::keys, "List the current declaration keys");

  std::string declarationKey;
  auto* status = add("status", Command::status,
                     "Show the status of every declared app, or of the declaration with KEY");
  auto* keyOption =
      status->add_option("DECLARATION_KEY", declarationKey, "Only this declaration key");

  auto* addCommand = add("add", Command::add,
                         "Add or update a declaration from FILE (its coded JSON form; - for "
                         "standard input)");
  addCommand->add_option("FILE", options.file, "The declaration document, or - for stdin")
      ->required();
  addCommand->add_flag("--wait", options.wait,
                       "Wait until the declared app is managed or has failed, showing progress");

  std::string identifier;
  add("remove", Command::remove, "Remove the declaration with DECLARATION_ID")
      ->add_option("DECLARATION_ID", identifier, "The declaration identifier")
      ->required();

  add("reset-history", Command::resetHistory, "Forget the managed-app install history");
  add("poll", Command::poll, "Ask the daemon to poll the store for catalogue updates");

  auto* vpp =
      add("vpp-install", Command::vppInstall, "Send a volume-purchase request for a store app");
  std::int64_t item = 0;
  std::string bundle;
  std::uint64_t account = 0;
  std::int64_t evid = 0;
  auto* itemOption = vpp->add_option("--item", item, "The app's store item number");
  auto* bundleOption = vpp->add_option("--bundle", bundle, "The app's bundle identifier");
  itemOption->excludes(bundleOption);
  vpp->add_option("--type", options.vpp.type, "1 install, 2 update, 3 uninstall")
      ->required()
      ->check(CLI::Range(1, 3));
  auto* accountOption = vpp->add_option("--account", account, "The account identifier")
                            ->check(CLI::NonNegativeNumber);
  auto* evidOption = vpp->add_option("--evid", evid, "The external version to install");

  add("enterprise-install", Command::enterpriseInstall,
      "Install an enterprise app from its manifest")
      ->add_option("MANIFEST_URL", options.manifestURL, "The manifest's absolute URL")
      ->required();

  add("launch", Command::launch, "Ask the daemon to launch an app")
      ->add_option("BUNDLE_ID", options.bundleID, "The app's bundle identifier")
      ->required();

  auto* install = add("install", Command::install,
                      "Install the catalogue app of DECLARATION_ID, or whatever an install "
                      "without an app covers");
  auto* installIdentifier =
      install->add_option("DECLARATION_ID", identifier, "The catalogue app's declaration");
  install->add_flag("--wait", options.wait,
                    "Wait until the app(s) are managed or have failed, showing progress");

  add("cancel", Command::cancel, "Cancel the installation of the catalogue app of DECLARATION_ID")
      ->add_option("DECLARATION_ID", identifier, "The catalogue app's declaration")
      ->required();

  add("catalog", Command::catalog, "Print the current catalogue")
      ->add_flag("--watch", options.watch, "Keep printing each new catalogue until Ctrl-C");
  add("progress", Command::progress, "Follow the progress of every app until Ctrl-C");
  auto* state = add("state", Command::state, "Print the installation state of an app");
  state->add_option("BUNDLE_ID", options.bundleID, "The app's bundle identifier")->required();
  state->add_flag("--watch", options.watch, "Keep following the state until Ctrl-C");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    app.exit(e);
    return std::nullopt;
  } catch (const CLI::CallForAllHelp& e) {
    app.exit(e);
    return std::nullopt;
  } catch (const CLI::CallForVersion& e) {
    app.exit(e);
    return std::nullopt;
  } catch (const CLI::ParseError& e) {
    // A misspelt command leaves CLI11 saying only that one is required.
    const auto rest = app.remaining();
    if (app.get_subcommands().empty() && !rest.empty())
      throw UsageError("unknown command \"" + rest.front() + "\" (see cvnctl --help)");
    throw UsageError(std::string(e.what()) + " (see cvnctl --help)");
  }

  if (runtimeOption->count() > 0) {
    if (runtimeDirectory.empty()) throw UsageError("--runtime-dir needs a directory");
    options.runtimeDirectory = runtimeDirectory;
  }
  options.timeout = std::chrono::milliseconds(std::llround(timeoutSeconds * 1000.0));
  if (options.timeout.count() < 1) throw UsageError("--timeout must be at least 0.001 seconds");
  if (keyOption->count() > 0) options.declarationKey = declarationKey;
  if (!identifier.empty()) options.declarationIdentifier = identifier;
  if (options.command == Command::install && installIdentifier->count() > 0 && identifier.empty())
    throw UsageError("install: DECLARATION_ID must not be empty");
  if (options.command == Command::remove || options.command == Command::cancel) {
    if (identifier.empty()) throw UsageError("DECLARATION_ID must not be empty");
  }
  if (options.command == Command::vppInstall) {
    assignIfGiven(itemOption, item, options.vpp.itemID);
    assignIfGiven(bundleOption, bundle, options.vpp.bundleID);
    assignIfGiven(accountOption, account, options.vpp.account);
    assignIfGiven(evidOption, evid, options.vpp.evid);
    if (!options.vpp.itemID && !options.vpp.bundleID)
      throw UsageError("vpp-install needs --item N or --bundle ID");
    if (options.vpp.bundleID && options.vpp.bundleID->empty())
      throw UsageError("vpp-install: --bundle must not be empty");
  }
  if ((options.command == Command::launch || options.command == Command::state)
      && options.bundleID.empty())
    throw UsageError("BUNDLE_ID must not be empty");
  return options;
}

}  // namespace cvnctl
