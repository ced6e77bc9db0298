#include <corvane/platform/FeatureFlags.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/service/ServiceConnection.hpp>

#include <fmt/format.h>

#include <map>
#include <mutex>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace corvane {

namespace service::detail {
/// The observers of a connection's losses, shared with the observations that remove them.
struct LossObservers {
  std::mutex mutex;
  std::uint64_t nextId = 1;
  std::map<std::uint64_t, std::shared_ptr<const std::function<void()>>> observers;

  void remove(std::uint64_t id) {
    const std::lock_guard registry(mutex);
    observers.erase(id);
  }

  // Logs the loss, then calls the observers registered now, without the lock.
  void lost(std::string_view logLine) {
    LogCategory::tether().error("{}", logLine);
    std::vector<std::shared_ptr<const std::function<void()>>> current;
    {
      const std::lock_guard registry(mutex);
      for (const auto& [id, observer] : observers) current.push_back(observer);
    }
    for (const auto& observer : current) (*observer)();
  }
};
}  // namespace service::detail

LossObservation& LossObservation::operator=(LossObservation&& other) noexcept {
  if (this != &other) {
    if (const auto observers = observers_.lock()) observers->remove(id_);
    observers_ = std::move(other.observers_);
    id_ = other.id_;
  }
  return *this;
}

LossObservation::~LossObservation() {
  if (const auto observers = observers_.lock()) observers->remove(id_);
}

namespace {

constexpr std::string_view systemRuntimeDirectory = "/run/corvane";

/// The connection's options: the service must be root in the system runtime directory, and the
/// caller's own user or root in a private one.
ipc::ConnectionOptions connectionOptions(const std::filesystem::path& runtimeDirectory,
                                         std::string resumeToken) {
  ipc::ConnectionOptions options;
  options.runtimeDirectory =
      runtimeDirectory.empty() ? ipc::defaultRuntimeDirectory() : runtimeDirectory;
  const bool system =
      options.runtimeDirectory.lexically_normal() == std::filesystem::path(systemRuntimeDirectory);
  options.requiredServiceUid = system ? 0U : static_cast<std::uint32_t>(::getuid());
  options.rootServiceTrusted = true;
  // The hub never asks again for what it registered; the connection comes back by itself and
  // names the hub, and the daemon restores its registrations and sends what it missed.
  options.resumeToken = std::move(resumeToken);
  options.reconnects = true;
  return options;
}

std::string causeOf(const ipc::CallError& error) {
  switch (static_cast<ipc::ConnectionError>(error.code().value())) {
    case ipc::ConnectionError::connectFailed:
      return "cannot connect to " + error.reason();
    case ipc::ConnectionError::peerFault:
      return "the service answered with a fault: " + error.reason();
    case ipc::ConnectionError::interrupted:
      return "the connection to the service was lost: " + error.reason();
    default:
      return error.description();
  }
}

}  // namespace

bool isServiceEnabled() noexcept {
  return platform::FeatureFlags::isEnabled(domain(FeatureFlag::service),
                                           feature(FeatureFlag::service));
}

ServiceConnection& ServiceConnection::shared() {
  // A construction that throws leaves the instance unmade, so the next call tries again.
  static ServiceConnection instance;
  static const bool marked = [] {
    instance.shared_ = true;
    return true;
  }();
  (void)marked;
  return instance;
}

ServiceConnection::ServiceConnection(const std::filesystem::path& runtimeDirectory,
                                     std::shared_ptr<ipc::ExportedObject> hub,
                                     std::string resumeToken) {
  if (!isServiceEnabled())
    throw Error(CorvaneError::unrecoverableError, "the service is switched off");
  connection_ = std::make_unique<ipc::Connection>(
      std::string(agentServiceName), connectionOptions(runtimeDirectory, std::move(resumeToken)));
  connection_->setExportedInterface(TetherClientProtocolDescription::interface());
  connection_->setExportedObject(std::move(hub));
  connection_->setRemoteObjectInterface(ServiceProtocol::interface());
  // Neither handler holds on to this object; the connection reconnects by itself.
  lossObservers_ = std::make_shared<service::detail::LossObservers>();
  connection_->setInterruptionHandler(
      [observers = lossObservers_] { observers->lost("Daemon connection interrupted"); });
  connection_->setInvalidationHandler(
      [observers = lossObservers_] { observers->lost("Daemon connection invalidated"); });
  connection_->resume();
  proxy_.emplace(connection_->remoteObjectProxy<ServiceProtocol>({}));
  synchronousProxy_.emplace(connection_->synchronousRemoteObjectProxy<ServiceProtocol>({}));
}

ServiceConnection::~ServiceConnection() {
  if (shared_) {
    // The shared connection is never released: it only goes with the process, which is no
    // invalidation anybody needs to hear of. Its threads are still stopped and joined.
    connection_->setInterruptionHandler({});
    connection_->setInvalidationHandler({});
  }
  connection_->invalidate();
}

LossObservation ServiceConnection::observeLoss(std::function<void()> onLost) {
  auto observer = std::make_shared<const std::function<void()>>(std::move(onLost));
  const std::lock_guard registry(lossObservers_->mutex);
  const std::uint64_t id = lossObservers_->nextId++;
  lossObservers_->observers.emplace(id, std::move(observer));
  return {lossObservers_, id};
}

ipc::DeliveryExecutor ServiceConnection::executor() const {
  return connection_->executor();
}

namespace service::detail {

std::exception_ptr localFailure(std::string cause, std::error_code origin) {
  return std::make_exception_ptr(Error(CorvaneError::unrecoverableError, std::move(cause), origin));
}

namespace {
void logProxyFailure(std::string_view description, bool synchronous) {
  if (synchronous) {
    LogCategory::tether().error("Error fetching synchronous remote object proxy: {}", description);
  } else {
    LogCategory::tether().error("Error fetching remote object proxy: {}", description);
  }
}
}  // namespace

std::exception_ptr callFailure(const ipc::CallError& error, bool synchronous) {
  logProxyFailure(error.description(), synchronous);
  return localFailure(causeOf(error), error.code());
}

std::exception_ptr cancelledFailure() {
  // The value of boost::asio::error::operation_aborted.
  return localFailure("the call was cancelled", std::error_code(ECANCELED, std::system_category()));
}

CallLog::CallLog(std::string_view operation) noexcept : operation_(operation) {
  if (LogCategory::tether().isEnabled(platform::LogLevel::debug))
    start_ = std::chrono::steady_clock::now();
}

void CallLog::finished(const std::exception_ptr& failure) const noexcept {
  if (!start_) return;
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - *start_;
  if (!failure) {
    LogCategory::tether().debug("{} succeeded in {:.3f} ms", operation_, took.count());
    return;
  }
  std::string what;
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
    what = "an unknown failure";
  }
  LogCategory::tether().debug("{} failed in {:.3f} ms: {}", operation_, took.count(), what);
}

std::exception_ptr decodingFailure(const std::exception& error) {
  const auto* coding = dynamic_cast<const CodingError*>(&error);
  const std::string description = coding != nullptr
                                      ? fmt::format("{} at {}: {}", toString(coding->kind()),
                                                    coding->codingPath(), coding->description())
                                      : std::string(error.what());
  LogCategory::tether().error("Error decoding Tether values: {}", description);
  return localFailure("the reply could not be decoded: " + description);
}

ServiceConnection* sharedConnection(std::exception_ptr& failure, bool synchronous) noexcept {
  try {
    return &ServiceConnection::shared();
  } catch (const Error&) {
    // Only the switch refuses with a corvane::Error; it is no fault of the connection.
    failure = std::current_exception();
  } catch (const std::exception& e) {
    const std::string cause = std::string("the connection could not be made: ") + e.what();
    logProxyFailure(cause, synchronous);
    failure = localFailure(cause);
  }
  return nullptr;
}

}  // namespace service::detail

}  // namespace corvane
