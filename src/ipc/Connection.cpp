#include "ipc/detail/Channel.hpp"
#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <random>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvane::ipc {

std::filesystem::path defaultRuntimeDirectory() {
  const char* fromEnvironment = std::getenv("CORVANE_RUNTIME_DIR");  // NOLINT: read-only use
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
  return "/run/corvane";
}

std::filesystem::path servicePath(const std::string& serviceName,
                                  const std::filesystem::path& runtimeDirectory) {
  if (serviceName.empty() || serviceName == "." || serviceName == ".."
      || serviceName.find('/') != std::string::npos
      || serviceName.find('\0') != std::string::npos) {
    throw std::invalid_argument("invalid service name \"" + serviceName + "\"");
  }
  auto path =
      (runtimeDirectory.empty() ? defaultRuntimeDirectory() : runtimeDirectory) / serviceName;
  if (path.native().size() >= sizeof(sockaddr_un::sun_path)) {
    throw std::invalid_argument("socket path too long: " + path.native());
  }
  return path;
}

namespace detail {

namespace {

/// A socket fd that closes itself unless released.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = other.release();
    }
    return *this;
  }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace

/// First and longest wait between the attempts of a connection that reconnects by itself.
constexpr std::chrono::milliseconds firstReconnectDelay{50};
constexpr std::chrono::milliseconds longestReconnectDelay{1000};

/// The state behind a Connection; proxies keep it alive, the Connection owns its threads. It
/// watches its reconnect timer (a timerfd) in the runtime's epoll set, so a service that stays
/// away costs one wake-up per attempt and no thread of its own.
class ConnectionCore final : public ChannelOwner,
                             public ProxyTarget,
                             public Watcher,
                             public std::enable_shared_from_this<ConnectionCore> {
 public:
  ConnectionCore(std::filesystem::path path, ConnectionOptions options)
      : path_(std::move(path)),
        options_(std::move(options)),
        runtime_(std::make_shared<Runtime>(2)),
        delivery_(boost::asio::make_strand(Executor(runtime_))) {}

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  [[nodiscard]] DeliveryExecutor executor() const override { return delivery_; }

  template <class Field, class Value>
  void set(Field ConnectionCore::*field, Value value) {
    const std::lock_guard state(mutex_);
    this->*field = std::move(value);
  }

  void resume() {
    const std::lock_guard state(mutex_);
    if (state_ == State::idle) state_ = State::resumed;
  }

  void invalidate(const std::string& reason) {
    std::shared_ptr<Channel> channel;
    {
      const std::lock_guard state(mutex_);
      if (state_ == State::invalidated) return;
      state_ = State::invalidated;
      channel = std::move(channel_);
    }
    // The channel queues the outcomes of its calls in flight first, so they run before the
    // invalidation handler.
    if (channel) channel->close(CloseReason::invalidated, reason);
    boost::asio::post(delivery_, [self = shared_from_this()] { self->runInvalidationHandler(); });
  }

  void shutdown() {
    invalidate("the connection was destroyed");
    {
      const std::lock_guard state(mutex_);
      if (timerKey_ != 0) runtime_->unwatch(timer_.get(), timerKey_);
      timerKey_ = 0;
    }
    runtime_->stop();
  }

  // The reconnect timer fired (on a worker).
  void ready(std::uint64_t /*key*/, std::uint32_t /*events*/) override {
    std::uint64_t expirations = 0;
    while (::read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == EINTR) {
    }
    {
      const std::lock_guard state(mutex_);
      if (state_ != State::resumed) return;
    }
    std::optional<CallError> error;
    try {
      if (connectIfNeeded(error) || !error) return;
    } catch (const std::exception& e) {
      error.emplace(ConnectionError::connectFailed, e.what());
    }
    if (error->is(ConnectionError::connectFailed)) {
      LogCategory::tether().debug("Reconnecting to {} failed: {}", path_.native(),
                                  error->description());
      scheduleReconnect(false);
    }
  }

  RemoteProxy proxy(ErrorHandler errorHandler, bool synchronous) {
    return {shared_from_this(), std::move(errorHandler), synchronous};
  }

  void send(Outgoing outgoing) noexcept override {
    try {
      std::optional<CallError> error;
      auto channel = acquireChannel(outgoing, error);
      if (error) {
        refuse(outgoing, std::move(*error), delivery_);
        return;
      }
      channel->send(std::move(outgoing));
    } catch (const std::exception& e) {
      refuse(outgoing, {ConnectionError::connectFailed, e.what()}, delivery_);
    }
  }

  // Runs on the delivery executor.
  void channelClosed(const std::shared_ptr<Channel>& channel, CloseReason reason,
                     const std::string& detail) override {
    bool interrupted = false;
    bool invalidated = false;
    std::function<void()> interruptionHandler;
    std::chrono::steady_clock::time_point connectedAt;
    {
      const std::lock_guard state(mutex_);
      if (channel_ != channel) return;  // an older channel, or invalidate() took it already
      channel_.reset();
      connectedAt = connectedAt_;
      if (reason == CloseReason::peerLost) {
        interrupted = state_ == State::resumed;
        interruptionHandler = interruptionHandler_;
      } else if (state_ != State::invalidated) {
        state_ = State::invalidated;
        invalidated = true;
      }
    }
    if (interrupted) {
      LogCategory::tether().info("Connection to {} interrupted: {}", path_.native(), detail);
      if (interruptionHandler) runUserCode("interruption handler", interruptionHandler);
      // A channel the service dropped soon after it was made (say, over its connection limit)
      // does not start the backoff over, so such a service gets at most one attempt a second.
      if (reconnectsNow())
        scheduleReconnect(std::chrono::steady_clock::now() - connectedAt > longestReconnectDelay);
    }
    if (invalidated) {
      LogCategory::tether().info("Connection to {} invalidated: {}", path_.native(), detail);
      runInvalidationHandler();
    }
  }

  std::optional<InterfaceDescription> exportedInterface_;
  std::shared_ptr<ExportedObject> exportedObject_;
  std::shared_ptr<const InterfaceDescription> remoteInterface_;
  std::function<void()> interruptionHandler_;
  std::function<void()> invalidationHandler_;

 private:
  enum class State { idle, resumed, invalidated };

  /// The open channel, or why there is none to be had or `outgoing` may not use it; leaves a
  /// closed one behind.
  std::shared_ptr<Channel> currentChannel(const Outgoing& outgoing,
                                          std::optional<CallError>& error) {
    const std::lock_guard state(mutex_);
    error = checkOutgoing(remoteInterface_.get(), outgoing.operation, outgoing.shape);
    if (error) return nullptr;
    if (state_ == State::invalidated) {
      error.emplace(ConnectionError::invalidated, "");
    } else if (state_ == State::idle) {
      error.emplace(ConnectionError::notResumed, "call resume() before sending");
    }
    if (channel_ && !channel_->isOpen()) channel_.reset();
    return channel_;
  }

  std::shared_ptr<Channel> acquireChannel(const Outgoing& outgoing,
                                          std::optional<CallError>& error) {
    if (auto channel = currentChannel(outgoing, error); channel || error) return channel;
    // One connect at a time; whoever comes second uses the first one's channel.
    const std::lock_guard connecting(connectMutex_);
    if (auto channel = currentChannel(outgoing, error); channel || error) return channel;
    return connectLocked(error);
  }

  /// The reconnect timer's way in: connects unless a channel is open already. Returns the new
  /// channel, or nothing (with `error` set when the connect failed).
  std::shared_ptr<Channel> connectIfNeeded(std::optional<CallError>& error) {
    const std::lock_guard connecting(connectMutex_);
    {
      const std::lock_guard state(mutex_);
      if (state_ != State::resumed || (channel_ && channel_->isOpen())) return nullptr;
    }
    return connectLocked(error);
  }

  /// Whether an interruption makes this connection reconnect by itself.
  bool reconnectsNow() {
    const std::lock_guard state(mutex_);
    return options_.reconnects && exportedObject_ && state_ == State::resumed;
  }

  /// Arms the reconnect timer: after the first delay when `first`, else after twice the last one
  /// (at most the longest), each less a random part of up to a quarter so that many clients
  /// of one restarted service do not all come back at the same moment.
  void scheduleReconnect(bool first) {
    const std::lock_guard state(mutex_);
    if (state_ != State::resumed) return;
    if (!timer_.valid()) {
      timer_ = UniqueFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
      if (!timer_.valid()) {
        LogCategory::tether().error("Cannot reconnect to {} by itself: timerfd: {}", path_.native(),
                                    systemMessage(errno));
        return;
      }
      timerKey_ = runtime_->watch(timer_.get(), shared_from_this());
    }
    reconnectDelay_ =
        first ? firstReconnectDelay : std::min(reconnectDelay_ * 2, longestReconnectDelay);
    std::uniform_int_distribution<std::int64_t> jitter(0, reconnectDelay_.count() / 4);
    const auto delay = reconnectDelay_ - std::chrono::milliseconds(jitter(random_));
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(delay.count() / 1000);
    when.it_value.tv_nsec = static_cast<long>((delay.count() % 1000) * 1'000'000);
    ::timerfd_settime(timer_.get(), 0, &when, nullptr);
    runtime_->arm(timer_.get(), timerKey_, EPOLLIN);
  }

  /// Connects a new channel; `connectMutex_` is held.
  std::shared_ptr<Channel> connectLocked(std::optional<CallError>& error) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
      error.emplace(ConnectionError::connectFailed, "socket: " + systemMessage(errno));
      return nullptr;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.native().copy(address.sun_path, sizeof address.sun_path - 1);
    int result = 0;
    do {
      result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT: C API
                         sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      error.emplace(ConnectionError::connectFailed, path_.native() + ": " + systemMessage(errno));
      return nullptr;
    }
    const auto service = peerCredentials(fd.get());
    if (options_.requiredServiceUid) {
      const std::uint32_t uid = service ? service->uid : 0;
      if (!service
          || (uid != *options_.requiredServiceUid && !(options_.rootServiceTrusted && uid == 0))) {
        const auto reason = fmt::format("{} is served by uid {}, not {}", path_.native(), uid,
                                        *options_.requiredServiceUid);
        invalidate(reason);
        error.emplace(ConnectionError::serviceNotTrusted, reason);
        return nullptr;
      }
    }

    auto channel = std::make_shared<Channel>(
        runtime_, fd.release(), service.value_or(PeerCredentials{}), Role::client, SessionLimits{},
        nullptr, delivery_, weak_from_this(), options_.resumeToken);
    {
      const std::lock_guard state(mutex_);
      channel->setExportedInterface(exportedInterface_);
      channel->setExportedObject(exportedObject_);
    }
    channel->start();
    LogCategory::tether().debug("Connected to {}", path_.native());
    {
      const std::lock_guard state(mutex_);
      if (state_ != State::invalidated) {
        channel_ = channel;
        connectedAt_ = std::chrono::steady_clock::now();
        return channel;
      }
    }
    channel->close(CloseReason::invalidated, "the connection was invalidated");
    error.emplace(ConnectionError::invalidated, "");
    return nullptr;
  }

  void runInvalidationHandler() {
    std::function<void()> handler;
    {
      const std::lock_guard state(mutex_);
      handler = std::move(invalidationHandler_);
      invalidationHandler_ = nullptr;
    }
    if (handler) runUserCode("invalidation handler", handler);
  }

  const std::filesystem::path path_;
  const ConnectionOptions options_;
  const std::shared_ptr<Runtime> runtime_;
  const DeliveryExecutor delivery_;
  std::mutex mutex_;
  std::mutex connectMutex_;
  State state_ = State::idle;
  std::shared_ptr<Channel> channel_;
  UniqueFd timer_{-1};  // the reconnect timer, made at the first interruption that needs it
  std::uint64_t timerKey_ = 0;
  std::chrono::milliseconds reconnectDelay_ = firstReconnectDelay;
  std::chrono::steady_clock::time_point connectedAt_;  // of the newest channel
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace detail

Connection::Connection(const std::string& serviceName, ConnectionOptions options) {
  auto path = servicePath(serviceName, options.runtimeDirectory);
  core_ = std::make_shared<detail::ConnectionCore>(std::move(path), std::move(options));
}

Connection::~Connection() {
  core_->shutdown();
}

const std::filesystem::path& Connection::path() const noexcept {
  return core_->path();
}

void Connection::setExportedInterface(InterfaceDescription interface) {
  core_->set(&detail::ConnectionCore::exportedInterface_,
             std::optional<InterfaceDescription>(std::move(interface)));
}

void Connection::setExportedObject(std::shared_ptr<ExportedObject> object) {
  core_->set(&detail::ConnectionCore::exportedObject_, std::move(object));
}

void Connection::setRemoteObjectInterface(InterfaceDescription interface) {
  core_->set(&detail::ConnectionCore::remoteInterface_,
             std::make_shared<const InterfaceDescription>(std::move(interface)));
}

void Connection::setInterruptionHandler(std::function<void()> handler) {
  core_->set(&detail::ConnectionCore::interruptionHandler_, std::move(handler));
}

void Connection::setInvalidationHandler(std::function<void()> handler) {
  core_->set(&detail::ConnectionCore::invalidationHandler_, std::move(handler));
}

void Connection::resume() {
  core_->resume();
}

void Connection::invalidate() {
  core_->invalidate("invalidated by its owner");
}

DeliveryExecutor Connection::executor() const {
  return core_->executor();
}

RemoteProxy Connection::remoteObjectProxy(ErrorHandler errorHandler) const {
  return core_->proxy(std::move(errorHandler), false);
}

RemoteProxy Connection::synchronousRemoteObjectProxy(ErrorHandler errorHandler) const {
  return core_->proxy(std::move(errorHandler), true);
}

}  // namespace corvane::ipc
