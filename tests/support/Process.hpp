#pragma once

// A child process for end-to-end tests: started with posix_spawn, its standard input, output and
// error on pipes, waited for by events (a line of output, its exit) with a bound, never by
// sleeping. Destroying a Process that still runs kills it and reaps it, so a failing test leaves
// nothing behind.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <map>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

extern char** environ;  // NOLINT: the POSIX environment

namespace corvane::testing {

/// Owns one file descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

/// A child's argv and environment (the current one plus `environment`, which overrides) as the
/// exec functions take them, built before the child starts. Not movable: the pointers point into
/// its own strings.
class ExecArguments {
 public:
  ExecArguments(const std::vector<std::string>& argv,
                const std::map<std::string, std::string>& environment)
      : argvStrings_(argv) {
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string_view text(*entry);
      const auto equals = text.find('=');
      if (equals != std::string_view::npos)
        merged[std::string(text.substr(0, equals))] = std::string(text.substr(equals + 1));
    }
    for (const auto& [key, value] : environment) merged[key] = value;
    envStrings_.reserve(merged.size());
    for (const auto& [key, value] : merged) envStrings_.push_back(key + "=" + value);
    for (auto& text : argvStrings_) argv_.push_back(text.data());
    argv_.push_back(nullptr);
    for (auto& text : envStrings_) envp_.push_back(text.data());
    envp_.push_back(nullptr);
  }
  ExecArguments(const ExecArguments&) = delete;
  ExecArguments& operator=(const ExecArguments&) = delete;

  [[nodiscard]] char* const* argv() noexcept { return argv_.data(); }
  [[nodiscard]] char* const* envp() noexcept { return envp_.data(); }

 private:
  std::vector<std::string> argvStrings_;
  std::vector<std::string> envStrings_;
  std::vector<char*> argv_;
  std::vector<char*> envp_;
};

class Process {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds defaultBound{30};

  /// Starts `argv` (argv[0] is looked up in PATH when it has no slash) with the current
  /// environment plus `environment` (which overrides). Throws std::system_error if it cannot.
  explicit Process(std::vector<std::string> argv,
                   const std::map<std::string, std::string>& environment = {})
      : argv_(std::move(argv)) {
    if (argv_.empty()) throw std::invalid_argument("Process: empty argv");
    std::array<Pipe, 3> pipes{makePipe(), makePipe(), makePipe()};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipes[0].read.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipes[1].write.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipes[2].write.get(), STDERR_FILENO);
    // The child starts with default signal handling and nothing blocked, whatever the test did.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    ExecArguments exec(argv_, environment);
    const int failed =
        ::posix_spawnp(&pid_, exec.argv()[0], &actions, &attributes, exec.argv(), exec.envp());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failed != 0) throw std::system_error(failed, std::generic_category(), "spawn " + argv_[0]);
    // A pidfd turns the child's end into an event that poll(2) waits on with the pipes.
    pidfd_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    stdin_ = std::move(pipes[0].write);
    stdout_ = std::move(pipes[1].read);
    stderr_ = std::move(pipes[2].read);
  }

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  /// Everything the process wrote to standard output / error so far (as far as it was read).
  [[nodiscard]] const std::string& out() const noexcept { return out_; }
  [[nodiscard]] const std::string& err() const noexcept { return err_; }

  /// Writes to the child's standard input (all of it, or throws).
  void write(std::string_view text) {
    while (!text.empty()) {
      const ssize_t n = ::write(stdin_.get(), text.data(), text.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw std::system_error(errno, std::generic_category(), "write to child");
      text.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  void closeStdin() noexcept { stdin_.reset(); }

  void signal(int number) const noexcept {
    if (!status_) ::kill(pid_, number);
  }

  /// Reads output until `predicate(out(), err())` holds or the process ends or `bound` passes;
  /// returns whether it held.
  bool waitFor(const std::function<bool(const std::string&, const std::string&)>& predicate,
               std::chrono::milliseconds bound = defaultBound) {
    const auto deadline = Clock::now() + bound;
    while (!predicate(out_, err_)) {
      if (!pump(deadline)) return predicate(out_, err_);
    }
    return true;
  }
  /// Reads standard output until it contains `needle`.
  bool waitForOutput(std::string_view needle, std::chrono::milliseconds bound = defaultBound) {
    return waitFor([&](const std::string& out, const std::string&) { return out.contains(needle); },
                   bound);
  }
  bool waitForError(std::string_view needle, std::chrono::milliseconds bound = defaultBound) {
    return waitFor([&](const std::string&, const std::string& err) { return err.contains(needle); },
                   bound);
  }

  /// Reads all output and reaps the process. Returns its exit status, or 128 + the signal that
  /// ended it; empty when it was still running after `bound`.
  std::optional<int> wait(std::chrono::milliseconds bound = defaultBound) {
    const auto deadline = Clock::now() + bound;
    while (!status_ && pump(deadline)) {
    }
    if (!status_) return std::nullopt;
    // Whatever it wrote before it ended is in the pipes now.
    while (pump(Clock::now())) {
    }
    return status_;
  }

  /// SIGTERM, then the exit status (SIGKILL when still running after `bound`).
  std::optional<int> terminate(std::chrono::milliseconds bound = defaultBound) {
    signal(SIGTERM);
    auto result = wait(bound);
    if (!result) {
      signal(SIGKILL);
      wait(bound);
    }
    return result;
  }

  [[nodiscard]] bool running() {
    if (status_) return false;
    return !reap(WNOHANG);
  }

 private:
  struct Pipe {
    Fd read;
    Fd write;
  };
  static Pipe makePipe() {
    std::array<int, 2> fds{};
    if (::pipe2(fds.data(), O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "pipe2");
    return Pipe{Fd(fds[0]), Fd(fds[1])};
  }

  bool reap(int flags) {
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, flags);
    if (done != pid_) return false;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }

  // Reads what is available before `deadline` and reaps the child once it ended; false when
  // nothing more can come (pipes at their end and the child reaped) or the deadline passed. A
  // deadline already passed still reads what is there without waiting.
  bool pump(Clock::time_point deadline) {
    if (!status_ && !pidfd_.valid()) reap(WNOHANG);
    if (!stdout_.valid() && !stderr_.valid() && status_) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    std::array<pollfd, 3> fds{pollfd{stdout_.get(), POLLIN, 0}, pollfd{stderr_.get(), POLLIN, 0},
                              pollfd{status_ ? -1 : pidfd_.get(), POLLIN, 0}};
    const int ready = ::poll(fds.data(), fds.size(), static_cast<int>(std::max<long>(left, 0)));
    if (ready < 0 && errno != EINTR) return false;
    if (ready == 0) return false;
    drain(fds[0], stdout_, out_);
    drain(fds[1], stderr_, err_);
    if ((fds[2].revents & POLLIN) != 0) reap(0);
    return true;
  }
  static void drain(const pollfd& entry, Fd& fd, std::string& into) {
    if (!fd.valid() || (entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0) return;
    std::array<char, 8192> chunk{};
    const ssize_t n = ::read(fd.get(), chunk.data(), chunk.size());
    if (n > 0)
      into.append(chunk.data(), static_cast<std::size_t>(n));
    else if (n == 0 || errno != EINTR)
      fd.reset();
  }

  std::vector<std::string> argv_;
  pid_t pid_ = -1;
  Fd pidfd_;
  Fd stdin_;
  Fd stdout_;
  Fd stderr_;
  std::string out_;
  std::string err_;
  std::optional<int> status_;
};

}  // namespace corvane::testing
