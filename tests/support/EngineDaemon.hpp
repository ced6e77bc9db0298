#pragma once

// A real daemon on either install engine for end-to-end tests: the simulated one (corvaned-sim,
// CORVANE_DAEMON_PATH), or the Flatpak one (CORVANE_FLATPAK_DAEMON_PATH) with a private
// installation and the test repository. The tests name their apps by role (hello, quiet, big,
// broken); each engine maps them to apps it has, and states where the real world differs.

#include "support/DaemonProcess.hpp"
#include "support/TemporaryDirectory.hpp"
#include "support/TestRepository.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace corvane::testing {

/// An install engine, the apps the tests use on it and where it differs: a row of a table.
struct Engine {
  std::string label;  ///< the suffix of the test names
  bool flatpak;
  /// The tests' apps: an ordinary one, another, one whose download lasts long enough to cancel
  /// (Pace::slow), one whose install fails with downloadFailed.
  std::string hello, quiet, big, broken;
  std::string name, seller, version;  ///< hello's in the catalogue, and once installed
  /// Downloading pushes an install of hello makes at least: (sim) one per tick; (flatpak) one a
  /// percent at most, which a small app may cover in one.
  long downloads;
  std::string ftpManifestRefusal;  ///< the refusal of an enterprise manifest at an ftp address
  /// Whether a stored queued install waits for a tick when the daemon starts: (flatpak) the
  /// backend's first report, the catalogue read, starts it at once.
  bool queuedWaitsForATick;
};

// clang-format off
inline const Engine simulatedEngine{"Simulated", false,
    "dev.corvane.sample.notes", "dev.corvane.sample.maps", "dev.corvane.sample.chat",
    "dev.corvane.sample.weather" /* made to fail by the fixture */,
    "Notes", "Corvane Labs", "4.1.2", 3,
    "a manifest must be fetched over http(s), not ftp://corvane.dev/apps/Tool.plist", true};
inline const Engine flatpakEngine{"Flatpak", true,
    "org.corvane.Test.Hello", "org.corvane.Test.Quiet", "org.corvane.Test.Big",
    "org.corvane.Test.Broken" /* its runtime is in no repository */,
    "Corvane Hello", "Corvane Test Developers", "1.0", 1,
    "the Flatpak engine reads manifests from file, http and https addresses, not "
    "ftp://corvane.dev/apps/Tool.plist", false};
// clang-format on

/// The engines this build has.
inline const std::vector<const Engine*> engines{&simulatedEngine,
#ifdef CORVANE_FLATPAK_DAEMON_PATH
                                                &flatpakEngine
#endif
};

/// Names an instance of a suite by its engine.
inline void PrintTo(const Engine* engine, std::ostream* out) {
  *out << engine->label;
}

/// How fast installs move.
enum class Pace {
  quick,  ///< as fast as they go
  still,  ///< a tick a minute long: nothing moves on its own while a test looks
  slow,   ///< a download lasts seconds (simulator: slow ticks; Flatpak: a throttled server)
};

class EngineDaemon : public ::testing::Test {
 protected:
  explicit EngineDaemon(const Engine& engine) : engine_(engine) {
    // The Flatpak environment before anything else, so nothing can reach the machine's own
    // installations; the runtime directory before the library's first use, so that its shared
    // connection goes to this daemon.
    if (engine_.flatpak) (void)TestRepository::get();
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
  }

  /// Starts the daemon (again, on the same state and installation) at `pace`, `extra` after the
  /// engine's arguments.
  void start(Pace pace = Pace::quick, const std::vector<std::string>& extra = {}) {
    daemon_.reset();
    auto arguments = engineArguments(pace);
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    daemon_ = std::make_unique<DaemonProcess>(runtime_.path(), std::move(arguments), program());
  }

  [[nodiscard]] std::string program() const {
#ifdef CORVANE_FLATPAK_DAEMON_PATH
    if (engine_.flatpak) return CORVANE_FLATPAK_DAEMON_PATH;
#endif
    return DaemonProcess::binary();
  }

  /// The engine's arguments for `pace`: the state file, the tick and the installation.
  std::vector<std::string> engineArguments(Pace pace) {
    const auto state = (state_.path() / "state.db").native();
    if (!engine_.flatpak) {
      const char* tick = pace == Pace::still ? "60000" : pace == Pace::slow ? "300" : "5";
      return {"--tick-ms",      tick,
              "--state",        state,
              "--fail-install", engine_.broken + "=downloadFailed"};
    }
    // The remote is given to the installation when it has none: the first start's URL stays.
    if (remote_.empty() && pace == Pace::slow) {
      server_ = std::make_unique<RepositoryServer>(TestRepository::get().outDir(), 1 << 20);
      remote_ = server_->url() + "/repo";
    }
    if (remote_.empty()) remote_ = TestRepository::get().url();
    return {"--engine",       "flatpak",
            "--installation", installation().native(),
            "--remote",       "corvane-test=" + remote_,
            "--state",        state,
            "--tick-ms",      pace == Pace::still ? "60000" : "20"};
  }

  /// The private Flatpak installation, and the deployed files of `app` when it is installed there.
  [[nodiscard]] std::filesystem::path installation() const {
    return state_.path() / "installation";
  }
  [[nodiscard]] std::filesystem::path files(std::string_view app) const {
    return installation() / "app" / app / "current/active/files";
  }

  /// An enterprise manifest the engine takes: (sim) an https address; (flatpak) a .flatpakref,
  /// written here, naming big.
  [[nodiscard]] std::string manifestURL() const {
    if (!engine_.flatpak) return "https://corvane.dev/apps/Tool.plist";
    const auto hello = TestRepository::get().outDir() / (engine_.hello + ".flatpakref");
    const auto path = state_.path() / "big.flatpakref";
    std::ofstream(path) << std::regex_replace(readFile(hello), std::regex(engine_.hello),
                                              engine_.big);
    return "file://" + path.native();
  }

  const Engine& engine_;
  TemporaryDirectory runtime_;
  TemporaryDirectory state_;
  std::string remote_;  ///< the Flatpak remote's URL; empty: the test repository's
  std::unique_ptr<RepositoryServer> server_;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace corvane::testing
