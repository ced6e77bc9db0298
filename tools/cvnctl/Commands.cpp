#include "Commands.hpp"

#include "Catalog.hpp"
#include "DaemonCalls.hpp"
#include "DeclarationFile.hpp"
#include "InstallWaiter.hpp"
#include "UsageError.hpp"

#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/url/parse.hpp>
#include <fmt/format.h>

#include <optional>
#include <set>

namespace cvnctl {
namespace {

using boost::asio::use_future;
using corvane::ManagedAppLibrary;

/// A request the library offers in both forms: blocking with --sync, else asynchronous and
/// waited for with the timeout.
template <class Request>
auto perform(const Request& request, const Options& options) {
  if (options.sync) return request.performSynchronously();
  return awaitAnswer(request.perform(use_future), options.timeout);
}

ExitStatus keys(const Options& options, Output& output) {
  output.keys(perform(corvane::DDMDeclarationKeysRequest{}, options));
  return ExitStatus::success;
}

ExitStatus status(const Options& options, Output& output) {
  output.statuses(perform(corvane::DDMDeclarationStatusRequest{options.declarationKey}, options));
  return ExitStatus::success;
}

ExitStatus add(const Options& options, Output& output) {
  const auto declaration = readDeclaration(options.file);
  const corvane::DDMAppOrUpdateManagedAppRequest request(declaration);
  const auto summary = fmt::format("Declared {} (key {}).", declaration.declarationIdentifier,
                                   declaration.declarationKey);
  if (!options.wait) {
    perform(request, options);
    output.done(summary);
    return ExitStatus::success;
  }
  InstallWaiter waiter(output, daemonSocketPath());
  perform(request, options);
  output.note(summary);
  if (declaration.installBehavior.installTiming == corvane::InstallTimingEnum::onDemand) {
    output.note(
        fmt::format("{} installs on demand: not waiting (cvnctl install {} --wait "
                    "installs it)",
                    declaration.declarationIdentifier, declaration.declarationIdentifier));
    output.settled({});
    return ExitStatus::success;
  }
  return waiter.wait({declaration.declarationIdentifier});
}

ExitStatus remove(const Options& options, Output& output) {
  perform(corvane::DDMRemoveManagedAppRequest{*options.declarationIdentifier}, options);
  output.done(fmt::format("Removed declaration {}.", *options.declarationIdentifier));
  return ExitStatus::success;
}

ExitStatus resetHistory(const Options& options, Output& output) {
  awaitAnswer(corvane::DDMResetManagedAppInstallHistoryRequest{}.perform(use_future),
              options.timeout);
  output.done("The install history was reset.");
  return ExitStatus::success;
}

ExitStatus poll(const Options& options, Output& output) {
  awaitAnswer(corvane::DDMPollForUpdatesRequest{}.perform(use_future), options.timeout);
  output.done("corvaned polls the store for catalogue updates.");
  return ExitStatus::success;
}

ExitStatus vppInstall(const Options& options, Output& output) {
  const auto& vpp = options.vpp;
  auto identifier = vpp.itemID ? corvane::StoreAppIdentifier::itemID(*vpp.itemID)
                               : corvane::StoreAppIdentifier::bundleID(*vpp.bundleID);
  const auto type = corvane::VPPInstallRequest::requestTypeFromRawValue(vpp.type);
  if (!type) throw UsageError("--type must be 1 (install), 2 (update) or 3 (uninstall)");
  const corvane::VPPInstallRequest request(identifier, *type, vpp.account, vpp.evid);
  awaitAnswer(request.perform(use_future), options.timeout);
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
  awaitAnswer(request.perform(use_future), options.timeout);
  output.done(
      fmt::format("Asked corvaned to install the enterprise app at {}.", options.manifestURL));
  return ExitStatus::success;
}

ExitStatus launch(const Options& options, Output& output) {
  awaitAnswer(corvane::AppLaunchRequest{options.bundleID}.perform(use_future), options.timeout);
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
      waiter.emplace(output, daemonSocketPath());
      targets = unsettledDeclarations(options);
    }
    awaitAnswer(library.install(use_future), options.timeout);
    if (!waiter) {
      output.done("Asked corvaned to install the declared apps.");
      return ExitStatus::success;
    }
    output.note(targets.empty() ? "Every declared app has settled already."
                                : "Asked corvaned to install the declared apps.");
    if (targets.empty()) output.settled({});
    return waiter->wait(std::move(targets));
  }
  const auto app = catalogApp(*options.declarationIdentifier, options.timeout);
  const auto summary =
      fmt::format("Asked corvaned to install {} ({}).", app.name(), app.bundleID());
  if (!options.wait) {
    awaitAnswer(library.install(app, use_future), options.timeout);
    output.done(summary);
    return ExitStatus::success;
  }
  InstallWaiter waiter(output, daemonSocketPath());
  awaitAnswer(library.install(app, use_future), options.timeout);
  output.note(summary);
  return waiter.wait({app.declarationIdentifier()});
}

ExitStatus cancel(const Options& options, Output& output) {
  const auto app = catalogApp(*options.declarationIdentifier, options.timeout);
  awaitAnswer(ManagedAppLibrary::shared().cancel(app, use_future), options.timeout);
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
  }
  throw UsageError("unknown command");
}

}  // namespace cvnctl
