#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::platform {

/// Severity of a log line, lowest first.
enum class LogLevel { debug, info, notice, error, fault };

/// "debug", "info", ...
[[nodiscard]] std::string_view toString(LogLevel level) noexcept;

/// One written line, as a capture sees it.
struct LogRecord {
  LogLevel level = LogLevel::info;
  std::string subsystem;
  std::string category;
  std::string message;
};

/// A handle on the system log for one (subsystem, category). Lines go to the journal (fields
/// MESSAGE, PRIORITY, SYSLOG_IDENTIFIER, CORVANE_SUBSYSTEM, CORVANE_CATEGORY) when its socket
/// exists, to standard error otherwise. Lines below the threshold (`CORVANE_LOG_LEVEL`:
/// debug|info|notice|error|fault, default notice) are dropped. Thread-safe; never throws from
/// writing.
class Log {
 public:
  Log(std::string subsystem, std::string category);

  [[nodiscard]] const std::string& subsystem() const noexcept { return subsystem_; }
  [[nodiscard]] const std::string& category() const noexcept { return category_; }

  /// Whether a line at `level` would be written (always true while a capture is installed).
  [[nodiscard]] bool isEnabled(LogLevel level) const noexcept;
  /// Writes one line. Values are written in full, never redacted.
  void write(LogLevel level, std::string_view message) const noexcept;

  template <class... Args>
  void debug(fmt::format_string<Args...> format, Args&&... args) const {
    log(LogLevel::debug, format, std::forward<Args>(args)...);
  }
  template <class... Args>
  void info(fmt::format_string<Args...> format, Args&&... args) const {
    log(LogLevel::info, format, std::forward<Args>(args)...);
  }
  template <class... Args>
  void notice(fmt::format_string<Args...> format, Args&&... args) const {
    log(LogLevel::notice, format, std::forward<Args>(args)...);
  }
  template <class... Args>
  void error(fmt::format_string<Args...> format, Args&&... args) const {
    log(LogLevel::error, format, std::forward<Args>(args)...);
  }
  template <class... Args>
  void fault(fmt::format_string<Args...> format, Args&&... args) const {
    log(LogLevel::fault, format, std::forward<Args>(args)...);
  }

  /// Sets the process-wide threshold (tests and tools; the environment sets it otherwise).
  static void setThreshold(LogLevel level) noexcept;
  [[nodiscard]] static LogLevel threshold() noexcept;

 private:
  template <class... Args>
  void log(LogLevel level, fmt::format_string<Args...> format, Args&&... args) const {
    if (isEnabled(level)) write(level, fmt::format(format, std::forward<Args>(args)...));
  }

  std::string subsystem_;
  std::string category_;
};

/// While alive, every line written by any `Log` (whatever the threshold) is recorded here instead
/// of reaching the journal or standard error. Several captures may be alive at once; each sees
/// every line. Thread-safe.
class ScopedLogCapture {
 public:
  ScopedLogCapture();
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  /// Every line recorded so far, in order.
  [[nodiscard]] std::vector<LogRecord> records() const;
  /// How many recorded lines have exactly this message (and level, when given).
  [[nodiscard]] std::size_t count(std::string_view message) const;
  [[nodiscard]] std::size_t count(LogLevel level, std::string_view message) const;
  /// Waits until a recorded line satisfies `predicate`, at most `timeout`; true if one did.
  bool waitFor(const std::function<bool(const LogRecord&)>& predicate,
               std::chrono::milliseconds timeout) const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace corvane::platform
