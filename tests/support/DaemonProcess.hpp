#pragma once

// A real daemon (corvaned-sim, or corvaned) for end-to-end tests, in a private runtime directory
// that is removed with it. Tests that use it get the binary's path as CORVANE_DAEMON_PATH.

#include "support/Process.hpp"
#include "support/TemporaryDirectory.hpp"

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvane::testing {

class DaemonProcess {
 public:
  /// What the daemon prints (after its name) once it accepts connections.
  static constexpr std::string_view readyLine = ": listening on ";

  /// Starts `program` (default: binary()) with `--runtime-dir` set to `runtimeDirectory` and
  /// `arguments` after it, and waits until it listens. Throws std::runtime_error (with its output)
  /// if it does not.
  DaemonProcess(std::filesystem::path runtimeDirectory, std::vector<std::string> arguments = {},
                std::string program = binary())
      : runtimeDirectory_(std::move(runtimeDirectory)),
        arguments_(std::move(arguments)),
        program_(std::move(program)) {
    start();
  }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;
  ~DaemonProcess() = default;

  [[nodiscard]] static std::string binary() { return CORVANE_DAEMON_PATH; }
  [[nodiscard]] const std::filesystem::path& runtimeDirectory() const noexcept {
    return runtimeDirectory_;
  }
  [[nodiscard]] std::filesystem::path socketPath() const {
    return runtimeDirectory_ / "dev.corvane.corvaneagent";
  }
  [[nodiscard]] Process& process() { return *process_; }

  /// SIGTERM; returns the exit status (empty when it did not stop in time and was killed).
  std::optional<int> stop() { return process_->terminate(); }
  /// SIGKILL, and waits until it is gone.
  void kill() {
    process_->signal(SIGKILL);
    process_->wait();
  }
  /// Starts it again with the same arguments (after `stop` or `kill`), plus `extra`.
  void restart(const std::vector<std::string>& extra = {}) {
    process_.reset();
    start(extra);
  }

 private:
  void start(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv{program_, "--runtime-dir", runtimeDirectory_.native()};
    argv.insert(argv.end(), arguments_.begin(), arguments_.end());
    argv.insert(argv.end(), extra.begin(), extra.end());
    process_ = std::make_unique<Process>(argv);
    if (!process_->waitForOutput(readyLine)) {
      throw std::runtime_error(program_ + " did not start; stdout: " + process_->out()
                               + " stderr: " + process_->err());
    }
  }

  std::filesystem::path runtimeDirectory_;
  std::vector<std::string> arguments_;
  std::string program_;
  std::unique_ptr<Process> process_;
};

}  // namespace corvane::testing
