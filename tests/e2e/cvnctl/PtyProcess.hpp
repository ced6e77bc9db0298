#pragma once

// A child process on a pseudo-terminal (forkpty), for checking what a program draws when its
// standard output is a terminal. Waits by events (output, exit) with a bound, never by sleeping.

#include "support/Process.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace corvane::testing {

class PtyProcess {
 public:
  using Clock = std::chrono::steady_clock;

  /// Starts `argv` (argv[0] a path) with the current environment plus `environment`, its
  /// standard input, output and error on a new 120x40 terminal.
  PtyProcess(std::vector<std::string> argv, const std::map<std::string, std::string>& environment) {
    // Everything the child needs is prepared before fork: it only calls execve.
    ExecArguments exec(argv, environment);
    winsize size{};
    size.ws_row = 40;
    size.ws_col = 120;
    int master = -1;
    pid_ = ::forkpty(&master, nullptr, nullptr, &size);
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
    if (pid_ == 0) {
      ::execve(exec.argv()[0], exec.argv(), exec.envp());
      ::_exit(127);
    }
    master_ = Fd(master);
  }
  PtyProcess(const PtyProcess&) = delete;
  PtyProcess& operator=(const PtyProcess&) = delete;
  ~PtyProcess() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  /// Everything drawn so far, escape sequences included (the terminal turns "\n" into "\r\n").
  [[nodiscard]] const std::string& screen() const noexcept { return screen_; }

  void signal(int number) const noexcept {
    if (!status_) ::kill(pid_, number);
  }

  /// Reads until `drawn(screen())` holds, the program ends or `bound` passes.
  bool waitUntil(const std::function<bool(const std::string&)>& drawn,
                 std::chrono::milliseconds bound) {
    const auto deadline = Clock::now() + bound;
    while (!drawn(screen_)) {
      if (!pump(deadline)) return drawn(screen_);
    }
    return true;
  }

  /// Reads everything until the program ends; its exit status, or empty after `bound`.
  std::optional<int> wait(std::chrono::milliseconds bound) {
    const auto deadline = Clock::now() + bound;
    while (master_.valid() && pump(deadline)) {
    }
    if (!status_) {
      int status = 0;
      // The terminal is at its end: the program has ended or is about to.
      if (::waitpid(pid_, &status, master_.valid() ? WNOHANG : 0) == pid_)
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
  }

 private:
  // Reads what is there before `deadline`; false at the end of the terminal or the deadline.
  bool pump(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry{master_.get(), POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(std::max<long>(left, 0)));
    if (ready < 0 && errno == EINTR) return true;
    if (ready <= 0) return false;
    std::array<char, 4096> chunk{};
    const ssize_t n = ::read(master_.get(), chunk.data(), chunk.size());
    if (n > 0) {
      screen_.append(chunk.data(), static_cast<std::size_t>(n));
      return true;
    }
    if (n < 0 && errno == EINTR) return true;
    // EIO: every slave descriptor is closed, the program has gone.
    master_.reset();
    return false;
  }

  pid_t pid_ = -1;
  Fd master_;
  std::string screen_;
  std::optional<int> status_;
};

}  // namespace corvane::testing
