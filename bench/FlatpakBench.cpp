// Installing a Flatpak app through the daemon, against libflatpak installing the same ref in the
// same run. `flatpakInstall` times, in each iteration, one install of org.corvane.Test.Hello
// (its runtime already there) directly through the Flatpak layer into one private installation,
// and one through corvaned's Flatpak engine into another, from a declaration to `managed` as the
// library's progress stream reports it; `ratio` is the daemon's time over the direct one.
// Uninstalling between iterations is not timed. `flatpakProgressPushes` counts the progress
// pushes a client receives while org.corvane.Test.Big downloads over throttled HTTP.
//
//   build/release/bench/bench_flatpak --benchmark_repetitions=3

#include "flatpak/Installation.hpp"
#include "flatpak/Transaction.hpp"
#include "support/DaemonProcess.hpp"
#include "support/ServiceClient.hpp"
#include "support/TemporaryDirectory.hpp"
#include "support/TestRepository.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>

namespace corvane::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::TestRepository;
constexpr std::string_view hello = "org.corvane.Test.Hello";

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

/// Waits (untimed) until `path` is gone: the daemon uninstalls after its reply.
void awaitGone(const std::filesystem::path& path) {
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (std::filesystem::exists(path)) {
    if (Clock::now() > deadline) throw std::runtime_error(path.native() + " stays");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

/// The runtime directory of every daemon of this process: the library's shared connection finds
/// each one there, the next call after a daemon is replaced connecting to the new one.
const std::filesystem::path& runtimeDirectory() {
  static const testing::TemporaryDirectory runtime;
  static const bool set =
      ::setenv("CORVANE_RUNTIME_DIR", runtime.path().c_str(), 1) == 0;  // NOLINT: first use
  (void)set;
  return runtime.path();
}

/// A corvaned on the Flatpak engine with a private installation, and a client of it.
struct Daemon {
  explicit Daemon(const std::string& url) {
    process = std::make_unique<testing::DaemonProcess>(
        runtimeDirectory(),
        std::vector<std::string>{"--engine", "flatpak", "--installation", installation().native(),
                                 "--remote", "corvane-test=" + url, "--tick-ms", "20"});
  }
  [[nodiscard]] std::filesystem::path installation() const { return state.path() / "apps"; }

  testing::TemporaryDirectory state;
  std::unique_ptr<testing::DaemonProcess> process;
};

/// Declares `app` and waits until it is managed; returns how long that took.
template <class Stream>
Clock::duration installThroughDaemon(Stream& progress, const std::string& declaration,
                                     std::string_view app) {
  const auto start = Clock::now();
  testing::declare(declaration, StoreAppIdentifier::bundleID(std::string(app)));
  if (!testing::readUntil(progress, [&](const AppProgress& value) {
        return value.bundleID == app && value.state == AppState::managed();
      }))
    throw std::runtime_error("the install did not finish");
  return Clock::now() - start;
}

void flatpakInstall(benchmark::State& state) {
  auto& repository = TestRepository::get();
  const testing::TemporaryDirectory directDir;
  auto direct = flatpak::Installation::openAt(directDir.path());
  direct.addRemote("corvane-test", repository.url());
  const std::string ref = flatpak::appRef(std::string(hello), "stable");
  const auto installDirect = [&] {
    flatpak::Transaction transaction(direct);
    transaction.addInstall("corvane-test", ref);
    transaction.run();
  };
  Daemon daemon(repository.url());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  // Both installations get the runtime outside the timing.
  installDirect();
  direct.uninstall(ref);
  (void)installThroughDaemon(progress, "D-warm", hello);
  DDMRemoveManagedAppRequest{"D-warm"}.performSynchronously();
  awaitGone(daemon.installation() / "app" / hello);

  Clock::duration directTime{};
  Clock::duration daemonTime{};
  int n = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    installDirect();
    directTime += Clock::now() - start;
    const std::string declaration = "D-" + std::to_string(n++);
    daemonTime += installThroughDaemon(progress, declaration, hello);

    state.PauseTiming();
    direct.uninstall(ref);
    DDMRemoveManagedAppRequest{declaration}.performSynchronously();
    awaitGone(daemon.installation() / "app" / hello);
    state.ResumeTiming();
  }
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["direct_s"] = seconds(directTime) / iterations;
  state.counters["daemon_s"] = seconds(daemonTime) / iterations;
  state.counters["ratio"] = seconds(daemonTime) / seconds(directTime);
}
BENCHMARK(flatpakInstall)->Iterations(5)->Unit(benchmark::kMillisecond);

void flatpakProgressPushes(benchmark::State& state) {
  auto& repository = TestRepository::get();
  // 4 MiB/s: Big (8 MiB in the test repository) downloads for about two seconds.
  const testing::RepositoryServer server(repository.outDir(), 4 << 20);
  Daemon daemon(server.url() + "/repo");
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  double pushes = 0;
  Clock::duration downloading{};
  int n = 0;
  for (auto _ : state) {
    const std::string declaration = "D-big-" + std::to_string(n++);
    testing::declare(declaration, StoreAppIdentifier::bundleID("org.corvane.Test.Big"));
    std::optional<Clock::time_point> first;
    Clock::time_point last;
    if (!testing::readUntil(progress, [&](const AppProgress& value) {
          if (std::holds_alternative<AppState::Downloading>(value.state.cases())) {
            if (!first) first = Clock::now();
            last = Clock::now();
            ++pushes;
          }
          return value.state == AppState::managed();
        }))
      throw std::runtime_error("Big did not install");
    if (first) downloading += last - *first;
    state.PauseTiming();
    DDMRemoveManagedAppRequest{declaration}.performSynchronously();
    awaitGone(daemon.installation() / "app/org.corvane.Test.Big");
    state.ResumeTiming();
  }
  state.counters["pushes"] = pushes / static_cast<double>(state.iterations());
  state.counters["pushes_per_s"] = pushes / std::max(seconds(downloading), 1e-9);
}
BENCHMARK(flatpakProgressPushes)->Iterations(2)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace corvane::bench

BENCHMARK_MAIN();
