#include "Commands.hpp"

#include "Catalog.hpp"
#include "Completion.hpp"
#include "DaemonCalls.hpp"
#include "DeclarationFile.hpp"
#include "InstallWaiter.hpp"
#include "Problems.hpp"
#include "UsageError.hpp"

#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/url/parse.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <type_traits>

namespace cvnctl {
namespace {

using corvane::ManagedAppLibrary;

/// A request the library offers in both forms: blocking with --sync (bounded by the library),
/// else asynchronous, cancelled when it takes too long or a signal arrives.
template <class Request>
auto perform(const Request& request, const Options& options) {
  using Result = decltype(request.performSynchronously());
  if (options.sync) {
    const auto bound = answerTime(options);
    try {
      return request.performSynchronously(bound);
    } catch (const corvane::Error& error) {
      // The library's timeout names no duration; say which one passed.
      if (error.origin() == corvane::ipc::ConnectionError::timedOut) throw noAnswer(options);
      throw;
    }
  }
  if constexpr (std::is_void_v<Result>) {
    awaitCall<void>([&](auto token) { request.perform(std::move(token)); }, options);
  } else {
    return awaitCall<Result>([&](auto token) { request.perform(std::move(token)); }, options);
  }
}

/// A call without a synchronous form.
template <class Start>
void call(Start&& start, const Options& options) {
  awaitCall<void>(std::forward<Start>(start), options);
}

/// Whether `identifier` is declared now; what `remove` checks before it sends.
bool isDeclared(const std::string& identifier, const Options& options) {
  const auto statuses = perform(corvane::DDMDeclarationStatusRequest{}, options);
  return std::any_of(statuses.begin(), statuses.end(), [&](const auto& status) {
    return status.declarationIdentifier == identifier;
  });
}

/// The failure of a command that names a declaration no longer there.
Problem noDeclaration(const std::string& identifier) {
  return notFound(
      fmt::format("no declaration has the identifier \"{}\" (see cvnctl status)", identifier));
}

/// Sends a request about a name cvnctl has looked up. Another client may take the name away
/// between the look-up and the request, and the daemon then refuses it: after a refusal `exists`
/// is asked again, and a name that has gone is reported as not found, `gone()`, rather than as
/// the refusal. The refusal's words are never interpreted: a name still there, or a second
/// look-up that fails, leaves the refusal as it was.
template <class Send, class Exists, class Gone>
void sendAbout(Send&& send, Exists&& exists, Gone&& gone) {
  try {
    std::forward<Send>(send)();
  } catch (const corvane::Error& error) {
    // Only a failure the daemon answered with has no origin.
    if (error.origin()) throw;
    const auto refusal = std::current_exception();
    bool there = true;
    try {
      there = exists();
    } catch (...) {  // NOLINT(bugprone-empty-catch): the refusal is what is reported
    }
    if (!there) throw gone();
    std::rethrow_exception(refusal);
  }
}

/// Whether the declaration is still there, for `sendAbout`.
auto declared(const std::string& identifier, const Options& options) {
  return [&identifier, &options] { return isDeclared(identifier, options); };
}

/// Whether the daemon still knows the bundle, for `sendAbout`.
auto bundleKnown(const std::string& bundleID, const Options& options) {
  return [&bundleID, &options] {
    try {
      (void)currentState(bundleID, options);
      return true;
    } catch (const Problem& problem) {
      if (problem.status() == ExitStatus::notFound) return false;
      throw;
    }
  };
}

ExitStatus keys(const Options& options, Output& output) {
  output.keys(perform(corvane::DDMDeclarationKeysRequest{}, options));
  return ExitStatus::success;
}

ExitStatus status(const Options& options, Output& output) {
  auto statuses = perform(corvane::DDMDeclarationStatusRequest{options.declarationKey}, options);
  if (options.declarationKey && statuses.empty()) {
    throw notFound(fmt::format("no declaration has the key \"{}\" (see cvnctl keys)",
                               *options.declarationKey));
  }
  output.statuses(statuses);
  return ExitStatus::success;
}

ExitStatus add(const Options& options, Output& output) {
  const auto declaration = readDeclaration(options.file);
  // The daemon would refuse them too, but only after a round trip and without naming the file.
  const auto origin = options.file == "-" ? std::string("standard input") : options.file;
  if (declaration.declarationIdentifier.empty())
    throw UsageError(fmt::format("{}: declarationIdentifier must not be empty", origin));
  if (declaration.declarationKey.empty())
    throw UsageError(fmt::format("{}: declarationKey must not be empty", origin));
  const corvane::DDMAppOrUpdateManagedAppRequest request(declaration);
  const auto summary = fmt::format("Declared {} (key {}).", declaration.declarationIdentifier,
                                   declaration.declarationKey);
  if (!options.wait) {
    perform(request, options);
    output.done(summary);
    return ExitStatus::success;
  }
  InstallWaiter waiter(output, options, daemonSocketPath());
  perform(request, options);
  output.announce(summary);
  if (declaration.installBehavior.installTiming == corvane::InstallTimingEnum::onDemand) {
    output.note(
        fmt::format("{} installs on demand: not waiting (cvnctl install {} --wait "
                    "installs it)",
                    declaration.declarationIdentifier, declaration.declarationIdentifier));
    output.settled({});
    return ExitStatus::success;
  }
  return waiter.wait({declaration.declarationIdentifier}, "the declaration was stored");
}

ExitStatus remove(const Options& options, Output& output) {
  const auto& identifier = *options.declarationIdentifier;
  if (!isDeclared(identifier, options)) throw noDeclaration(identifier);
  sendAbout([&] { perform(corvane::DDMRemoveManagedAppRequest{identifier}, options); },
            declared(identifier, options), [&] { return noDeclaration(identifier); });
  output.done(fmt::format("Removed declaration {}.", identifier));
  return ExitStatus::success;
}

ExitStatus resetHistory(const Options& options, Output& output) {
  call(
      [](auto token) {
        corvane::DDMResetManagedAppInstallHistoryRequest{}.perform(std::move(token));
      },
      options);
  output.done("The install history was reset.");
  return ExitStatus::success;
}

ExitStatus poll(const Options& options, Output& output) {
  call([](auto token) { corvane::DDMPollForUpdatesRequest{}.perform(std::move(token)); }, options);
  output.done("corvaned polls the store for catalogue updates.");
  return ExitStatus::success;
}

ExitStatus vppInstall(const Options& options, Output& output) {
  const auto& vpp = options.vpp;
  auto identifier = vpp.itemID ? corvane::StoreAppIdentifier::itemID(*vpp.itemID)
                               : corvane::StoreAppIdentifier::bundleID(*vpp.bundleID);
  // An unknown bundle is told apart before the request, as everywhere else.
  if (vpp.bundleID) (void)currentState(*vpp.bundleID, options);
  const auto type = corvane::VPPInstallRequest::requestTypeFromRawValue(vpp.type);
  if (!type) throw UsageError("--type must be 1 (install), 2 (update) or 3 (uninstall)");
  const corvane::VPPInstallRequest request(identifier, *type, vpp.account, vpp.evid);
  auto send = [&] { call([&](auto token) { request.perform(std::move(token)); }, options); };
  if (vpp.bundleID) {
    sendAbout(send, bundleKnown(*vpp.bundleID, options),
              [&] { return unknownBundle(*vpp.bundleID); });
  } else {
    // An item cvnctl cannot look up: the catalogue lists only declared apps, so an unknown
    // item is the daemon's refusal, with its reason.
    send();
  }
  static constexpr std::string_view verbs[] = {"install", "update", "uninstall"};
  output.done(fmt::format("Sent the {} request for {}.", verbs[vpp.type - 1], identifier));
  return ExitStatus::success;
}

ExitStatus enterpriseInstall(const Options& options, Output& output) {
  auto url = boost::urls::parse_absolute_uri(options.manifestURL);
  if (!url) {
    throw UsageError(fmt::format("MANIFEST_URL \"{}\" is not an absolute URL: {}",
                                 options.manifestURL, url.error().message()));
  }
  const corvane::InstallEnterpriseManifestRequest request{
      corvane::EnterpriseApp(boost::urls::url(*url))};
  call([&](auto token) { request.perform(std::move(token)); }, options);
  output.done(
      fmt::format("Asked corvaned to install the enterprise app at {}.", options.manifestURL));
  return ExitStatus::success;
}

ExitStatus launch(const Options& options, Output& output) {
  (void)currentState(options.bundleID, options);
  const corvane::AppLaunchRequest request{options.bundleID};
  sendAbout([&] { call([&](auto token) { request.perform(std::move(token)); }, options); },
            bundleKnown(options.bundleID, options),
            [&] { return unknownBundle(options.bundleID); });
  output.done(fmt::format("Asked corvaned to launch {}.", options.bundleID));
  return ExitStatus::success;
}

/// The declarations an install without an app concerns: every declared one not settled yet.
std::set<std::string> unsettledDeclarations(const Options& options) {
  std::set<std::string> identifiers;
  for (const auto& status : perform(corvane::DDMDeclarationStatusRequest{}, options)) {
    if (!InstallWaiter::isSettled(status.state)) identifiers.insert(status.declarationIdentifier);
  }
  return identifiers;
}

ExitStatus install(const Options& options, Output& output) {
  const auto& library = ManagedAppLibrary::shared();
  if (!options.declarationIdentifier) {
    std::optional<InstallWaiter> waiter;
    std::set<std::string> targets;
    if (options.wait) {
      waiter.emplace(output, options, daemonSocketPath());
      targets = unsettledDeclarations(options);
    }
    call([&](auto token) { library.install(std::move(token)); }, options);
    if (!waiter) {
      output.done("Asked corvaned to install the declared apps.");
      return ExitStatus::success;
    }
    output.announce(targets.empty() ? "Every declared app has settled already."
                                    : "Asked corvaned to install the declared apps.");
    if (targets.empty()) output.settled({});
    return waiter->wait(std::move(targets), "corvaned accepted the install request");
  }
  const auto app = catalogApp(*options.declarationIdentifier, options);
  const auto summary =
      fmt::format("Asked corvaned to install {} ({}).", app.name(), app.bundleID());
  auto send = [&] {
    sendAbout([&] { call([&](auto token) { library.install(app, std::move(token)); }, options); },
              declared(app.declarationIdentifier(), options),
              [&] { return noDeclaration(app.declarationIdentifier()); });
  };
  if (!options.wait) {
    send();
    output.done(summary);
    return ExitStatus::success;
  }
  InstallWaiter waiter(output, options, daemonSocketPath());
  send();
  output.announce(summary);
  return waiter.wait({app.declarationIdentifier()}, "corvaned accepted the install request");
}

ExitStatus cancel(const Options& options, Output& output) {
  const auto app = catalogApp(*options.declarationIdentifier, options);
  sendAbout(
      [&] {
        call([&](auto token) { ManagedAppLibrary::shared().cancel(app, std::move(token)); },
             options);
      },
      declared(app.declarationIdentifier(), options),
      [&] { return noDeclaration(app.declarationIdentifier()); });
  output.done(fmt::format("Asked corvaned to cancel the installation of {} ({}).", app.name(),
                          app.bundleID()));
  return ExitStatus::success;
}

}  // namespace

ExitStatus runCommand(const Options& options, Output& output) {
  switch (options.command) {
    case Command::keys:
      return keys(options, output);
    case Command::status:
      return status(options, output);
    case Command::add:
      return add(options, output);
    case Command::remove:
      return remove(options, output);
    case Command::resetHistory:
      return resetHistory(options, output);
    case Command::poll:
      return poll(options, output);
    case Command::vppInstall:
      return vppInstall(options, output);
    case Command::enterpriseInstall:
      return enterpriseInstall(options, output);
    case Command::launch:
      return launch(options, output);
    case Command::install:
      return install(options, output);
    case Command::cancel:
      return cancel(options, output);
    case Command::catalog:
      return runCatalog(options, output);
    case Command::progress:
      return runProgress(options, output);
    case Command::state:
      return runState(options, output);
    case Command::complete:
      printCompletions(options.completionList == "keys"      ? CompletionList::keys
                       : options.completionList == "bundles" ? CompletionList::bundles
                                                             : CompletionList::declarations);
      return ExitStatus::success;
  }
  throw UsageError("unknown command");
}

}  // namespace cvnctl
