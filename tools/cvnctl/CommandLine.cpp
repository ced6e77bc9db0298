#include "CommandLine.hpp"

#include "UsageError.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <string_view>

namespace cvnctl {
namespace {

constexpr const char* exitStatusText = R"(Exit status (the same for every command):
  0    success; also a watch (catalog --watch, progress, state --watch) ended with Ctrl-C,
       which is how a watch ends
  1    corvaned reported an error or refused the request (printed with its reason; an item
       number it does not know, given to vpp-install --item, is such a refusal), or an app
       waited for with --wait ended in the failed state
  2    usage error: a bad command line, option value or declaration file
  3    not found: no such declaration identifier, declaration key or bundle identifier, also
       when another client removed it just before the request
  4    corvaned is not running, cannot be reached, or went away (a watch or wait given
       --follow waits for it to come back instead)
  5    timed out: --timeout (or the 15 s bound on an answer) passed first; with --follow, also
       corvaned stayed away longer than --timeout
  6    an app waited for with --wait was cancelled, removed or set back to optional by someone
       else before it was installed
  130  interrupted by SIGINT (Ctrl-C) while waiting for an answer or a --wait
  143  ended by SIGTERM while waiting or watching

Environment:
  CORVANE_RUNTIME_DIR  where the daemon's socket lives (default /run/corvane)
  CORVANE_LOG_LEVEL    the library's log level (cvnctl shows only faults unless --verbose)

With --json, standard output carries only JSON: one document per result (one per line for
watches; a catalogue the daemon could not build is a line {"error", "description", "reason"}
of the watch, which goes on). Every non-zero exit writes one JSON object to standard error:
{"error": kind, "description": ..., "reason": ..., "exit": status}.)";

/// A whole number given to `option`; negative ones only where `negativeAllowed`.
std::int64_t parseWhole(const std::string& text, std::string_view option, bool negativeAllowed) {
  std::int64_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || at != end || text.empty() || (!negativeAllowed && value < 0)) {
    throw UsageError(fmt::format("{} must be a {}whole number, not \"{}\"", option,
                                 negativeAllowed ? "" : "non-negative ", text));
  }
  return value;
}

/// "0.5" seconds and the like, as milliseconds; refuses what is not a positive number.
std::chrono::milliseconds parseTimeout(const std::string& text) {
  constexpr auto wrong = "--timeout must be a positive number of seconds (such as 30 or 0.5), not";
  double seconds = 0;
  std::size_t used = 0;
  try {
    seconds = std::stod(text, &used);
  } catch (const std::exception&) {
    throw UsageError(fmt::format("{} \"{}\"", wrong, text));
  }
  // A week at most: anything longer is a mistake, and it keeps the deadline representable.
  if (used != text.size() || !std::isfinite(seconds) || seconds <= 0 || seconds > 604800)
    throw UsageError(fmt::format("{} \"{}\"", wrong, text));
  const auto milliseconds = std::llround(seconds * 1000.0);
  if (milliseconds < 1) throw UsageError("--timeout must be at least 0.001 seconds");
  return std::chrono::milliseconds(milliseconds);
}

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
  app.add_flag("-v,--verbose", options.verbose,
               "Show the library's log lines on standard error: connects, calls (outcome, "
               "duration), pushes");
  std::string runtimeDirectory;
  auto* runtimeOption =
      app.add_option("--runtime-dir", runtimeDirectory,
                     "Where the daemon's socket lives (default: $CORVANE_RUNTIME_DIR or "
                     "/run/corvane)")
          ->type_name("DIR");
  std::string timeoutText;
  auto* timeoutOption =
      app.add_option("--timeout", timeoutText,
                     "Seconds the whole command may take, a --wait included (default: 15 for each "
                     "answer, and "
                     "a --wait without end); for a watch, the bound on its first answer and, with "
                     "--follow, on each wait for corvaned to come back")
          ->type_name("SECONDS");

  auto add = [&](const char* name, Command command, const char* description) {
    auto* sub = app.add_subcommand(name, description);
    sub->callback([&options, command] { options.command = command; });
    return sub;
  };
  // An option of the commands that watch or wait, beside their --watch or --wait: the other
  // commands make one call and have nothing to follow.
  auto addFollow = [&](CLI::App* sub) {
    sub->add_flag("--follow", options.follow,
                  "When corvaned goes away, wait for it to come back and go on (--timeout bounds "
                  "each wait for it) instead of ending with status 4");
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
  addFollow(addCommand);

  std::string identifier;
  add("remove", Command::remove, "Remove the declaration with DECLARATION_ID")
      ->add_option("DECLARATION_ID", identifier, "The declaration identifier")
      ->required();

  add("reset-history", Command::resetHistory, "Forget the managed-app install history");
  add("poll", Command::poll, "Ask the daemon to poll the store for catalogue updates");

  auto* vpp =
      add("vpp-install", Command::vppInstall, "Send a volume-purchase request for a store app");
  // Numbers are read as text and checked after parsing, so that a mistake is told in words.
  std::string item;
  std::string bundle;
  std::string type;
  std::string account;
  std::string evid;
  auto* itemOption = vpp->add_option("--item", item, "The app's store item number")->type_name("N");
  auto* bundleOption =
      vpp->add_option("--bundle", bundle, "The app's bundle identifier")->type_name("ID");
  itemOption->excludes(bundleOption);
  vpp->add_option("--type", type, "1 install, 2 update, 3 uninstall")
      ->type_name("1|2|3")
      ->required();
  auto* accountOption =
      vpp->add_option("--account", account, "The account identifier")->type_name("N");
  auto* evidOption =
      vpp->add_option("--evid", evid, "The external version to install")->type_name("N");

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
  addFollow(install);

  add("cancel", Command::cancel, "Cancel the installation of the catalogue app of DECLARATION_ID")
      ->add_option("DECLARATION_ID", identifier, "The catalogue app's declaration")
      ->required();

  auto* catalog = add("catalog", Command::catalog, "Print the current catalogue");
  catalog->add_flag("--watch", options.watch, "Keep printing each new catalogue until Ctrl-C");
  addFollow(catalog);
  addFollow(add("progress", Command::progress, "Follow the progress of every app until Ctrl-C"));
  auto* state = add("state", Command::state, "Print the installation state of an app");
  state->add_option("BUNDLE_ID", options.bundleID, "The app's bundle identifier")->required();
  state->add_flag("--watch", options.watch, "Keep following the state until Ctrl-C");
  addFollow(state);

  // For the bash completion script; not a command people type, so not in the help.
  add("__complete", Command::complete, "")
      ->group("")
      ->add_option("LIST", options.completionList, "declarations, keys or bundles")
      ->check(CLI::IsMember({"declarations", "keys", "bundles"}))
      ->required();

  // CLI11 shows a subcommand's own options only; the global ones work there too, so its help
  // lists them as well.
  const CLI::Formatter formatter;
  std::string globalOptions = "Global options (before or after the command):\n";
  for (const auto* option : app.get_options()) {
    // Each command's own --help is already listed with its options.
    if (option != app.get_help_ptr()) globalOptions += formatter.make_option(option, false);
  }
  for (auto* sub : app.get_subcommands([](CLI::App*) { return true; })) sub->footer(globalOptions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    app.exit(e);
    return std::nullopt;
  } catch (const CLI::CallForAllHelp& e) {
    app.exit(e);
    return std::nullopt;
  } catch (const CLI::CallForVersion& e) {
    if (asksForJson(argc, argv)) {
      fmt::print("{{\"version\":\"{}\"}}\n", CVNCTL_VERSION);
    } else {
      app.exit(e);
    }
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
  if (timeoutOption->count() > 0) {
    options.timeout = parseTimeout(timeoutText);
    options.deadline = std::chrono::steady_clock::now() + *options.timeout;
  }
  if (keyOption->count() > 0) {
    if (declarationKey.empty()) throw UsageError("DECLARATION_KEY must not be empty");
    options.declarationKey = declarationKey;
  }
  if (!identifier.empty()) options.declarationIdentifier = identifier;
  if (options.command == Command::install && installIdentifier->count() > 0 && identifier.empty())
    throw UsageError("install: DECLARATION_ID must not be empty");
  if (options.command == Command::remove || options.command == Command::cancel) {
    if (identifier.empty()) throw UsageError("DECLARATION_ID must not be empty");
  }
  if (options.command == Command::vppInstall) {
    if (itemOption->count() > 0) options.vpp.itemID = parseWhole(item, "--item", false);
    assignIfGiven(bundleOption, bundle, options.vpp.bundleID);
    options.vpp.type = parseWhole(type, "--type", false);
    if (options.vpp.type < 1 || options.vpp.type > 3)
      throw UsageError("--type must be 1 (install), 2 (update) or 3 (uninstall), not " + type);
    if (accountOption->count() > 0)
      options.vpp.account = static_cast<std::uint64_t>(parseWhole(account, "--account", false));
    if (evidOption->count() > 0) options.vpp.evid = parseWhole(evid, "--evid", true);
    if (!options.vpp.itemID && !options.vpp.bundleID)
      throw UsageError("vpp-install needs --item N or --bundle ID");
    if (options.vpp.bundleID && options.vpp.bundleID->empty())
      throw UsageError("vpp-install: --bundle must not be empty");
  }
  if (options.follow && options.command != Command::progress && !options.watch && !options.wait) {
    throw UsageError(fmt::format(
        "--follow goes with {} (see cvnctl --help)",
        options.command == Command::catalog || options.command == Command::state ? "--watch"
                                                                                 : "--wait"));
  }
  if ((options.command == Command::launch || options.command == Command::state)
      && options.bundleID.empty())
    throw UsageError("BUNDLE_ID must not be empty");
  return options;
}

}  // namespace cvnctl
