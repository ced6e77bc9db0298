#pragma once

// The world the Flatpak tests run in, set up once per test process: HOME, the XDG directories
// and Flatpak's system and user installations point into a temporary directory (so nothing the
// tests do can reach the machine's own installations), and the test repository that
// scripts/make-test-repo builds: the one built for the whole test run (CORVANE_TEST_REPOSITORY,
// the ctest fixture TestRepository; only read), else one of this process's own.

#include "support/Process.hpp"
#include "support/TemporaryDirectory.hpp"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>
#include <string>

namespace corvane::testing {

inline const std::filesystem::path sourceDir = CORVANE_SOURCE_DIR;

/// Reads a whole file ("" when it cannot).
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// Runs a script of the source tree and throws with its standard error when it fails.
inline std::string runScript(const std::vector<std::string>& argv) {
  Process process(argv);
  const auto status = process.wait(std::chrono::minutes(3));
  if (status != 0)
    throw std::runtime_error(argv.front() + " failed ("
                             + (status ? std::to_string(*status) : std::string("still running"))
                             + "): " + process.err());
  return process.out();
}

/// scripts/serve-test-repo serving a directory over HTTP for as long as it lives.
class RepositoryServer {
 public:
  /// `rate`: bytes per second per response (0: as fast as it goes).
  RepositoryServer(const std::filesystem::path& dir, long rate)
      : process_({(sourceDir / "scripts/serve-test-repo").native(), "--rate", std::to_string(rate),
                  dir.native()}) {
    if (!process_.waitForOutput("/\n"))
      throw std::runtime_error("serve-test-repo did not start: " + process_.err());
    const auto& out = process_.out();
    const auto start = out.find("http://");
    url_ = out.substr(start, out.find('\n', start) - start);
  }
  [[nodiscard]] const std::string& url() const noexcept { return url_; }

 private:
  Process process_;
  std::string url_;
};

class TestRepository {
 public:
  /// Size of Big's payload in the tests: enough for a throttled download to take seconds.
  static constexpr int bigMib = 8;

  /// The one of this process, built on first use.
  static TestRepository& get() {
    static TestRepository repository;
    return repository;
  }

  [[nodiscard]] const std::filesystem::path& home() const noexcept { return home_; }
  /// The directory the script wrote: repo/, the .flatpakref and .flatpakrepo files.
  [[nodiscard]] const std::filesystem::path& outDir() const noexcept { return out_; }
  [[nodiscard]] std::filesystem::path repo() const { return out_ / "repo"; }
  [[nodiscard]] std::string url() const { return "file://" + repo().native(); }
  /// Where Flatpak's default system installation would be (nothing may appear there).
  [[nodiscard]] std::filesystem::path systemDir() const { return dir_.path() / "system"; }
  /// Flatpak's user installation ($FLATPAK_USER_DIR).
  [[nodiscard]] std::filesystem::path userDir() const { return dir_.path() / "user"; }

  /// Builds a repository of its own into `out` (for a case that changes it).
  static void build(const std::filesystem::path& out) {
    runScript({(sourceDir / "scripts/make-test-repo").native(), "--big-mib", std::to_string(bigMib),
               out.native()});
  }
  /// Adds version 2 of Hello to the repository in `out`.
  static void addUpdate(const std::filesystem::path& out) {
    runScript({(sourceDir / "scripts/make-test-repo").native(), "--update", out.native()});
  }

 private:
  TestRepository() : home_(dir_.path() / "home") {
    std::filesystem::create_directories(home_);
    const auto runtime = dir_.path() / "runtime";
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    // Before any libflatpak call of this process (single-threaded still).
    // NOLINTBEGIN(concurrency-mt-unsafe)
    ::setenv("HOME", home_.c_str(), 1);
    ::setenv("XDG_DATA_HOME", (home_ / ".local/share").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home_ / ".config").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (home_ / ".cache").c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    ::setenv("FLATPAK_SYSTEM_DIR", systemDir().c_str(), 1);
    ::setenv("FLATPAK_USER_DIR", userDir().c_str(), 1);
    ::setenv("FLATPAK_CONFIG_DIR", (dir_.path() / "config").c_str(), 1);
    // NOLINTEND(concurrency-mt-unsafe)
#ifdef CORVANE_TEST_REPOSITORY
    out_ = CORVANE_TEST_REPOSITORY;
    if (std::filesystem::exists(out_ / "corvane-test.flatpakrepo")) return;
#endif
    out_ = dir_.path() / "out";
    build(out_);
  }

  TemporaryDirectory dir_;
  std::filesystem::path home_;
  std::filesystem::path out_;
};

}  // namespace corvane::testing
