#include "ipc/detail/Runtime.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <cerrno>
#include <span>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace corvane::ipc::detail {

namespace {

constexpr std::uint64_t wakeKey = 0;
constexpr std::uint64_t stopKey = 1;
constexpr int eventsPerWait = 32;

void runLogged(Task& task) noexcept {
  try {
    task();
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Connection callback threw: {}", e.what());
  } catch (...) {
    LogCategory::tether().fault("Connection callback threw a non-standard exception");
  }
}

bool isWrite(Interest interest) noexcept {
  return interest == Interest::writeOnce;
}

std::uint64_t eventData(std::uint64_t key, Interest interest) noexcept {
  return (key << 1U) | (isWrite(interest) ? 1U : 0U);
}

/// The epoll flags of a registration, armed or not. A disarmed registration keeps its trigger
/// mode but watches for nothing.
std::uint32_t eventFlags(Interest interest, bool armed) noexcept {
  const std::uint32_t mode = interest == Interest::readEdges ? EPOLLET : EPOLLONESHOT;
  if (!armed) return mode;
  if (isWrite(interest)) return mode | EPOLLOUT;
  // An edge reports what the socket holds when the event is taken, so a hang-up that came with
  // the data shows even though no further edge follows it.
  return mode | EPOLLIN | EPOLLRDHUP;
}

}  // namespace

Runtime::Runtime() {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll_ < 0 || wakeFd_ < 0 || stopFd_ < 0) {
    const int failure = errno;
    for (const int fd : {epoll_, wakeFd_, stopFd_})
      if (fd >= 0) ::close(fd);
    throw std::system_error(failure, std::system_category(), "setting up the connection runtime");
  }
  epoll_event wakeEvent{};
  wakeEvent.events = EPOLLIN | EPOLLET;
  wakeEvent.data.u64 = wakeKey;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeFd_, &wakeEvent);
  epoll_event stopEvent{};
  stopEvent.events = EPOLLIN;
  stopEvent.data.u64 = stopKey;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, stopFd_, &stopEvent);
  // The workers start by taking the lock, so they see their ids in place.
  const std::lock_guard state(mutex_);
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    workers_[i] = std::thread([this] { work(); });
    workerIds_[i] = workers_[i].get_id();
  }
}

Runtime::~Runtime() {
  stop();
  ::close(stopFd_);
  ::close(wakeFd_);
  ::close(epoll_);
}

std::uint64_t Runtime::watch(int fd, Interest interest, const std::shared_ptr<Watcher>& watcher) {
  std::uint64_t key = 0;
  {
    const std::lock_guard state(mutex_);
    key = nextKey_++;
    watchers_.emplace(key, watcher);
  }
  auto event = registration(key, interest, false);
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
    const int failure = errno;
    const std::lock_guard state(mutex_);
    watchers_.erase(key);
    throw std::system_error(failure, std::system_category(), "epoll_ctl");
  }
  return key;
}

epoll_event Runtime::registration(std::uint64_t key, Interest interest, bool armed) noexcept {
  epoll_event event{};
  event.events = eventFlags(interest, armed);
  event.data.u64 = eventData(key, interest);
  return event;
}

void Runtime::arm(int fd, std::uint64_t key, Interest interest) noexcept {
  auto event = registration(key, interest, true);
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event);
}

void Runtime::disarm(int fd, std::uint64_t key, Interest interest) noexcept {
  auto event = registration(key, interest, false);
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event);
}

void Runtime::unwatch(int fd, std::uint64_t key) noexcept {
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  const std::lock_guard state(mutex_);
  watchers_.erase(key);
}

void Runtime::wake() noexcept {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
}

void Runtime::post(Task task) {
  bool wakeWorker = false;
  {
    const std::lock_guard state(mutex_);
    if (stopping_) return;  // the task is destroyed outside the lock
    posted_.push_back(std::move(task));
    // Even a worker wakes the other one: it may be in the middle of a long delivery turn.
    wakeWorker = !wakePending_;
    wakePending_ = true;
  }
  if (wakeWorker) wake();
}

void Runtime::deliver(Task task) {
  if (queueDeliveries(std::span(&task, 1))) runLogged(task);
}

void Runtime::deliver(std::vector<Task>& tasks) {
  if (tasks.empty()) return;
  if (queueDeliveries(tasks)) {
    for (auto& task : tasks) runLogged(task);
  }
  tasks.clear();
}

bool Runtime::queueDeliveries(std::span<Task> tasks) {
  bool wakeWorker = false;
  {
    const std::lock_guard state(mutex_);
    if (stopped_) return true;
    for (auto& task : tasks) deliveries_.push_back(std::move(task));
    // A worker looks at the queue before it waits again; whoever holds the turn drains it.
    wakeWorker = !stopping_ && !delivering_ && !wakePending_ && !onWorkerThread();
    if (wakeWorker) wakePending_ = true;
  }
  if (wakeWorker) wake();
  return false;
}

bool Runtime::onWorkerThread() const noexcept {
  const auto self = std::this_thread::get_id();
  return self == workerIds_[0] || self == workerIds_[1];
}

bool Runtime::deliveriesQueued() {
  const std::lock_guard state(mutex_);
  return !deliveries_.empty() && !stopping_;
}

Runtime::Work Runtime::takeWork(std::vector<Task>& posted, Task& delivery) {
  const std::lock_guard state(mutex_);
  if (stopping_) return Work::stop;
  if (!posted_.empty()) {
    posted.swap(posted_);
    return Work::posted;
  }
  if (delivering_ || deliveries_.empty()) return Work::none;
  delivering_ = true;
  delivery = std::move(deliveries_.front());
  deliveries_.pop_front();
  return Work::delivery;
}

void Runtime::runDeliveryTurn(Task task) {
  for (;;) {
    runLogged(task);
    task = nullptr;
    const std::lock_guard state(mutex_);
    if (deliveries_.empty() || stopping_) {
      delivering_ = false;
      return;
    }
    task = std::move(deliveries_.front());
    deliveries_.pop_front();
  }
}

void Runtime::work() {
  { const std::lock_guard started(mutex_); }
  std::array<epoll_event, eventsPerWait> events{};
  std::vector<Task> posted;  // swapped with posted_, so both keep their capacity
  for (;;) {
    Task delivery;
    switch (takeWork(posted, delivery)) {
      case Work::stop:
        return;
      case Work::posted:
        for (auto& task : posted) runLogged(task);
        posted.clear();
        continue;
      case Work::delivery:
        runDeliveryTurn(std::move(delivery));
        continue;
      case Work::none:
        break;
    }
    const int count = ::epoll_wait(epoll_, events.data(), eventsPerWait, -1);
    if (count < 0) {
      if (errno == EINTR) continue;
      LogCategory::tether().fault("epoll_wait failed: {}",
                                  std::error_code(errno, std::system_category()).message());
      return;
    }
    for (int i = 0; i < count; ++i) {
      const std::uint64_t data = events[static_cast<std::size_t>(i)].data.u64;
      if (data == wakeKey) {
        std::uint64_t ignored = 0;
        [[maybe_unused]] const auto read = ::read(wakeFd_, &ignored, sizeof ignored);
        const std::lock_guard state(mutex_);
        wakePending_ = false;
        continue;
      }
      if (data == stopKey) continue;
      std::shared_ptr<Watcher> watcher;
      {
        const std::lock_guard state(mutex_);
        if (auto found = watchers_.find(data >> 1U); found != watchers_.end())
          watcher = found->second.lock();
      }
      const std::uint32_t flags = events[static_cast<std::size_t>(i)].events;
      if (watcher)
        watcher->ready((data & 1U) != 0, (flags & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0);
    }
  }
}

void Runtime::stop() {
  const std::lock_guard stopping(stopMutex_);
  {
    const std::lock_guard state(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(stopFd_, &one, sizeof one);
  for (auto& worker : workers_)
    if (worker.joinable()) worker.join();
  // The owner closed every socket before stopping. Posted tasks are dropped (they hold their
  // channels, which are freed here); what is queued for delivery is owed to callers and runs here.
  std::vector<Task> dropped;
  {
    const std::lock_guard state(mutex_);
    dropped.swap(posted_);
  }
  dropped.clear();
  for (;;) {
    Task task;
    {
      const std::lock_guard state(mutex_);
      if (deliveries_.empty()) {
        stopped_ = true;
        break;
      }
      task = std::move(deliveries_.front());
      deliveries_.pop_front();
    }
    runLogged(task);
  }
}

std::shared_ptr<SyncSlot> SyncSlot::forThisThread() {
  thread_local std::shared_ptr<SyncSlot> last;
  // Only this thread holds `last`, so nobody can take a new reference to it meanwhile.
  if (last && last.use_count() == 1) {
    const std::lock_guard outcome(last->mutex_);
    last->done_ = false;
    last->poked_ = false;
    last->reply_.reset();
    last->error_.reset();
    last->offered = false;
    return last;
  }
  last = std::make_shared<SyncSlot>();
  return last;
}

void SyncSlot::complete(std::optional<Bytes> reply, std::optional<CallError> error) {
  {
    const std::lock_guard outcome(mutex_);
    if (done_) return;
    reply_ = std::move(reply);
    error_ = std::move(error);
    done_ = true;
  }
  ready_.notify_one();
}

std::pair<std::optional<Bytes>, std::optional<CallError>> SyncSlot::wait() {
  std::unique_lock outcome(mutex_);
  ready_.wait(outcome, [this] { return done_; });
  return {std::move(reply_), std::move(error_)};
}

bool SyncSlot::done() {
  const std::lock_guard outcome(mutex_);
  return done_;
}

void SyncSlot::poke() {
  {
    const std::lock_guard outcome(mutex_);
    poked_ = true;
  }
  ready_.notify_one();
}

void SyncSlot::waitDoneOrPoked() {
  std::unique_lock outcome(mutex_);
  ready_.wait(outcome, [this] { return done_ || poked_; });
  poked_ = false;
}

void failOutgoing(Runtime& runtime, Outgoing& outgoing, CallError error) {
  if (outgoing.sync) {
    outgoing.sync->complete(std::nullopt, std::move(error));
    return;
  }
  if (!outgoing.onError || !*outgoing.onError) return;
  runtime.deliver([handler = outgoing.onError, error = std::move(error)] { (*handler)(error); });
}

void failOutgoingHere(Outgoing& outgoing, CallError error) {
  if (outgoing.sync) {
    outgoing.sync->complete(std::nullopt, std::move(error));
    return;
  }
  if (outgoing.onError && *outgoing.onError) {
    runUserCode("error handler", [&] { (*outgoing.onError)(error); });
  }
}

void runUserCode(std::string_view what, const std::function<void()>& code) noexcept {
  try {
    code();
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Connection {} threw: {}", what, e.what());
  } catch (...) {
    LogCategory::tether().fault("Connection {} threw a non-standard exception", what);
  }
}

}  // namespace corvane::ipc::detail
