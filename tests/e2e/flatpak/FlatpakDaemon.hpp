#pragma once

// corvaned on the Flatpak engine as a process of the test's own: a private installation with the
// test repository as its remote, state in a temporary directory, and a directory for the test's
// server to serve.

#include "support/DaemonProcess.hpp"
#include "support/TemporaryDirectory.hpp"
#include "support/TestRepository.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdlib.h>
#include <string>
#include <vector>

namespace corvane::testing {

class FlatpakDaemon : public ::testing::Test {
 protected:
  void SetUp() override {
    (void)TestRepository::get();  // the environment first: nothing may reach the machine's own
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
    std::filesystem::create_directories(served());
  }
  void start() {
    daemon_ = std::make_unique<DaemonProcess>(
        runtime_.path(),
        std::vector<std::string>{"--engine", "flatpak", "--installation", installation().native(),
                                 "--remote", "corvane-test=" + TestRepository::get().url(),
                                 "--state", (state_.path() / "state.db").native(), "--tick-ms",
                                 "20", "--verbose"});
  }
  [[nodiscard]] std::filesystem::path installation() const {
    return state_.path() / "installation";
  }
  /// What the test's server serves.
  [[nodiscard]] std::filesystem::path served() const { return state_.path() / "served"; }
  void serve(const std::string& name, const std::string& contents) const {
    std::ofstream(served() / name, std::ios::binary) << contents;
  }

  TemporaryDirectory runtime_;
  TemporaryDirectory state_;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace corvane::testing
