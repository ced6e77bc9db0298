// The push hub's fan-out and the memory of open streams, in process (no daemon: the service
// switch is off, so registration requests fail at once and are not part of what is measured).
// `fanOut` hands the hub one batch of 100 progress messages with 100 progress streams open and
// drains every stream, reporting deliveries (values taken by a consumer) per second.
// `stateStreamMemory` opens 1,000 state streams for distinct apps and reports the growth of the
// resident set per stream beyond the first.

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>

#include <benchmark/benchmark.h>
#include <boost/json/parse.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvane;

/// Pages resident now, in bytes.
double residentBytes() {
  std::ifstream statm("/proc/self/statm");
  double size = 0;
  double resident = 0;
  statm >> size >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

void switchOff() {
  ::setenv("CORVANE_FEATURE_CORVANE_SERVICE", "0", 1);  // NOLINT: before any other thread
  ::setenv("CORVANE_LOG_LEVEL", "fault", 1);            // NOLINT
  platform::Log::setThreshold(platform::LogLevel::fault);
}

Bytes progressBatch(int messages) {
  std::vector<TetherClientMessage> batch;
  batch.reserve(static_cast<std::size_t>(messages));
  for (int i = 0; i < messages; ++i) {
    batch.push_back({TetherClientMessage::MessageType::appProgress(
        AppProgress{AppState::waiting(), fmt::format("dev.corvane.app{}", i), {}})});
  }
  return TetherEncoder::encode(batch);
}

void fanOut(benchmark::State& state) {
  switchOff();
  constexpr int listeners = 100;
  constexpr int messages = 100;
  const Bytes batch = progressBatch(messages);
  std::vector<AsyncStream<AppProgress>> streams;
  streams.reserve(listeners);
  for (int i = 0; i < listeners; ++i)
    streams.push_back(ManagedAppLibrary::shared().progressUpdates());
  std::int64_t deliveries = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    TetherClient::shared().handleMessages(batch.clone());
    for (auto& stream : streams) {
      for (int i = 0; i < messages; ++i) benchmark::DoNotOptimize(stream.next());
    }
    deliveries += std::int64_t{listeners} * messages;
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  state.counters["deliveries_per_s"] = static_cast<double>(deliveries) / elapsed.count();
}

void stateStreamMemory(benchmark::State& state) {
  switchOff();
  constexpr int count = 1000;
  for (auto _ : state) {
    std::vector<ManagedApp> apps;
    apps.reserve(count);
    for (int i = 0; i < count; ++i) {
      apps.push_back(coding::decode<ManagedApp>(boost::json::parse(fmt::format(
          R"({{"declarationIdentifier": "D{0}", "bundleID": "dev.corvane.s{0}", "platform": 1,
              "name": "n", "genres": [], "languages": [], "screenshots": [],
              "hasLicenseAgreement": false}})",
          i))));
    }
    std::vector<AsyncStream<AppState>> streams;
    streams.reserve(count);
    streams.push_back(apps[0].stateUpdates());
    const double before = residentBytes();
    for (int i = 1; i < count; ++i)
      streams.push_back(apps[static_cast<std::size_t>(i)].stateUpdates());
    const double after = residentBytes();
    state.counters["bytes_per_stream"] = (after - before) / (count - 1);
    state.PauseTiming();
    streams.clear();
    state.ResumeTiming();
  }
}

}  // namespace

BENCHMARK(fanOut)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(stateStreamMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
