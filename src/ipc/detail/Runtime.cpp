#include "ipc/detail/Runtime.hpp"

#include <corvane/ipc/Executor.hpp>

#include <cerrno>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace corvane::ipc {

boost::asio::execution_context& Executor::query(
    boost::asio::execution::context_t /*unused*/) const noexcept {
  return *runtime_;
}

bool Executor::runningInThisThread() const noexcept {
  return runtime_->onWorkerThread();
}

void Executor::submit(std::move_only_function<void()> function) const {
  runtime_->execute(std::move(function), !neverBlocks_);
}

namespace detail {

namespace {

constexpr std::uint64_t wakeKey = 0;
constexpr std::uint64_t stopKey = 1;

/// The runtime whose worker this thread is, and that worker's own queue.
thread_local Runtime* currentRuntime = nullptr;
thread_local std::deque<Task>* ownQueue = nullptr;

void addDescriptor(int epoll, int fd, std::uint64_t key, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0)
    throw std::system_error(errno, std::system_category(), "epoll_ctl");
}

}  // namespace

Runtime::Runtime(std::size_t workers) {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  try {
    if (epoll_ < 0 || wakeFd_ < 0 || stopFd_ < 0)
      throw std::system_error(errno, std::system_category(), "setting up the connection runtime");
    addDescriptor(epoll_, wakeFd_, wakeKey, EPOLLIN | EPOLLET);
    addDescriptor(epoll_, stopFd_, stopKey, EPOLLIN);
    workers_.reserve(workers);
    for (std::size_t i = 0; i < workers; ++i) workers_.emplace_back([this] { work(); });
  } catch (...) {
    stop();
    for (const int fd : {epoll_, wakeFd_, stopFd_})
      if (fd >= 0) ::close(fd);
    throw;
  }
}

Runtime::~Runtime() {
  stop();
  // Services (the strands' among them) go before the descriptors they might still name.
  shutdown();
  destroy();
  ::close(stopFd_);
  ::close(wakeFd_);
  ::close(epoll_);
}

std::uint64_t Runtime::watch(int fd, const std::shared_ptr<Watcher>& watcher) {
  std::uint64_t key = 0;
  {
    const std::lock_guard state(mutex_);
    key = nextKey_++;
    watchers_.emplace(key, watcher);
  }
  try {
    addDescriptor(epoll_, fd, key, EPOLLONESHOT);
  } catch (...) {
    const std::lock_guard state(mutex_);
    watchers_.erase(key);
    throw;
  }
  return key;
}

void Runtime::arm(int fd, std::uint64_t key, std::uint32_t events) noexcept {
  epoll_event event{};
  event.events = (events & EPOLLET) != 0 ? events : events | EPOLLONESHOT;
  event.data.u64 = key;
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event);
}

void Runtime::disarm(int fd, std::uint64_t key) noexcept {
  arm(fd, key, 0);
}

void Runtime::unwatch(int fd, std::uint64_t key) noexcept {
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  const std::lock_guard state(mutex_);
  watchers_.erase(key);
}

bool Runtime::onWorkerThread() const noexcept {
  return currentRuntime == this;
}

void Runtime::execute(Task task, bool mayRunHere) {
  if (currentRuntime == this) {
    if (mayRunHere) {
      task();
    } else {
      ownQueue->push_back(std::move(task));
    }
    return;
  }
  {
    const std::lock_guard state(mutex_);
    if (!stopped_) {
      tasks_.push_back(std::move(task));
      wakeLocked();
      return;
    }
  }
  task();
}

void Runtime::queueShared(Task task) {
  const std::lock_guard state(mutex_);
  tasks_.push_back(std::move(task));
  wakeLocked();
}

void Runtime::wakeLocked() noexcept {
  if (wakePending_) return;
  wakePending_ = true;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
}

void Runtime::runOwnQueue() {
  while (!ownQueue->empty()) {
    Task task = std::move(ownQueue->front());
    ownQueue->pop_front();
    while (!ownQueue->empty()) {
      queueShared(std::move(ownQueue->front()));
      ownQueue->pop_front();
    }
    runUserCode("task", task);
  }
}

void Runtime::work() {
  std::deque<Task> own;
  currentRuntime = this;
  ownQueue = &own;
  for (;;) {
    runOwnQueue();
    epoll_event event{};
    const int count = ::epoll_wait(epoll_, &event, 1, -1);
    if (count < 0 && errno != EINTR) break;
    if (count <= 0) continue;
    if (event.data.u64 == stopKey) break;
    if (event.data.u64 == wakeKey) {
      Task task;
      {
        const std::lock_guard state(mutex_);
        std::uint64_t drained = 0;
        [[maybe_unused]] const auto read = ::read(wakeFd_, &drained, sizeof drained);
        wakePending_ = false;
        if (!tasks_.empty()) {
          task = std::move(tasks_.front());
          tasks_.pop_front();
        }
        // One task per wake-up: another worker takes the next, so one that blocks delays nothing.
        if (!tasks_.empty()) wakeLocked();
      }
      if (task) runUserCode("task", task);
      continue;
    }
    std::shared_ptr<Watcher> watcher;
    {
      const std::lock_guard state(mutex_);
      if (auto found = watchers_.find(event.data.u64); found != watchers_.end())
        watcher = found->second.lock();
    }
    if (watcher) watcher->ready(event.data.u64, event.events);
  }
  // What this worker still owed goes to whoever runs the rest.
  while (!own.empty()) {
    queueShared(std::move(own.front()));
    own.pop_front();
  }
  ownQueue = nullptr;
  currentRuntime = nullptr;
}

void Runtime::stop() {
  {
    const std::lock_guard state(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(stopFd_, &one, sizeof one);
  for (auto& worker : workers_)
    if (worker.joinable()) worker.join();
  // Tasks queued until now run here, and so does every later one (see execute).
  for (;;) {
    std::deque<Task> left;
    {
      const std::lock_guard state(mutex_);
      if (tasks_.empty()) {
        stopped_ = true;
        break;
      }
      left.swap(tasks_);
    }
    for (auto& task : left) runUserCode("task", task);
  }
}

}  // namespace detail

}  // namespace corvane::ipc
