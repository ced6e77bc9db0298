#include "Interrupts.hpp"

#include "ExitStatus.hpp"
#include "Problems.hpp"

#include <csignal>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace cvnctl {
namespace {

struct Registry {
  std::mutex mutex;
  Interrupts::Handler fallback;
  std::map<unsigned long, Interrupts::Handler> diversions;
  unsigned long next = 0;
};

Registry& registry() {
  // Never destroyed: the signal thread may still look at it while the process exits.
  static auto* instance = new Registry;
  return *instance;
}

sigset_t handledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

ExitStatus signalStatus(int signal) noexcept {
  return signal == SIGTERM ? ExitStatus::terminated : ExitStatus::interrupted;
}

const char* signalName(int signal) noexcept {
  return signal == SIGTERM ? "SIGTERM" : "SIGINT";
}

void Interrupts::start(Handler fallback) {
  registry().fallback = std::move(fallback);
  const sigset_t set = handledSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set] {
    for (;;) {
      int signal = 0;
      if (::sigwait(&set, &signal) != 0) continue;
      Handler handler;
      {
        auto& state = registry();
        const std::lock_guard lock(state.mutex);
        handler = state.diversions.empty() ? state.fallback : state.diversions.rbegin()->second;
      }
      if (handler) handler(signal);
    }
  }).detach();
}

Interrupts::Diversion::Diversion(Handler handler) {
  auto& state = registry();
  const std::lock_guard lock(state.mutex);
  id_ = state.next++;
  state.diversions.emplace(id_, std::move(handler));
}

Interrupts::Diversion::~Diversion() {
  auto& state = registry();
  const std::lock_guard lock(state.mutex);
  state.diversions.erase(id_);
}

}  // namespace cvnctl
