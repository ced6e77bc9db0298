#include "Daemon.hpp"

#include "FlatpakBackend.hpp"
#include "Replies.hpp"
#include "SimulatedBackend.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/requests/ManagedAppDeclaration.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <boost/json/serialize.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <grp.h>
#include <utility>
#include <vector>

namespace corvane::sim {

namespace asio = boost::asio;
using platform::LogLevel;

namespace {

std::string historyEvent(const AppRecord& record, bool removed) {
  if (removed) return "removed";
  if (record.phase == Phase::failed && !record.reasons.empty())
    return fmt::format("failed: {}", coding::caseNameOf(record.reasons.front()));
  return std::string(toString(record.phase));
}

}  // namespace

Daemon::Daemon(asio::io_context& io, Options options, Catalog catalog)
    : io_(io),
      options_(std::move(options)),
      catalog_(std::move(catalog)),
      store_(options_.stateFile),
      backend_(makeBackend()),
      engine_(*backend_, EngineSettings{options_.parallelInstalls}),
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
  // A backend with a catalogue of its own (the remotes' apps) replaces the configured one.
  if (auto own = backend_->catalog()) catalog_ = std::move(*own);
  // Apps installed from manifests are installed from them again after a restart.
  for (const auto& manifest : store_.manifests()) {
    try {
      (void)backend_->takeManifest(manifest.url, manifest.contents);
    } catch (const BackendError& error) {
      log(LogLevel::error, fmt::format("stored manifest of {} unreadable ({}); dropped",
                                       manifest.bundleID, error.what()));
    }
  }
  for (auto& record : store_.apps()) engine_.put(std::move(record));
  (void)engine_.takeChanges();
  // Clients away for longer than the retention are not coming back for their registrations.
  store_.forgetClientsSeenBefore(secondsNow() - resumableClientRetention.count());
}

Daemon::~Daemon() {
  // The workers call into this object; they are joined here, before any member goes.
  listener_.reset();
  fetches_.stop();
  launches_.stop();
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
    accept(peer);
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
  // A download under way gives up; the calls waiting for one are answered "no reply" as their
  // connections close.
  fetches_.stop();
  launches_.stop();
  deferred_.clear();
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
  // Named as it was started: corvaned or corvaned-sim.
  if (options_.verbose && journal)
    fmt::print(stderr, "{}: {}\n", program_invocation_short_name, line);
  const auto logging = MessageRegistration::logging();
  for (auto& [id, client] : clients_) {
    if (client.registrations.contains(logging))
      send(client, {TetherClientMessage{TetherClientMessage::MessageType::log(line)}});
  }
}

void Daemon::dispatch(std::uint64_t clientID, const Operation& operation,
                      std::optional<Bytes> argument, ipc::Reply reply) {
  if (stopped_) return;  // the reply answers "no reply" as it goes
  if (options_.crashAfter && repliesSent_ >= *options_.crashAfter) {
    LogCategory::daemon().fault("crashing on purpose after {} replies", repliesSent_);
    std::fflush(nullptr);
    std::abort();
  }
  const auto found = clients_.find(clientID);
  if (found == clients_.end()) return;  // gone: nobody reads the answer
  Client& client = found->second;
  if (operation.effect == Effect::changesState && !client.mayChangeState) {
    log(LogLevel::error,
        fmt::format("permission denied: {} refused to uid {} (pid {})", operation.name,
                    client.credentials.uid, client.credentials.pid));
    ++repliesSent_;
    reply.fail(fmt::format("permission denied: uid {} may not call {}", client.credentials.uid,
                           operation.name));
    return;
  }
  if (const auto injected = options_.failures.find(operation.name);
      injected != options_.failures.end()) {
    log(LogLevel::info,
        fmt::format("{} fails on purpose with {}", operation.name, caseName(injected->second)));
    // The plain envelope, as a daemon that gives no reason sends it.
    answer(std::move(reply), failure(injected->second, std::nullopt));
    return;
  }
  auto result = perform(operation.name, clientID, [&]() -> std::optional<Bytes> {
    if (operation.deferring != nullptr)
      return (this->*operation.deferring)(client, argument, reply);
    return (this->*operation.handler)(client, argument);
  });
  if (result) answer(std::move(reply), std::move(*result));
}

std::optional<Bytes> Daemon::perform(std::string_view operation, std::uint64_t clientID,
                                     const std::function<std::optional<Bytes>()>& body) {
  std::optional<std::string> reason;
  try {
    return body();
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
  // A call that fails changes nothing: whatever it began in the engine is undone.
  engine_.rollback();
  return failure(CorvaneError::unrecoverableError, std::move(reason));
}

std::uint64_t Daemon::defer(ipc::Reply& reply) {
  const std::uint64_t ticket = nextTicket_++;
  deferred_.emplace(ticket, std::move(reply));
  return ticket;
}

std::optional<ipc::Reply> Daemon::takeDeferred(std::uint64_t ticket) {
  auto kept = deferred_.extract(ticket);
  if (kept.empty()) return std::nullopt;
  return std::move(kept.mapped());
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

void Daemon::commit(const std::function<void()>& extra) {
  try {
    store_.transaction([&] {
      if (extra) extra();
      for (const auto& change : engine_.changes()) {
        if (!change.phaseChanged) continue;
        if (change.removed) {
          store_.removeApp(change.record.bundleID);
          store_.removeManifest(change.record.bundleID);
        } else {
          store_.putApp(change.record);
        }
        store_.addHistory(change.record.bundleID, historyEvent(change.record, change.removed));
      }
    });
  } catch (...) {
    // Memory follows the disk: a change the store did not take is undone in the engine too.
    engine_.rollback();
    throw;
  }
  const auto changes = engine_.takeChanges();
  push(changes);
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
    advance(true);
  });
}

void Daemon::advance(bool tick) {
  if (tick)
    engine_.tick();
  else
    engine_.update();
  const bool catalogChanged = takeCatalog();
  // Declared apps follow their declaration's update behaviour, which is always to update
  // automatically: a newer build found for one in this step is installed at once. Only this
  // step's changes are looked at, not every app on every tick.
  std::vector<std::string> updatable;
  for (const auto& change : engine_.changes()) {
    const auto& record = change.record;
    if (!change.removed && record.phase == Phase::managed
        && declarations_.contains(record.declarationIdentifier)
        && std::ranges::find(record.reasons, ManagedAppStatus::Reason::updateAvailable)
               != record.reasons.end())
      updatable.push_back(record.bundleID);
  }
  for (const auto& bundleID : updatable) engine_.upgrade(bundleID);
  if (catalogChanged) publishCatalog();
  try {
    commit();
  } catch (const StoreError& failure) {
    log(LogLevel::fault, fmt::format("the install state could not be stored: {}", failure.what()));
    // The step was undone with the failed commit; it is tried again on the next tick.
    if (engine_.busy()) scheduleTick();
  }
  if (!engine_.busy()) idleSince_ = std::chrono::steady_clock::now();
}

bool Daemon::takeCatalog() {
  auto fresh = backend_->takeCatalog();
  if (!fresh) return false;
  catalog_ = std::move(*fresh);
  log(LogLevel::info, fmt::format("catalogue refreshed: {} apps", catalog_.apps().size()));
  return true;
}

std::unique_ptr<InstallBackend> Daemon::makeBackend() {
  if (options_.engine == EngineKind::flatpak) {
    FlatpakSettings settings;
    settings.installation = options_.installation;
    settings.remotes = options_.remotes;
    settings.workers = options_.parallelInstalls;
    return std::make_unique<FlatpakBackend>(std::move(settings), [this] { backendReported(); });
  }
  return std::make_unique<SimulatedBackend>(
      SimulationSettings{.failures = options_.installFailures});
}

void Daemon::backendReported() {
  // Any thread. One update waits on the io_context at a time; it takes every report there is.
  if (updatePosted_.exchange(true)) return;
  asio::post(io_, [this] {
    updatePosted_ = false;
    if (!stopped_) advance(false);
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
