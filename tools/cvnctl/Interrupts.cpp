#include "Interrupts.hpp"

#include "ExitStatus.hpp"
#include "Problems.hpp"

#include <array>
#include <csignal>
#include <cstdint>
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace cvnctl {
namespace {

sigset_t handledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

/// The handlers, and the thread that reads the blocked signals from a signalfd and calls them.
/// It lives until static destruction, which wakes the thread through an eventfd and joins it.
class Watcher {
 public:
  Watcher()
      : signals_(::signalfd(-1, &set_, SFD_CLOEXEC)),
        stop_(::eventfd(0, EFD_CLOEXEC)),
        thread_([this] { run(); }) {}
  ~Watcher() {
    const std::uint64_t one = 1;
    if (::write(stop_, &one, sizeof one) < 0) return;  // cannot wake it: leave it to the exit
    thread_.join();
    ::close(signals_);
    ::close(stop_);
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  std::mutex mutex;
  Interrupts::Handler fallback;
  std::map<unsigned long, Interrupts::Handler> diversions;
  unsigned long next = 0;

 private:
  void run() {
    std::array<pollfd, 2> watched{pollfd{signals_, POLLIN, 0}, pollfd{stop_, POLLIN, 0}};
    for (;;) {
      if (::poll(watched.data(), watched.size(), -1) < 0) continue;  // EINTR
      if (watched[1].revents != 0) return;
      signalfd_siginfo info{};
      if (::read(signals_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) continue;
      Interrupts::Handler handler;
      {
        const std::lock_guard lock(mutex);
        handler = diversions.empty() ? fallback : diversions.rbegin()->second;
      }
      if (handler) handler(static_cast<int>(info.ssi_signo));
    }
  }

  // Blocked in the starting thread before this one starts, so every thread inherits the mask.
  const sigset_t set_ = [] {
    const sigset_t set = handledSignals();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
  }();
  const int signals_;
  const int stop_;
  std::jthread thread_;
};

Watcher& watcher() {
  static Watcher instance;
  return instance;
}

}  // namespace

ExitStatus signalStatus(int signal) noexcept {
  return signal == SIGTERM ? ExitStatus::terminated : ExitStatus::interrupted;
}

const char* signalName(int signal) noexcept {
  return signal == SIGTERM ? "SIGTERM" : "SIGINT";
}

void Interrupts::start(Handler fallback) {
  auto& state = watcher();
  const std::lock_guard lock(state.mutex);
  state.fallback = std::move(fallback);
}

Interrupts::Diversion::Diversion(Handler handler) {
  auto& state = watcher();
  const std::lock_guard lock(state.mutex);
  id_ = state.next++;
  state.diversions.emplace(id_, std::move(handler));
}

Interrupts::Diversion::~Diversion() {
  auto& state = watcher();
  const std::lock_guard lock(state.mutex);
  state.diversions.erase(id_);
}

}  // namespace cvnctl
