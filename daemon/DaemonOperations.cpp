#include "Daemon.hpp"
#include "Replies.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/model/ManagedAppInstallRequest.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/requests/DDMAppOrUpdateManagedAppRequest.hpp>
#include <corvane/requests/DDMDeclarationStatusRequest.hpp>
#include <corvane/requests/EnterpriseApp.hpp>
#include <corvane/requests/ManagedAppCancelRequest.hpp>
#include <corvane/requests/VPPInstallRequest.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <boost/asio/post.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <fmt/format.h>

#include <set>
#include <utility>
#include <vector>

// The service's operations: what each does to the declarations, the engine and the store.

namespace corvane::sim {

namespace asio = boost::asio;
using Selectors = ServiceProtocol::Selectors;
using platform::LogLevel;

namespace {

/// How a volume-purchase request names its app: "item 42" or the bundle identifier.
std::string describeApp(const StoreAppIdentifier& identifier) {
  if (const auto item = identifier.itemIdentifier()) return fmt::format("item {}", *item);
  return identifier.bundleIdentifier().value_or(identifier.description());
}

/// The bundle identifier of an enterprise app: "enterprise." and the manifest's file name
/// without its extension ("https://host/apps/Tool.plist" -> "enterprise.Tool").
std::string enterpriseBundle(const boost::urls::url_view& url) {
  std::string name;
  for (const auto segment : url.segments()) name = segment;
  if (const auto dot = name.rfind('.'); dot != std::string::npos && dot > 0) name.resize(dot);
  if (name.empty()) name = url.host();
  return "enterprise." + name;
}

}  // namespace

const std::array<Daemon::Operation, 13> Daemon::operations{{
    {Selectors::addOrUpdateManagedApp.name, Effect::changesState, &Daemon::addOrUpdate},
    {Selectors::removeManagedAppWithDeclarationIdentifier.name, Effect::changesState,
     &Daemon::removeDeclaration},
    {Selectors::getDeclarationStatus.name, Effect::readsState, &Daemon::declarationStatus},
    {Selectors::currentDeclarationKeys.name, Effect::readsState, &Daemon::declarationKeys},
    {Selectors::resetManagedAppInstallHistory.name, Effect::changesState, &Daemon::resetHistory},
    // A poll only publishes the catalogue again.
    {Selectors::pollForMediaAPIUpdates.name, Effect::readsState, &Daemon::poll},
    {Selectors::handleVPPInstallRequest.name, Effect::changesState, &Daemon::vppInstall},
    {Selectors::installEnterpriseManifest.name, Effect::changesState, nullptr,
     &Daemon::enterpriseInstall},
    {Selectors::installManagedApp.name, Effect::changesState, &Daemon::install},
    {Selectors::cancelManagedApp.name, Effect::changesState, &Daemon::cancel},
    {Selectors::handleLaunchAppRequest.name, Effect::changesState, nullptr, &Daemon::launch},
    {Selectors::addMessageRegistrations.name, Effect::concernsCaller, &Daemon::addRegistrations},
    {Selectors::removeMessageRegistrations.name, Effect::concernsCaller,
     &Daemon::removeRegistrations},
}};

// ---- Declarations ---------------------------------------------------------------------------

Bytes Daemon::addOrUpdate(Client& /*caller*/, const std::optional<Bytes>& argument) {
  auto [request] = TetherDecoder<DDMAppOrUpdateManagedAppRequest>::decode(required(argument));
  ManagedAppDeclaration declaration = std::move(request.app);
  if (declaration.declarationIdentifier.empty())
    throw Refusal("declarationIdentifier must not be empty");
  if (declaration.declarationKey.empty()) throw Refusal("declarationKey must not be empty");

  AppRecord record;
  record.declarationIdentifier = declaration.declarationIdentifier;
  record.declarationKey = declaration.declarationKey;
  record.uuid = boost::uuids::random_generator()();
  bool known = true;
  if (const auto* vpp = std::get_if<PurchaseMethodEnum::VolumePurchaseProgram>(
          &declaration.installBehavior.purchaseMethod.cases())) {
    if (const ManagedApp* app = catalog_.find(vpp->_0)) {
      record.bundleID = app->bundleID();
      record.name = app->name();
      record.versionID = app->externalVersionID();
      record.version = app->version().value_or("1.0");
    } else {
      known = false;
      record.bundleID = vpp->_0.bundleIdentifier().value_or(vpp->_0.description());
      record.name = vpp->_0.description();
    }
  } else {
    const auto& manifest =
        std::get<PurchaseMethodEnum::Manifest>(declaration.installBehavior.purchaseMethod.cases());
    record.bundleID = enterpriseBundle(manifest._0);
    record.name = record.bundleID.substr(std::string_view("enterprise.").size());
    record.version = "1.0";
  }

  // A declaration that now names another app lets go of the one it named before.
  const auto previous = bundleOfDeclaration(declaration.declarationIdentifier);
  if (previous && *previous != record.bundleID) engine_.remove(*previous);

  const std::string bundleID = record.bundleID;
  const bool immediately =
      declaration.installBehavior.installTiming == InstallTimingEnum::immediately;
  std::optional<std::string> takenFrom;
  if (const AppRecord* existing = engine_.find(bundleID);
      existing != nullptr && existing->declarationIdentifier != declaration.declarationIdentifier)
    takenFrom = existing->declarationIdentifier;
  const bool unmanaged = installedWithoutDaemon(bundleID);
  engine_.put(std::move(record));
  if (!known) {
    engine_.fail(bundleID, ManagedAppStatus::Reason::couldNotVerifyAppID);
  } else if (unmanaged) {
    // Someone else's app: never installed over nor uninstalled by the daemon.
    engine_.fail(bundleID, ManagedAppStatus::Reason::unmanagedAppAlreadyInstalled);
  } else if (immediately) {
    engine_.install(bundleID);
  }

  const Store::Declaration stored{declaration.declarationIdentifier, declaration.declarationKey,
                                  boost::json::serialize(coding::encode(declaration))};
  commit([&] { store_.putDeclaration(stored); });
  if (takenFrom)
    log(LogLevel::notice, fmt::format("declaration {} takes over {} from {}", stored.identifier,
                                      bundleID, *takenFrom));
  log(LogLevel::info, fmt::format("declaration {} ({}) manages {}{}", stored.identifier, stored.key,
                                  bundleID, known ? "" : ", which the catalogue does not know"));
  declarations_.insert_or_assign(stored.identifier, std::move(declaration));
  publishCatalog();
  return done();
}

Bytes Daemon::removeDeclaration(Client& /*caller*/, const std::optional<Bytes>& argument) {
  const std::string identifier =
      std::get<0>(TetherDecoder<std::string>::decode(required(argument)));
  if (!declarations_.contains(identifier))
    throw Refusal(fmt::format("unknown declaration {}", identifier));
  if (const auto bundleID = bundleOfDeclaration(identifier)) engine_.remove(*bundleID);
  commit([&] { store_.removeDeclaration(identifier); });
  declarations_.erase(identifier);
  log(LogLevel::info, fmt::format("declaration {} removed", identifier));
  publishCatalog();
  return done();
}

Bytes Daemon::declarationStatus(Client& /*caller*/, const std::optional<Bytes>& argument) {
  auto [request] = TetherDecoder<DDMDeclarationStatusRequest>::decode(required(argument));
  std::vector<ManagedAppStatus> statuses;
  for (const auto& record : engine_.records()) {
    if (request.declarationKey && record.declarationKey != *request.declarationKey) continue;
    statuses.push_back(record.status());
  }
  return success(std::move(statuses));
}

Bytes Daemon::declarationKeys(Client& /*caller*/, const std::optional<Bytes>& /*argument*/) {
  std::set<std::string> keys;
  for (const auto& [identifier, declaration] : declarations_)
    keys.insert(declaration.declarationKey);
  return success(std::vector<std::string>(keys.begin(), keys.end()));
}

Bytes Daemon::resetHistory(Client& /*caller*/, const std::optional<Bytes>& /*argument*/) {
  engine_.clearFailures();
  // With the failures forgotten, declarations that install at once try again.
  for (const auto& [identifier, declaration] : declarations_) {
    if (declaration.installBehavior.installTiming != InstallTimingEnum::immediately) continue;
    if (const auto bundleID = bundleOfDeclaration(identifier)) {
      const AppRecord* record = engine_.find(*bundleID);
      if (record == nullptr || record->phase != Phase::optional
          || catalog_.findBundle(*bundleID) == nullptr)
        continue;
      if (installedWithoutDaemon(*bundleID))
        engine_.fail(*bundleID, ManagedAppStatus::Reason::unmanagedAppAlreadyInstalled);
      else
        engine_.install(*bundleID);
    }
  }
  commit([&] { store_.clearHistory(); });
  log(LogLevel::info, "install history reset");
  return done();
}

Bytes Daemon::poll(Client& /*caller*/, const std::optional<Bytes>& /*argument*/) {
  log(LogLevel::info, "polled for updates; publishing the catalogue");
  publishCatalog();
  // A backend with remotes looks at them again in the background; what it finds is published
  // and updated when it comes.
  backend_->refresh();
  return done();
}

// ---- Installs -------------------------------------------------------------------------------

Bytes Daemon::vppInstall(Client& /*caller*/, const std::optional<Bytes>& argument) {
  auto [request] = TetherDecoder<VPPInstallRequest>::decode(required(argument));
  // A purchase is made in the store: what the catalogue does not know cannot be bought.
  const ManagedApp* app = catalog_.find(request.appIdentifier());
  if (app == nullptr)
    throw Refusal(fmt::format("{} is not in the catalogue", describeApp(request.appIdentifier())));
  const std::string bundleID = app->bundleID();
  const auto type = request.requestType();
  if (type == VPPInstallRequest::RequestType::uninstall) {
    if (!engine_.uninstall(bundleID)) throw Refusal(fmt::format("{} is not installed", bundleID));
    commit();
    log(LogLevel::info, fmt::format("{} uninstalled (volume purchase)", bundleID));
    return done();
  }
  if (engine_.find(bundleID) == nullptr) {
    AppRecord record;
    record.bundleID = bundleID;
    record.declarationIdentifier = "vpp." + boost::uuids::to_string(request.id());
    record.name = app->name();
    record.versionID = app->externalVersionID();
    record.version = app->version().value_or("1.0");
    record.uuid = request.id();
    engine_.put(std::move(record));
  }
  // An update downloads and installs the installed app's new build while it stays installed; an
  // app that is not installed is installed, and an install on its way carries on.
  if (type != VPPInstallRequest::RequestType::update || !engine_.upgrade(bundleID))
    engine_.install(bundleID);
  commit();
  log(LogLevel::info, fmt::format("volume-purchase {} of {}", coding::caseNameOf(type), bundleID));
  return done();
}

std::optional<Bytes> Daemon::enterpriseInstall(Client& /*caller*/,
                                               const std::optional<Bytes>& argument,
                                               ipc::Reply& reply) {
  auto [app] = TetherDecoder<EnterpriseApp>::decode(required(argument));
  const auto& url = app.manifestURL();
  if (options_.engine != EngineKind::flatpak) {
    if (url.scheme() != "https" && url.scheme() != "http")
      throw Refusal(fmt::format("a manifest must be fetched over http(s), not {}", url.buffer()));
    const std::string bundleID = enterpriseBundle(url);
    return installEnterprise(std::string(url.buffer()), bundleID,
                             bundleID.substr(std::string_view("enterprise.").size()));
  }
  // The manifest is a .flatpakref, fetched and read before the call is answered, so that a bad
  // one is refused with its reason. The download blocks: it runs on a worker.
  if (url.scheme() != "file" && url.scheme() != "http" && url.scheme() != "https")
    throw Refusal(fmt::format(
        "the Flatpak engine reads manifests from file, http and https addresses, not {}",
        url.buffer()));
  const std::uint64_t ticket = defer(reply);
  std::string address(url.buffer());
  log(LogLevel::info, fmt::format("fetching the manifest {}", address));
  fetches_.post([this, ticket, address] {
    auto fetched = fetchManifest(address, FetchLimits{}, fetches_.stopping());
    asio::post(io_, [this, ticket, address, fetched = std::move(fetched)] {
      manifestFetched(ticket, address, fetched);
    });
  });
  return std::nullopt;
}

void Daemon::manifestFetched(std::uint64_t ticket, const std::string& url,
                             const FetchedManifest& fetched) {
  auto reply = takeDeferred(ticket);
  if (!reply || stopped_) return;
  auto result =
      perform(Selectors::installEnterpriseManifest.name, 0, [&]() -> std::optional<Bytes> {
        if (!fetched.failure.empty()) throw Refusal(fetched.failure);
        std::string bundleID;
        try {
          bundleID = backend_->takeManifest(url, fetched.contents).value_or("");
        } catch (const BackendError& error) {
          throw Refusal(error.what());
        }
        // Kept with the app, so that an install a restart cuts short is made from it again.
        return installEnterprise(url, bundleID, bundleID, [&] {
          store_.putManifest(Store::Manifest{bundleID, url, fetched.contents});
        });
      });
  answer(std::move(*reply), std::move(*result));
}

Bytes Daemon::installEnterprise(const std::string& url, const std::string& bundleID,
                                const std::string& name, const std::function<void()>& extra) {
  if (bundleID.empty()) throw Refusal(fmt::format("{} names no app", url));
  if (engine_.find(bundleID) == nullptr) {
    AppRecord record;
    record.bundleID = bundleID;
    record.declarationIdentifier = "enterprise." + url;
    record.name = name;
    record.version = "1.0";
    record.uuid = boost::uuids::random_generator()();
    engine_.put(std::move(record));
  }
  if (installedWithoutDaemon(bundleID))
    engine_.fail(bundleID, ManagedAppStatus::Reason::unmanagedAppAlreadyInstalled);
  else
    engine_.install(bundleID);
  commit(extra);
  log(LogLevel::info, fmt::format("enterprise install of {} from {}", bundleID, url));
  return done();
}

Bytes Daemon::install(Client& /*caller*/, const std::optional<Bytes>& argument) {
  auto [request] = TetherDecoder<ManagedAppInstallRequest>::decode(required(argument));
  if (!request.declarationIdentifier()) {
    // Without an app: every declared app that waits for someone to install it.
    std::size_t started = 0;
    for (const auto& [identifier, declaration] : declarations_) {
      const auto bundleID = bundleOfDeclaration(identifier);
      const AppRecord* record = bundleID ? engine_.find(*bundleID) : nullptr;
      if (record != nullptr && record->phase == Phase::optional && engine_.install(*bundleID))
        ++started;
    }
    commit();
    log(LogLevel::info, fmt::format("install of every optional app: {} started", started));
    return done();
  }
  const std::string& identifier = *request.declarationIdentifier();
  const std::string bundleID = appOfDeclaration(identifier);
  if (catalog_.findBundle(bundleID) == nullptr)
    throw Refusal(fmt::format("{} is not in the catalogue", bundleID));
  if (installedWithoutDaemon(bundleID))
    throw Refusal(fmt::format("{} is already installed, and not by this daemon", bundleID));
  if (engine_.install(bundleID)) {
    commit();
    log(LogLevel::info, fmt::format("install of {} ({}) queued", bundleID, identifier));
  } else {
    log(LogLevel::info, fmt::format("{} is already installed or on its way", bundleID));
  }
  return done();
}

Bytes Daemon::cancel(Client& /*caller*/, const std::optional<Bytes>& argument) {
  auto [request] = TetherDecoder<ManagedAppCancelRequest>::decode(required(argument));
  if (!request.declarationIdentifier) {
    std::size_t cancelled = 0;
    for (const auto& record : engine_.records())
      if (engine_.cancel(record.bundleID)) ++cancelled;
    commit();
    log(LogLevel::info, fmt::format("{} installs cancelled", cancelled));
    return done();
  }
  const std::string bundleID = appOfDeclaration(*request.declarationIdentifier);
  if (engine_.cancel(bundleID)) {
    commit();
    log(LogLevel::info, fmt::format("install of {} cancelled", bundleID));
  } else {
    log(LogLevel::info, fmt::format("{} has no install to cancel", bundleID));
  }
  return done();
}

std::optional<Bytes> Daemon::launch(Client& caller, const std::optional<Bytes>& argument,
                                    ipc::Reply& reply) {
  auto [bundleID] = TetherDecoder<std::string>::decode(required(argument));
  const AppRecord* record = engine_.find(bundleID);
  if (record == nullptr || (record->phase != Phase::managed && record->phase != Phase::updating))
    throw Refusal(fmt::format("{} is not installed, so it cannot be launched", bundleID));
  // The backend reads the installation and starts the launcher: blocking, so on a worker.
  const std::uint64_t ticket = defer(reply);
  launches_.post([this, ticket, app = *record, credentials = caller.credentials] {
    std::string failed;
    try {
      backend_->launch(app, credentials);
    } catch (const BackendError& error) {
      failed = error.what();
    }
    asio::post(io_, [this, ticket, bundleID = app.bundleID, uid = credentials.uid, failed] {
      auto waiting = takeDeferred(ticket);
      if (!waiting) return;
      auto result =
          perform(Selectors::handleLaunchAppRequest.name, 0, [&]() -> std::optional<Bytes> {
            if (!failed.empty())
              throw Refusal(fmt::format("{} cannot be launched: {}", bundleID, failed));
            log(LogLevel::info, fmt::format("launched {} for uid {}", bundleID, uid));
            return done();
          });
      answer(std::move(*waiting), std::move(*result));
    });
  });
  return std::nullopt;
}

Bytes Daemon::addRegistrations(Client& caller, const std::optional<Bytes>& argument) {
  changeRegistrations(caller, required(argument), true);
  return done();
}

Bytes Daemon::removeRegistrations(Client& caller, const std::optional<Bytes>& argument) {
  changeRegistrations(caller, required(argument), false);
  return done();
}

bool Daemon::installedWithoutDaemon(const std::string& bundleID) const {
  // What the daemon installs, or is installing, is its own; a failed or cancelled install left
  // nothing behind (an install cut short by a restart is waiting again, not failed).
  const AppRecord* record = engine_.find(bundleID);
  if (record != nullptr && record->phase != Phase::optional && record->phase != Phase::failed)
    return false;
  return backend_->isInstalled(bundleID);
}

std::optional<std::string> Daemon::bundleOfDeclaration(std::string_view identifier) const {
  const AppRecord* record = engine_.findDeclared(identifier);
  return record ? std::optional(record->bundleID) : std::nullopt;
}

std::string Daemon::appOfDeclaration(std::string_view identifier) const {
  if (auto bundleID = bundleOfDeclaration(identifier)) return std::move(*bundleID);
  // Declared, but another declaration has since named the same app and taken it over.
  if (declarations_.contains(identifier))
    throw Refusal(fmt::format(
        "declaration {} no longer manages an app: another declaration took it over", identifier));
  throw Refusal(fmt::format("unknown declaration {}", identifier));
}

}  // namespace corvane::sim
