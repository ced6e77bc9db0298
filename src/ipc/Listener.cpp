#include "ipc/detail/Channel.hpp"
#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Listener.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace corvane::ipc {

namespace detail {

namespace {

std::string systemMessage(int error) {
  return std::error_code(error, std::system_category()).message();
}

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

/// The state behind a Listener: the listening socket and the accepted channels.
class ListenerCore final : public ChannelOwner,
                           public Watcher,
                           public std::enable_shared_from_this<ListenerCore> {
 public:
  ListenerCore(std::filesystem::path path, ListenerOptions options)
      : path_(std::move(path)),
        options_(std::move(options)),
        runtime_(std::make_shared<Runtime>(std::max<std::size_t>(options_.workerThreads, 1))),
        budget_(std::make_shared<ReceiveBudget>(options_.receiveBudgetBytes)) {
    int fd = options_.adoptActivatedSocket ? adoptActivatedSocket(path_) : -1;
    activated_ = fd >= 0;
    if (!activated_) fd = bindSocket(path_);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    listenFd_ = fd;
    timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timerFd_ < 0) {
      const int failure = errno;
      ::close(listenFd_);
      throwSystem(failure, "timerfd_create");
    }
  }
  ~ListenerCore() override {
    if (listenFd_ >= 0) ::close(listenFd_);
    ::close(timerFd_);
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
    runtime_->arm(listenFd_, listenKey_, EPOLLIN);
  }

  void invalidate() {
    {
      const std::lock_guard accepting(acceptMutex_);
      if (listenFd_ >= 0) {
        if (resumed_) {
          runtime_->unwatch(listenFd_, listenKey_);
          runtime_->unwatch(timerFd_, timerKey_);
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
    }
    for (const auto& channel : open)
      channel->close(CloseReason::invalidated, "the service stopped");
  }

  void shutdown() {
    invalidate();
    runtime_->stop();
  }

  void ready(std::uint64_t key, std::uint32_t /*events*/) override {
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
    {
      const std::lock_guard state(mutex_);
      channels_.erase(channel);
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
        try {
          adopt(fd);
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

  /// Out of descriptors (or memory): retrying at once would only spin, so wait a little longer
  /// each time, and say so once per pause.
  void pauseAccepting(int failure) {
    LogCategory::tether().error("accept on {} failed: {}; accepting again in {} ms", path_.native(),
                                systemMessage(failure), pause_.count());
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(pause_.count() / 1000);
    when.it_value.tv_nsec = static_cast<long>((pause_.count() % 1000) * 1000000);
    ::timerfd_settime(timerFd_, 0, &when, nullptr);
    runtime_->arm(timerFd_, timerKey_, EPOLLIN);
    pause_ = std::min(pause_ * 2, longestAcceptPause);
  }

  void adopt(int fd) {
    const SessionLimits limits{options_.maxCallsInFlight, options_.maxQueuedIncomingBytes,
                               options_.maxQueuedOutgoingBytes};
    auto channel =
        std::make_shared<Channel>(runtime_, fd, Role::service, limits, budget_,
                                  boost::asio::make_strand(Executor(runtime_)), weak_from_this());
    {
      const std::lock_guard state(mutex_);
      channels_.insert(channel);
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
    channel->start();
  }

  const std::filesystem::path path_;
  const ListenerOptions options_;
  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<ReceiveBudget> budget_;
  std::mutex acceptMutex_;  // the listening socket and the pause
  int listenFd_ = -1;
  int timerFd_ = -1;
  std::uint64_t listenKey_ = 0;
  std::uint64_t timerKey_ = 0;
  bool resumed_ = false;
  bool activated_ = false;
  std::chrono::milliseconds pause_ = firstAcceptPause;
  std::mutex mutex_;  // the handler and the channels
  Listener::ConnectionHandler handler_;
  std::set<std::shared_ptr<Channel>> channels_;
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
