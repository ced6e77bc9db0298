#include "Daemon.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/model/ManagedAppInstallRequest.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/push/AppProgress.hpp>
#include <corvane/push/MessageSending.hpp>
#include <corvane/push/TetherClientProtocol.hpp>
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
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <grp.h>
#include <set>
#include <sstream>
#include <unistd.h>
#include <utility>
#include <vector>

namespace corvane::sim {

namespace asio = boost::asio;
using Selectors = ServiceProtocol::Selectors;
using platform::LogLevel;

namespace {

template <class Value>
Bytes success(Value value) {
  return TetherEncoder::encode(ServiceResult<Value>::success(std::move(value)));
}
Bytes done() {
  return success(None{});
}
Bytes failure(CorvaneError error, std::optional<std::string> reason) {
  return TetherEncoder::encode(ServiceResult<None>::failure(error, std::move(reason)));
}

/// A failure of the request itself (an unknown declaration, an app in the wrong state): logged
/// and answered with `unrecoverableError`, its text as the reason. The text is a sentence the
/// caller can act on.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What was wrong with an argument that does not decode, for the caller.
std::string malformedArgument(const CodingError& error) {
  const std::string where = error.codingPath().empty() ? "the top level" : error.codingPath();
  return fmt::format("the argument is malformed: {} at {}: {}", toString(error.kind()), where,
                     error.description());
}

/// How a volume-purchase request names its app: "item 42" or the bundle identifier.
std::string describeApp(const StoreAppIdentifier& identifier) {
  if (const auto item = identifier.itemIdentifier()) return fmt::format("item {}", *item);
  return identifier.bundleIdentifier().value_or(identifier.description());
}

const Bytes& required(const std::optional<Bytes>& argument) {
  if (!argument) throw Refusal("the call carries no argument");
  return *argument;
}

/// Operations that change what is installed or declared; the others only read, or only concern
/// the caller's own connection.
bool changesState(std::string_view operation) {
  return operation != Selectors::getDeclarationStatus.name
         && operation != Selectors::currentDeclarationKeys.name
         && operation != Selectors::pollForMediaAPIUpdates.name
         && operation != Selectors::addMessageRegistrations.name
         && operation != Selectors::removeMessageRegistrations.name;
}

/// Whether the process `pid` (whose primary group is `gid`) belongs to `group`; its supplementary
/// groups come from /proc, as they were when it connected.
bool belongsTo(std::int32_t pid, std::uint32_t gid, unsigned group) {
  if (gid == group) return true;
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  std::string line;
  while (std::getline(status, line)) {
    if (!line.starts_with("Groups:")) continue;
    std::istringstream groups(line.substr(7));
    unsigned member = 0;
    while (groups >> member)
      if (member == group) return true;
  }
  return false;
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

std::string historyEvent(const AppRecord& record, bool removed) {
  if (removed) return "removed";
  if (record.phase == Phase::failed && !record.reasons.empty())
    return fmt::format("failed: {}", coding::caseNameOf(record.reasons.front()));
  return std::string(toString(record.phase));
}

/// Pushes to one client through its proxy.
class PeerReceiver final : public TetherClientProtocol {
 public:
  explicit PeerReceiver(const ipc::RemoteProxy& proxy) : proxy_(proxy) {}
  void handleMessages(Bytes messages) override {
    proxy_.send(TetherClientProtocolDescription::handleMessages.name, std::move(messages));
  }

 private:
  const ipc::RemoteProxy& proxy_;
};

}  // namespace

/// The object each client's calls reach: hands them to the daemon's thread with their reply.
class Daemon::Calls final : public ipc::ExportedObject {
 public:
  Calls(Daemon& daemon, std::uint64_t clientID) : daemon_(daemon), clientID_(clientID) {}
  void handle(std::string_view operation, std::optional<Bytes> argument,
              ipc::Reply reply) override {
    asio::post(daemon_.io_, [&daemon = daemon_, id = clientID_, name = std::string(operation),
                             argument = std::move(argument), reply = std::move(reply)]() mutable {
      daemon.dispatch(id, name, std::move(argument), std::move(reply));
    });
  }

 private:
  Daemon& daemon_;
  std::uint64_t clientID_;
};

Daemon::Daemon(asio::io_context& io, Options options, Catalog catalog)
    : io_(io),
      options_(std::move(options)),
      catalog_(std::move(catalog)),
      store_(options_.stateFile),
      engine_(EngineSettings{.failures = options_.installFailures}),
      tickTimer_(io),
      idleTimer_(io) {
  if (options_.allowGroup) {
    ::group entry{};
    ::group* found = nullptr;
    std::vector<char> strings(16384);
    if (::getgrnam_r(options_.allowGroup->c_str(), &entry, strings.data(), strings.size(), &found)
            != 0
        || found == nullptr) {
      throw std::invalid_argument("unknown group '" + *options_.allowGroup + "'");
    }
    allowedGroup_ = entry.gr_gid;
  }
  // Take up the stored state: declarations, then the apps with where their installs stood.
  for (const auto& stored : store_.declarations()) {
    try {
      auto declaration =
          coding::decode<ManagedAppDeclaration>(coding::parseDocument(stored.document));
      declarations_.insert_or_assign(stored.identifier, std::move(declaration));
    } catch (const CodingError& error) {
      log(LogLevel::error, fmt::format("stored declaration {} does not decode ({}); dropped",
                                       stored.identifier, error.what()));
    }
  }
  for (auto& record : store_.apps()) engine_.put(std::move(record));
  (void)engine_.takeChanges();
}

Daemon::~Daemon() {
  // The workers call into this object; they are joined here, before any member goes.
  listener_.reset();
}

void Daemon::start() {
  ipc::ListenerOptions listenerOptions;
  listenerOptions.runtimeDirectory = options_.runtimeDirectory;
  listenerOptions.workerThreads = 2;
  // A client that does not read its pushes is cut off once this much waits for it.
  listenerOptions.maxQueuedOutgoingBytes = std::size_t{4} * 1024 * 1024;
  listenerOptions.maxConnections = options_.maxConnections;
  listenerOptions.maxConnectionsPerUser = options_.maxConnectionsPerUser;
  listenerOptions.receiveBudgetBytes = options_.receiveBudgetBytes;
  listener_ = std::make_unique<ipc::Listener>(std::string(agentServiceName), listenerOptions);
  listener_->setConnectionHandler([this](ipc::Peer& peer) {
    const std::uint64_t id = nextClientID_++;
    const auto& credentials = peer.credentials();
    const bool mayChangeState =
        credentials.uid == 0 || credentials.uid == ::geteuid()
        || (allowedGroup_ && belongsTo(credentials.pid, credentials.gid, *allowedGroup_));
    peer.setExportedInterface(ServiceProtocol::interface());
    peer.setRemoteObjectInterface(TetherClientProtocolDescription::interface());
    peer.setExportedObject(std::make_shared<Calls>(*this, id));
    peer.setInvalidationHandler([this, id] { asio::post(io_, [this, id] { clientGone(id); }); });
    // Posted before any of its calls can be, so the client is known when they arrive.
    asio::post(io_, [this, id, peer, mayChangeState] { clientArrived(id, peer, mayChangeState); });
    return true;
  });
  listener_->resume();
  if (engine_.busy()) scheduleTick();
  idleSince_ = std::chrono::steady_clock::now();
  if (options_.idleExit && listener_->isActivated()) scheduleIdleCheck();
  log(LogLevel::notice, fmt::format("serving {} ({} declarations, {} apps, catalogue of {})",
                                    listener_->path().native(), declarations_.size(),
                                    engine_.size(), catalog_.apps().size()));
}

void Daemon::stop() {
  if (stopped_) return;
  stopped_ = true;
  tickTimer_.cancel();
  idleTimer_.cancel();
  if (listener_) listener_->invalidate();
  clients_.clear();
  if (stoppedHandler_) std::exchange(stoppedHandler_, nullptr)();
}

const std::filesystem::path& Daemon::socketPath() const {
  static const std::filesystem::path none;
  return listener_ ? listener_->path() : none;
}

bool Daemon::isActivated() const {
  return listener_ && listener_->isActivated();
}

void Daemon::log(LogLevel level, const std::string& line) {
  LogCategory::daemon().write(level, line);
  // Without a journal the platform log already writes to standard error.
  static const bool journal = std::filesystem::exists("/run/systemd/journal/socket");
  if (options_.verbose && journal) fmt::print(stderr, "corvaned-sim: {}\n", line);
  const auto logging = MessageRegistration::logging();
  for (auto& [id, client] : clients_) {
    if (client.registrations.contains(logging))
      send(client, {TetherClientMessage{TetherClientMessage::MessageType::log(line)}});
  }
}

void Daemon::clientArrived(std::uint64_t id, const ipc::Peer& peer, bool mayChangeState) {
  if (stopped_) return;
  Client client;
  client.id = id;
  client.credentials = peer.credentials();
  client.mayChangeState = mayChangeState;
  client.proxy = peer.remoteObjectProxy([id](const ipc::CallError& error) {
    LogCategory::daemon().info("push to client {} failed: {}", id, error.description());
  });
  auto& stored = clients_.insert_or_assign(id, std::move(client)).first->second;
  LogCategory::daemon().info("client {} connected (pid {}, uid {})", id, stored.credentials.pid,
                             stored.credentials.uid);
  send(stored, {TetherClientMessage{TetherClientMessage::MessageType::connectionEstablished()}});
}

void Daemon::clientGone(std::uint64_t id) {
  if (clients_.erase(id) > 0) LogCategory::daemon().info("client {} went away", id);
  idleSince_ = std::chrono::steady_clock::now();
}

void Daemon::send(Client& client, const std::vector<TetherClientMessage>& messages) {
  PeerReceiver receiver(client.proxy);
  corvane::send(receiver, messages);
}

void Daemon::dispatch(std::uint64_t clientID, const std::string& operation,
                      std::optional<Bytes> argument, ipc::Reply reply) {
  if (stopped_) return;  // the reply answers "no reply" as it goes
  if (options_.crashAfter && repliesSent_ >= *options_.crashAfter) {
    LogCategory::daemon().fault("crashing on purpose after {} replies", repliesSent_);
    std::fflush(nullptr);
    std::abort();
  }
  const auto found = clients_.find(clientID);
  Client* client = found == clients_.end() ? nullptr : &found->second;
  if (changesState(operation) && (client == nullptr || !client->mayChangeState)) {
    const auto credentials = client ? client->credentials : ipc::PeerCredentials{};
    log(LogLevel::error, fmt::format("permission denied: {} refused to uid {} (pid {})", operation,
                                     credentials.uid, credentials.pid));
    ++repliesSent_;
    reply.fail(
        fmt::format("permission denied: uid {} may not call {}", credentials.uid, operation));
    return;
  }
  if (const auto injected = options_.failures.find(operation);
      injected != options_.failures.end()) {
    log(LogLevel::info,
        fmt::format("{} fails on purpose with {}", operation, caseName(injected->second)));
    // The plain envelope, as a daemon that gives no reason sends it.
    answer(std::move(reply), failure(injected->second, std::nullopt));
    return;
  }
  Bytes result;
  std::optional<std::string> reason;
  try {
    result = perform(client, operation, argument);
  } catch (const CodingError& error) {
    log(LogLevel::error, fmt::format("{}: malformed argument from client {}: {}", operation,
                                     clientID, error.what()));
    reason = malformedArgument(error);
  } catch (const Refusal& refusal) {
    log(LogLevel::error, fmt::format("{}: {}", operation, refusal.what()));
    reason = refusal.what();
  } catch (const StoreError& error) {
    log(LogLevel::fault,
        fmt::format("{}: the state could not be stored: {}", operation, error.what()));
    reason = fmt::format("the change could not be stored: {}", error.what());
  }
  if (reason) {
    // A call that fails changes nothing: whatever it began in the engine is undone.
    engine_.rollback();
    result = failure(CorvaneError::unrecoverableError, std::move(reason));
  }
  answer(std::move(reply), std::move(result));
}

void Daemon::answer(ipc::Reply reply, Bytes result) {
  ++repliesSent_;
  if (options_.delay.count() == 0) {
    reply.send(std::move(result));
    return;
  }
  auto timer = std::make_shared<asio::steady_timer>(io_, options_.delay);
  timer->async_wait([timer, reply = std::move(reply),
                     result = std::move(result)](const boost::system::error_code&) mutable {
    reply.send(std::move(result));
  });
}

Bytes Daemon::perform(Client* client, std::string_view operation,
                      const std::optional<Bytes>& argument) {
  if (operation == Selectors::addOrUpdateManagedApp.name) return addOrUpdate(required(argument));
  if (operation == Selectors::removeManagedAppWithDeclarationIdentifier.name)
    return removeDeclaration(required(argument));
  if (operation == Selectors::getDeclarationStatus.name)
    return declarationStatus(required(argument));
  if (operation == Selectors::currentDeclarationKeys.name) return declarationKeys();
  if (operation == Selectors::resetManagedAppInstallHistory.name) return resetHistory();
  if (operation == Selectors::pollForMediaAPIUpdates.name) return poll();
  if (operation == Selectors::handleVPPInstallRequest.name) return vppInstall(required(argument));
  if (operation == Selectors::installEnterpriseManifest.name)
    return enterpriseInstall(required(argument));
  if (operation == Selectors::installManagedApp.name) return install(required(argument));
  if (operation == Selectors::cancelManagedApp.name) return cancel(required(argument));
  if (operation == Selectors::handleLaunchAppRequest.name) return launch(required(argument));
  if (client != nullptr && operation == Selectors::addMessageRegistrations.name)
    return changeRegistrations(client, required(argument), true);
  if (client != nullptr && operation == Selectors::removeMessageRegistrations.name)
    return changeRegistrations(client, required(argument), false);
  throw Refusal(fmt::format("{} is not served", operation));
}

// ---- Declarations ---------------------------------------------------------------------------

Bytes Daemon::addOrUpdate(const Bytes& argument) {
  auto [request] = TetherDecoder<DDMAppOrUpdateManagedAppRequest>::decode(argument);
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
  engine_.put(std::move(record));
  if (!known) {
    engine_.fail(bundleID, ManagedAppStatus::Reason::couldNotVerifyAppID);
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

Bytes Daemon::removeDeclaration(const Bytes& argument) {
  const std::string identifier = std::get<0>(TetherDecoder<std::string>::decode(argument));
  if (!declarations_.contains(identifier))
    throw Refusal(fmt::format("unknown declaration {}", identifier));
  if (const auto bundleID = bundleOfDeclaration(identifier)) engine_.remove(*bundleID);
  commit([&] { store_.removeDeclaration(identifier); });
  declarations_.erase(identifier);
  log(LogLevel::info, fmt::format("declaration {} removed", identifier));
  publishCatalog();
  return done();
}

Bytes Daemon::declarationStatus(const Bytes& argument) const {
  auto [request] = TetherDecoder<DDMDeclarationStatusRequest>::decode(argument);
  std::vector<ManagedAppStatus> statuses;
  for (const auto& record : engine_.records()) {
    if (request.declarationKey && record.declarationKey != *request.declarationKey) continue;
    statuses.push_back(record.status());
  }
  return success(std::move(statuses));
}

Bytes Daemon::declarationKeys() const {
  std::set<std::string> keys;
  for (const auto& [identifier, declaration] : declarations_)
    keys.insert(declaration.declarationKey);
  return success(std::vector<std::string>(keys.begin(), keys.end()));
}

Bytes Daemon::resetHistory() {
  engine_.clearFailures();
  // With the failures forgotten, declarations that install at once try again.
  for (const auto& [identifier, declaration] : declarations_) {
    if (declaration.installBehavior.installTiming != InstallTimingEnum::immediately) continue;
    if (const auto bundleID = bundleOfDeclaration(identifier)) {
      const AppRecord* record = engine_.find(*bundleID);
      if (record != nullptr && record->phase == Phase::optional
          && catalog_.findBundle(*bundleID) != nullptr)
        engine_.install(*bundleID);
    }
  }
  commit([&] { store_.clearHistory(); });
  log(LogLevel::info, "install history reset");
  return done();
}

Bytes Daemon::poll() {
  log(LogLevel::info, "polled for updates; publishing the catalogue");
  publishCatalog();
  return done();
}

// ---- Installs -------------------------------------------------------------------------------

Bytes Daemon::vppInstall(const Bytes& argument) {
  auto [request] = TetherDecoder<VPPInstallRequest>::decode(argument);
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
  // An update downloads and installs an installed app again; an install on its way carries on.
  if (type == VPPInstallRequest::RequestType::update) engine_.uninstall(bundleID);
  engine_.install(bundleID);
  commit();
  log(LogLevel::info, fmt::format("volume-purchase {} of {}", coding::caseNameOf(type), bundleID));
  return done();
}

Bytes Daemon::enterpriseInstall(const Bytes& argument) {
  auto [app] = TetherDecoder<EnterpriseApp>::decode(argument);
  const auto& url = app.manifestURL();
  if (url.scheme() != "https" && url.scheme() != "http")
    throw Refusal(fmt::format("a manifest must be fetched over http(s), not {}", url.buffer()));
  const std::string bundleID = enterpriseBundle(url);
  if (engine_.find(bundleID) == nullptr) {
    AppRecord record;
    record.bundleID = bundleID;
    record.declarationIdentifier = "enterprise." + std::string(url.buffer());
    record.name = bundleID.substr(std::string_view("enterprise.").size());
    record.version = "1.0";
    record.uuid = boost::uuids::random_generator()();
    engine_.put(std::move(record));
  }
  engine_.install(bundleID);
  commit();
  log(LogLevel::info, fmt::format("enterprise install of {} from {}", bundleID, url.buffer()));
  return done();
}

Bytes Daemon::install(const Bytes& argument) {
  auto [request] = TetherDecoder<ManagedAppInstallRequest>::decode(argument);
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
  if (engine_.install(bundleID)) {
    commit();
    log(LogLevel::info, fmt::format("install of {} ({}) queued", bundleID, identifier));
  } else {
    log(LogLevel::info, fmt::format("{} is already installed or on its way", bundleID));
  }
  return done();
}

Bytes Daemon::cancel(const Bytes& argument) {
  auto [request] = TetherDecoder<ManagedAppCancelRequest>::decode(argument);
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

Bytes Daemon::launch(const Bytes& argument) {
  auto [bundleID] = TetherDecoder<std::string>::decode(argument);
  const AppRecord* record = engine_.find(bundleID);
  if (record == nullptr || record->phase != Phase::managed)
    throw Refusal(fmt::format("{} is not installed, so it cannot be launched", bundleID));
  LogCategory::appLaunch().notice("launching {}", bundleID);
  log(LogLevel::info, fmt::format("launched {}", bundleID));
  return done();
}

// ---- Push -----------------------------------------------------------------------------------

Bytes Daemon::changeRegistrations(Client* client, const Bytes& argument, bool add) {
  auto [registrations, clientUUID] =
      TetherDecoder<std::vector<MessageRegistration>, boost::uuids::uuid>::decode(argument);
  for (const auto& registration : registrations) {
    if (!add) {
      client->registrations.erase(registration);
      continue;
    }
    if (client->registrations.insert(registration).second) sendCurrentState(*client, registration);
  }
  LogCategory::daemon().info("client {} ({}) {} {}", client->id,
                             boost::uuids::to_string(clientUUID), add ? "registered" : "withdrew",
                             description(registrations));
  return done();
}

void Daemon::sendCurrentState(Client& client, const MessageRegistration& registration) {
  std::vector<TetherClientMessage> messages;
  const auto progressOf = [](const AppRecord& record) {
    return TetherClientMessage{TetherClientMessage::MessageType::appProgress(
        AppProgress{record.appState(), record.bundleID, record.uuid})};
  };
  std::visit(
      [&]<class Case>(const Case& which) {
        if constexpr (std::is_same_v<Case, MessageRegistration::AppCatalog>) {
          messages.push_back(TetherClientMessage{
              TetherClientMessage::MessageType::managedAppCatalog(catalogEntries(), std::nullopt)});
        } else if constexpr (std::is_same_v<Case, MessageRegistration::AppStateChangeByBundleID>) {
          if (const AppRecord* record = engine_.find(which.bundleID)) {
            messages.push_back(progressOf(*record));
          } else if (catalog_.findBundle(which.bundleID) != nullptr) {
            // A catalogue app nobody has asked for yet: it can be obtained.
            messages.push_back(TetherClientMessage{TetherClientMessage::MessageType::appProgress(
                AppProgress{AppState::available(AppState::Availability::available), which.bundleID,
                            boost::uuids::uuid{}})});
          }
        } else if constexpr (std::is_same_v<Case, MessageRegistration::GlobalAppProgress>) {
          for (const auto& record : engine_.records())
            if (record.phase != Phase::managed && record.phase != Phase::optional)
              messages.push_back(progressOf(record));
        }
      },
      registration.cases());
  if (!messages.empty()) send(client, messages);
}

std::vector<ManagedApp> Daemon::catalogEntries() const {
  std::vector<ManagedApp> entries;
  for (const auto& [identifier, declaration] : declarations_) {
    const auto bundleID = bundleOfDeclaration(identifier);
    if (!bundleID) continue;
    if (auto entry = catalog_.entryFor(*bundleID, identifier)) entries.push_back(std::move(*entry));
  }
  return entries;
}

void Daemon::publishCatalog() {
  const auto registration = MessageRegistration::appCatalog();
  std::optional<TetherClientMessage> message;
  for (auto& [id, client] : clients_) {
    if (!client.registrations.contains(registration)) continue;
    if (!message)
      message = TetherClientMessage{
          TetherClientMessage::MessageType::managedAppCatalog(catalogEntries(), std::nullopt)};
    send(client, {*message});
  }
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

void Daemon::commit() {
  commit([] {});
}

template <class Extra>
void Daemon::commit(Extra&& extra) {
  try {
    store_.transaction([&] {
      std::forward<Extra>(extra)();
      for (const auto& change : engine_.changes()) {
        if (!change.phaseChanged) continue;
        if (change.removed)
          store_.removeApp(change.record.bundleID);
        else
          store_.putApp(change.record);
        store_.addHistory(change.record.bundleID, historyEvent(change.record, change.removed));
      }
    });
  } catch (...) {
    // Memory follows the disk: a change the store did not take is undone in the engine too.
    engine_.rollback();
    throw;
  }
  const auto changes = engine_.takeChanges();

  // Each client gets one batch: the changes of the apps it follows, in order.
  const auto global = MessageRegistration::globalAppProgress();
  for (auto& [id, client] : clients_) {
    std::vector<TetherClientMessage> batch;
    for (const auto& change : changes) {
      if (!client.registrations.contains(global)
          && !client.registrations.contains(
              MessageRegistration::appStateChangeByBundleID(change.record.bundleID)))
        continue;
      const AppState state = change.removed
                                 ? AppState::available(AppState::Availability::redownload)
                                 : change.record.appState();
      batch.push_back(TetherClientMessage{TetherClientMessage::MessageType::appProgress(
          AppProgress{state, change.record.bundleID, change.record.uuid})});
    }
    if (!batch.empty()) send(client, batch);
  }
  for (const auto& change : changes) {
    if (change.phaseChanged && !change.removed)
      LogCategory::install().info("{}: {}", change.record.bundleID, change.record.appState());
  }
  if (engine_.busy()) scheduleTick();
}

void Daemon::scheduleTick() {
  if (ticking_ || stopped_) return;
  ticking_ = true;
  tickTimer_.expires_after(options_.tick);
  tickTimer_.async_wait([this](const boost::system::error_code& error) {
    ticking_ = false;
    if (error || stopped_) return;
    engine_.tick();
    try {
      commit();
    } catch (const StoreError& failure) {
      log(LogLevel::fault,
          fmt::format("the install state could not be stored: {}", failure.what()));
      // The step was undone with the failed commit; it is tried again on the next tick.
      if (engine_.busy()) scheduleTick();
    }
    if (!engine_.busy()) idleSince_ = std::chrono::steady_clock::now();
  });
}

void Daemon::scheduleIdleCheck() {
  idleTimer_.expires_after(std::chrono::seconds(1));
  idleTimer_.async_wait([this](const boost::system::error_code& error) {
    if (error || stopped_) return;
    if (!clients_.empty() || engine_.busy()) idleSince_ = std::chrono::steady_clock::now();
    if (std::chrono::steady_clock::now() - idleSince_ >= *options_.idleExit) {
      log(LogLevel::notice, "idle; exiting until the socket activates the daemon again");
      stop();
      return;
    }
    scheduleIdleCheck();
  });
}

}  // namespace corvane::sim
