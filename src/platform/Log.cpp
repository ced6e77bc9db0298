#include <corvane/platform/Log.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <unistd.h>

namespace corvane::platform {

struct ScopedLogCapture::State {
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<LogRecord> records;
};

namespace {

LogLevel levelFromEnvironment() noexcept {
  const char* value = std::getenv("CORVANE_LOG_LEVEL");  // NOLINT(concurrency-mt-unsafe)
  if (value == nullptr) return LogLevel::notice;
  const std::string_view text(value);
  for (auto level :
       {LogLevel::debug, LogLevel::info, LogLevel::notice, LogLevel::error, LogLevel::fault}) {
    if (text == toString(level)) return level;
  }
  return LogLevel::notice;
}

std::atomic<LogLevel>& thresholdCell() noexcept {
  static std::atomic<LogLevel> cell{levelFromEnvironment()};
  return cell;
}

/// An object made on first use and never destroyed. Logging must keep working while static
/// objects are destroyed at exit: a shared connection closing then logs from its own threads.
template <class T>
class Immortal {
 public:
  template <class... Args>
  explicit Immortal(Args&&... args) {
    std::construct_at(pointer(), std::forward<Args>(args)...);
  }
  [[nodiscard]] T& get() noexcept { return *pointer(); }

 private:
  T* pointer() noexcept { return std::launder(reinterpret_cast<T*>(storage_.data())); }  // NOLINT
  alignas(T) std::array<std::byte, sizeof(T)> storage_{};
};

// The installed captures. `active` lets the common path skip the lock.
struct Captures {
  std::atomic<int> active{0};
  std::mutex mutex;
  std::vector<std::shared_ptr<ScopedLogCapture::State>> states;
};

Captures& captures() noexcept {
  static Immortal<Captures> instance;
  return instance.get();
}

int syslogPriority(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::debug:
      return 7;
    case LogLevel::info:
      return 6;
    case LogLevel::notice:
      return 5;
    case LogLevel::error:
      return 3;
    case LogLevel::fault:
      return 2;
  }
  return 6;
}

bool journalAvailable() noexcept {
  static const bool available = [] {
    const char* backend = std::getenv("CORVANE_LOG_BACKEND");  // NOLINT(concurrency-mt-unsafe)
    if (backend != nullptr && std::string_view(backend) == "stderr") return false;
    return ::access("/run/systemd/journal/socket", W_OK) == 0;
  }();
  return available;
}

void writeToSystem(LogLevel level, const std::string& subsystem, const std::string& category,
                   std::string_view message) noexcept {
  const int length = static_cast<int>(std::min<std::size_t>(message.size(), 1U << 30U));
  if (journalAvailable()) {
    const int rc = sd_journal_send(
        "MESSAGE=%.*s", length, message.data(), "PRIORITY=%i", syslogPriority(level),
        "SYSLOG_IDENTIFIER=%s", program_invocation_short_name, "CORVANE_SUBSYSTEM=%s",
        subsystem.c_str(), "CORVANE_CATEGORY=%s", category.c_str(), nullptr);
    if (rc >= 0) return;
  }
  // One fprintf call per line keeps concurrent lines whole.
  std::fprintf(stderr, "%s[%s] %s: %.*s\n", subsystem.c_str(), category.c_str(),
               toString(level).data(), length, message.data());
}

}  // namespace

std::string_view toString(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::notice:
      return "notice";
    case LogLevel::error:
      return "error";
    case LogLevel::fault:
      return "fault";
  }
  return "info";
}

Log::Log(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

bool Log::isEnabled(LogLevel level) const noexcept {
  return captures().active.load(std::memory_order_acquire) > 0
         || level >= thresholdCell().load(std::memory_order_relaxed);
}

void Log::write(LogLevel level, std::string_view message) const noexcept {
  auto& all = captures();
  if (all.active.load(std::memory_order_acquire) > 0) {
    try {
      std::vector<std::shared_ptr<ScopedLogCapture::State>> targets;
      {
        const std::lock_guard registry(all.mutex);
        targets = all.states;
      }
      if (!targets.empty()) {
        for (const auto& state : targets) {
          {
            const std::lock_guard record(state->mutex);
            state->records.push_back({level, subsystem_, category_, std::string(message)});
          }
          state->changed.notify_all();
        }
        return;
      }
    } catch (...) {
      // Out of memory while recording: fall through to the system log.
    }
  }
  if (level < thresholdCell().load(std::memory_order_relaxed)) return;
  writeToSystem(level, subsystem_, category_, message);
}

void Log::setThreshold(LogLevel level) noexcept {
  thresholdCell().store(level);
}
LogLevel Log::threshold() noexcept {
  return thresholdCell().load();
}

ScopedLogCapture::ScopedLogCapture() : state_(std::make_shared<State>()) {
  auto& all = captures();
  const std::lock_guard registry(all.mutex);
  all.states.push_back(state_);
  all.active.fetch_add(1, std::memory_order_release);
}

ScopedLogCapture::~ScopedLogCapture() {
  auto& all = captures();
  const std::lock_guard registry(all.mutex);
  std::erase(all.states, state_);
  all.active.fetch_sub(1, std::memory_order_release);
}

std::vector<LogRecord> ScopedLogCapture::records() const {
  const std::lock_guard lock(state_->mutex);
  return state_->records;
}

std::size_t ScopedLogCapture::count(std::string_view message) const {
  const std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::ranges::count_if(
      state_->records, [&](const LogRecord& r) { return r.message == message; }));
}

std::size_t ScopedLogCapture::count(LogLevel level, std::string_view message) const {
  const std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::ranges::count_if(state_->records, [&](const LogRecord& r) {
    return r.level == level && r.message == message;
  }));
}

bool ScopedLogCapture::waitFor(const std::function<bool(const LogRecord&)>& predicate,
                               std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout,
                                  [&] { return std::ranges::any_of(state_->records, predicate); });
}

}  // namespace corvane::platform

namespace corvane {

#define CORVANE_LOG_CATEGORY(handle, name)                                                   \
  const platform::Log& LogCategory::handle() {                                               \
    static platform::Immortal<platform::Log> log(std::string(LogCategory::subsystem), name); \
    return log.get();                                                                        \
  }
CORVANE_LOG_CATEGORY(appLaunch, "App Launch")
CORVANE_LOG_CATEGORY(daemon, "Daemon")
CORVANE_LOG_CATEGORY(ddm, "DDM")
CORVANE_LOG_CATEGORY(download, "Download")
CORVANE_LOG_CATEGORY(general, "General")
CORVANE_LOG_CATEGORY(install, "Install")
CORVANE_LOG_CATEGORY(library, "Library")
CORVANE_LOG_CATEGORY(oauth, "OAuth")
CORVANE_LOG_CATEGORY(progress, "Progress")
CORVANE_LOG_CATEGORY(scheduler, "Scheduler")
CORVANE_LOG_CATEGORY(updates, "Updates")
CORVANE_LOG_CATEGORY(vpp, "VPP")
CORVANE_LOG_CATEGORY(tether, "Tether")
#undef CORVANE_LOG_CATEGORY

}  // namespace corvane
