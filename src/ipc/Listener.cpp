#include "ipc/detail/Channel.hpp"
#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Listener.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <malloc.h>
#include <optional>
#include <set>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>

namespace corvane::ipc {

namespace detail {

namespace {

[[noreturn]] void throwSystem(int error, const std::string& what) {
  throw std::system_error(error, std::system_category(), what);
}

sockaddr_un socketAddress(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.native().copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

/// Whether something answers on `path` (a live service rather than a stale socket file).
bool isLive(const std::filesystem::path& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const auto address = socketAddress(path);
  const bool live = ::connect(fd, reinterpret_cast<const sockaddr*>(&address),  // NOLINT: C API
                              sizeof address)
                    == 0;
  ::close(fd);
  return live;
}

/// Inherited sockets taken by a listener of this process, so that two listeners never share one.
std::mutex adoptedMutex;
std::set<int> adoptedFds;

int adoptActivatedSocket(const std::filesystem::path& path) {
  const int count = sd_listen_fds(0);
  if (count <= 0) return -1;
  const std::lock_guard adopted(adoptedMutex);
  int fallback = -1;
  for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; ++fd) {
    if (adoptedFds.contains(fd)) continue;
    if (sd_is_socket_unix(fd, SOCK_STREAM, 1, path.c_str(), 0) > 0) {
      adoptedFds.insert(fd);
      return fd;
    }
    if (fallback < 0 && sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) > 0) fallback = fd;
  }
  if (fallback >= 0) adoptedFds.insert(fallback);
  return fallback;
}

int bindSocket(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  if (error) throwSystem(error.value(), "creating " + path.parent_path().native());
  if (std::filesystem::is_socket(std::filesystem::symlink_status(path, error))) {
    if (isLive(path)) throwSystem(EADDRINUSE, path.native() + " is served already");
    std::filesystem::remove(path, error);  // stale: its service is gone
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throwSystem(errno, "socket");
  const auto address = socketAddress(path);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0  // NOLINT
      || ::listen(fd, SOMAXCONN) != 0) {
    const int failure = errno;
    ::close(fd);
    throwSystem(failure, "binding " + path.native());
  }
  // Anyone may connect; the connection handler decides by credentials.
  ::chmod(path.c_str(), 0666);
  return fd;
}

}  // namespace

/// How long accepting pauses when the process is out of descriptors: from the first to the
/// longest, doubling while it stays out of them.
constexpr std::chrono::milliseconds firstAcceptPause{10};
constexpr std::chrono::milliseconds longestAcceptPause{1000};

bool outOfResources(int error) noexcept {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// At most one line a second about refused connections.
constexpr std::chrono::seconds refusalLogInterval{1};
/// Descriptors kept free for everything else the process opens.
constexpr std::size_t sparedDescriptors = 64;
/// After this many connections have ended (or the last one has), the freed heap goes back to the
/// system, this long later, so that one trim covers a whole burst.
constexpr std::size_t trimAfterClosed = 256;
constexpr std::chrono::milliseconds trimDelay{200};
/// A second trim follows the first after this long, for what the service frees on its own
/// threads once it hears a connection has gone.
constexpr std::chrono::milliseconds followUpTrimDelay{1000};

/// `wanted`, or fewer if the process may not open two descriptors for each of them.
std::size_t connectionsThatFit(std::size_t wanted) noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return wanted;
  const auto descriptors = static_cast<std::size_t>(limit.rlim_cur);
  const std::size_t fit =
      descriptors > sparedDescriptors ? (descriptors - sparedDescriptors) / 2 : 1;
  return std::min(wanted, std::max<std::size_t>(fit, 1));
}

void armOnce(int timerFd, std::chrono::milliseconds after) noexcept {
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(after.count() / 1000);
  when.it_value.tv_nsec = static_cast<long>((after.count() % 1000) * 1000000);
  ::timerfd_settime(timerFd, 0, &when, nullptr);
}

/// The state behind a Listener: the listening socket and the accepted channels.
class ListenerCore final : public ChannelOwner,
                           public Watcher,
                           public std::enable_shared_from_this<ListenerCore> {
 public:
  ListenerCore(std::filesystem::path path, ListenerOptions options)
      : path_(std::move(path)),
        options_(std::move(options)),
        runtime_(std::make_shared<Runtime>(std::max<std::size_t>(options_.workerThreads, 1))),
        budget_(std::make_shared<ReceiveBudget>(options_.receiveBudgetBytes)),
        maxConnections_(connectionsThatFit(options_.maxConnections)) {
    if (maxConnections_ < options_.maxConnections) {
      LogCategory::tether().notice(
          "{} takes at most {} connections: the process may not open descriptors for {}",
          path_.native(), maxConnections_, options_.maxConnections);
    }
    int fd = options_.adoptActivatedSocket ? adoptActivatedSocket(path_) : -1;
    activated_ = fd >= 0;
    if (!activated_) fd = bindSocket(path_);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    listenFd_ = fd;
    timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    trimFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timerFd_ < 0 || trimFd_ < 0) {
      const int failure = errno;
      ::close(listenFd_);
      if (timerFd_ >= 0) ::close(timerFd_);
      if (trimFd_ >= 0) ::close(trimFd_);
      throwSystem(failure, "timerfd_create");
    }
  }
  ~ListenerCore() override {
    if (listenFd_ >= 0) ::close(listenFd_);
    ::close(timerFd_);
    ::close(trimFd_);
  }
  ListenerCore(const ListenerCore&) = delete;
  ListenerCore& operator=(const ListenerCore&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  [[nodiscard]] bool activated() const noexcept { return activated_; }

  void setHandler(Listener::ConnectionHandler handler) {
    const std::lock_guard state(mutex_);
    handler_ = std::move(handler);
  }

  void resume() {
    const std::lock_guard accepting(acceptMutex_);
    if (resumed_ || listenFd_ < 0) return;
    resumed_ = true;
    listenKey_ = runtime_->watch(listenFd_, shared_from_this());
    timerKey_ = runtime_->watch(timerFd_, shared_from_this());
    trimKey_ = runtime_->watch(trimFd_, shared_from_this());
    runtime_->arm(listenFd_, listenKey_, EPOLLIN);
  }

  void invalidate() {
    {
      const std::lock_guard accepting(acceptMutex_);
      if (listenFd_ >= 0) {
        if (resumed_) {
          runtime_->unwatch(listenFd_, listenKey_);
          runtime_->unwatch(timerFd_, timerKey_);
          runtime_->unwatch(trimFd_, trimKey_);
        }
        ::close(listenFd_);
        listenFd_ = -1;
        if (!activated_) {
          std::error_code removeError;
          std::filesystem::remove(path_, removeError);
        }
      }
    }
    std::set<std::shared_ptr<Channel>> open;
    {
      const std::lock_guard state(mutex_);
      open.swap(channels_);
      perUser_.clear();
    }
    for (const auto& channel : open)
      channel->close(CloseReason::invalidated, "the service stopped");
  }

  void shutdown() {
    invalidate();
    runtime_->stop();
  }

  void ready(std::uint64_t key, std::uint32_t /*events*/) override {
    if (key == trimKey_) {
      trim();
      return;
    }
    const std::lock_guard accepting(acceptMutex_);
    if (listenFd_ < 0) return;
    if (key == timerKey_) {
      std::uint64_t expirations = 0;
      [[maybe_unused]] const auto got = ::read(timerFd_, &expirations, sizeof expirations);
    } else if (acceptAll() == Accepting::paused) {
      return;  // the timer arms the socket again
    }
    runtime_->arm(listenFd_, listenKey_, EPOLLIN);
  }

  // Runs on the closed channel's delivery executor.
  void channelClosed(const std::shared_ptr<Channel>& channel, CloseReason reason,
                     const std::string& detail) override {
    bool trimSoon = false;
    {
      const std::lock_guard state(mutex_);
      if (channels_.erase(channel) > 0) {
        const auto user = perUser_.find(channel->credentials().uid);
        if (user != perUser_.end() && --user->second == 0) perUser_.erase(user);
        ++closedSinceTrim_;
      }
      if (!trimArmed_ && closedSinceTrim_ > 0
          && (channels_.empty() || closedSinceTrim_ >= trimAfterClosed)) {
        trimArmed_ = trimSoon = true;
      }
    }
    if (trimSoon) {
      armOnce(trimFd_, trimDelay);
      runtime_->arm(trimFd_, trimKey_, EPOLLIN);
    }
    if (reason == CloseReason::protocolViolation || reason == CloseReason::helloMismatch
        || reason == CloseReason::limitExceeded) {
      LogCategory::tether().error("Closed client connection (pid {}): {}",
                                  channel->credentials().pid, detail);
    }
  }

 private:
  enum class Accepting { drained, paused };

  Accepting acceptAll() {
    for (;;) {
      const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0) {
        pause_ = firstAcceptPause;
        const auto credentials = peerCredentials(fd).value_or(PeerCredentials{});
        if (!admits(credentials)) {
          ::close(fd);
          continue;
        }
        try {
          adopt(fd, credentials);
        } catch (const std::system_error& e) {
          // adopt has closed the descriptor. Out of descriptors (its duplicate could not be
          // made): the next accept would only fail the same way, so pause as accept4 would.
          if (outOfResources(e.code().value()) && e.code().category() == std::system_category()) {
            pauseAccepting(e.code().value());
            return Accepting::paused;
          }
          LogCategory::tether().error("Could not take a connection on {}: {}", path_.native(),
                                      e.what());
        } catch (const std::exception& e) {
          LogCategory::tether().error("Could not take a connection on {}: {}", path_.native(),
                                      e.what());
        }
        continue;
      }
      const int failure = errno;
      if (failure == EINTR || failure == ECONNABORTED) continue;
      if (failure == EAGAIN || failure == EWOULDBLOCK) return Accepting::drained;
      if (!outOfResources(failure)) {
        LogCategory::tether().error("accept on {} failed: {}", path_.native(),
                                    systemMessage(failure));
        return Accepting::drained;
      }
      pauseAccepting(failure);
      return Accepting::paused;
    }
  }

  /// Whether a client with `credentials` may have one more connection; logs a refusal, at most
  /// once per interval (the line counts the refusals it stands for). Under acceptMutex_.
  bool admits(const PeerCredentials& credentials) {
    std::size_t open = 0;
    std::size_t ofUser = 0;
    {
      const std::lock_guard state(mutex_);
      open = channels_.size();
      if (const auto user = perUser_.find(credentials.uid); user != perUser_.end())
        ofUser = user->second;
    }
    if (open < maxConnections_ && ofUser < options_.maxConnectionsPerUser) return true;
    ++refusedUnlogged_;
    const auto now = std::chrono::steady_clock::now();
    if (lastRefusalLog_ && now - *lastRefusalLog_ < refusalLogInterval) return false;
    lastRefusalLog_ = now;
    const std::string why = open >= maxConnections_
                                ? fmt::format("{} connections are open, the most allowed", open)
                                : fmt::format("uid {} has {} connections open, the most allowed",
                                              credentials.uid, ofUser);
    LogCategory::tether().error(
        "Refused a connection on {} from pid {} uid {}: {} ({} refused "
        "since the last such line)",
        path_.native(), credentials.pid, credentials.uid, why, std::exchange(refusedUnlogged_, 0));
    return false;
  }

  /// Gives the heap that ended connections freed back to the system, and arms a second trim
  /// after the first of a burst.
  void trim() {
    std::uint64_t expirations = 0;
    [[maybe_unused]] const auto got = ::read(trimFd_, &expirations, sizeof expirations);
    bool followUp = false;
    {
      const std::lock_guard state(mutex_);
      followUp = closedSinceTrim_ > 0;
      closedSinceTrim_ = 0;
      trimArmed_ = followUp;
    }
#if defined(__GLIBC__)
    ::malloc_trim(0);
#endif
    if (followUp) {
      armOnce(trimFd_, followUpTrimDelay);
      runtime_->arm(trimFd_, trimKey_, EPOLLIN);
    }
  }

  /// Out of descriptors (or memory): retrying at once would only spin, so wait a little longer
  /// each time, and say so once per pause.
  void pauseAccepting(int failure) {
    LogCategory::tether().error("accept on {} failed: {}; accepting again in {} ms", path_.native(),
                                systemMessage(failure), pause_.count());
    armOnce(timerFd_, pause_);
    runtime_->arm(timerFd_, timerKey_, EPOLLIN);
    pause_ = std::min(pause_ * 2, longestAcceptPause);
  }

  void adopt(int fd, const PeerCredentials& credentials) {
    const SessionLimits limits{options_.maxCallsInFlight, options_.maxQueuedIncomingBytes,
                               options_.maxQueuedOutgoingBytes};
    auto channel =
        std::make_shared<Channel>(runtime_, fd, credentials, Role::service, limits, budget_,
                                  boost::asio::make_strand(Executor(runtime_)), weak_from_this());
    {
      const std::lock_guard state(mutex_);
      channels_.insert(channel);
      ++perUser_[channel->credentials().uid];
    }
    // The handler runs on the peer's delivery executor ahead of any call from this client, so
    // what it sets is in place when the first call is dispatched.
    boost::asio::post(channel->delivery(), [self = shared_from_this(), channel] {
      Listener::ConnectionHandler handler;
      {
        const std::lock_guard state(self->mutex_);
        handler = self->handler_;
      }
      Peer peer(channel);
      bool accepted = false;
      runUserCode("connection handler", [&] { accepted = handler && handler(peer); });
      if (!accepted) {
        LogCategory::tether().notice("Rejected client pid {} uid {}", channel->credentials().pid,
                                     channel->credentials().uid);
        channel->close(CloseReason::invalidated, "rejected");
      }
    });
    try {
      channel->start();
    } catch (...) {
      // Closing it takes it out of the open connections again.
      channel->close(CloseReason::invalidated, "could not be watched");
      throw;
    }
  }

  const std::filesystem::path path_;
  const ListenerOptions options_;
  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<ReceiveBudget> budget_;
  std::mutex acceptMutex_;  // the listening socket and the pause
  int listenFd_ = -1;
  int timerFd_ = -1;
  int trimFd_ = -1;
  std::uint64_t listenKey_ = 0;
  std::uint64_t timerKey_ = 0;
  std::uint64_t trimKey_ = 0;
  const std::size_t maxConnections_;
  std::size_t refusedUnlogged_ = 0;  // under acceptMutex_, as is the time below
  std::optional<std::chrono::steady_clock::time_point> lastRefusalLog_;
  bool resumed_ = false;
  bool activated_ = false;
  std::chrono::milliseconds pause_ = firstAcceptPause;
  std::mutex mutex_;  // the handler and the channels
  Listener::ConnectionHandler handler_;
  std::set<std::shared_ptr<Channel>> channels_;
  std::unordered_map<std::uint32_t, std::size_t> perUser_;  // open connections by uid
  std::size_t closedSinceTrim_ = 0;
  bool trimArmed_ = false;
};

/// Proxies of a peer hold its channel weakly: a proxy kept by the exported object must not keep
/// the connection alive.
class PeerTarget final : public ProxyTarget {
 public:
  explicit PeerTarget(const std::shared_ptr<Channel>& channel)
      : channel_(channel), delivery_(channel->delivery()) {}
  void send(Outgoing outgoing) noexcept override {
    auto channel = channel_.lock();
    if (!channel) {
      refuse(outgoing, {ConnectionError::invalidated, "the client connection is gone"}, delivery_);
      return;
    }
    if (auto error =
            checkOutgoing(channel->remoteInterface().get(), outgoing.operation, outgoing.shape)) {
      refuse(outgoing, std::move(*error), delivery_);
      return;
    }
    channel->send(std::move(outgoing));
  }
  [[nodiscard]] DeliveryExecutor executor() const override { return delivery_; }

 private:
  std::weak_ptr<Channel> channel_;
  DeliveryExecutor delivery_;
};

}  // namespace detail

Peer::Peer(std::shared_ptr<detail::Channel> channel) noexcept : channel_(std::move(channel)) {}

const PeerCredentials& Peer::credentials() const noexcept {
  return channel_->credentials();
}

void Peer::setExportedInterface(InterfaceDescription interface) {
  channel_->setExportedInterface(std::move(interface));
}

void Peer::setExportedObject(std::shared_ptr<ExportedObject> object) {
  channel_->setExportedObject(std::move(object));
}

void Peer::setRemoteObjectInterface(InterfaceDescription interface) {
  channel_->setRemoteInterface(std::move(interface));
}

void Peer::setGreetingHandler(std::function<void(const std::string& resumeToken)> handler) {
  channel_->setGreetingHandler(std::move(handler));
}

void Peer::setInvalidationHandler(std::function<void()> handler) {
  channel_->setCloseHandler(std::move(handler));
}

DeliveryExecutor Peer::executor() const {
  return channel_->delivery();
}

RemoteProxy Peer::remoteObjectProxy(ErrorHandler errorHandler) const {
  return {std::make_shared<detail::PeerTarget>(channel_), std::move(errorHandler), false};
}

RemoteProxy Peer::synchronousRemoteObjectProxy(ErrorHandler errorHandler) const {
  return {std::make_shared<detail::PeerTarget>(channel_), std::move(errorHandler), true};
}

void Peer::invalidate() {
  channel_->close(detail::CloseReason::invalidated, "closed by the service");
}

Listener::Listener(const std::string& serviceName, ListenerOptions options) {
  auto path = servicePath(serviceName, options.runtimeDirectory);
  core_ = std::make_shared<detail::ListenerCore>(std::move(path), std::move(options));
}

Listener::~Listener() {
  core_->shutdown();
}

void Listener::setConnectionHandler(ConnectionHandler handler) {
  core_->setHandler(std::move(handler));
}

void Listener::resume() {
  core_->resume();
}

void Listener::invalidate() {
  core_->invalidate();
}

const std::filesystem::path& Listener::path() const noexcept {
  return core_->path();
}

bool Listener::isActivated() const noexcept {
  return core_->activated();
}

}  // namespace corvane::ipc
