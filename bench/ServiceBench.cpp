// The service layer's cost over the connection facility. An in-process daemon answers
// "getDeclarationStatus:reply:" with ten statuses. `serviceSync` times the synchronous status
// request through the library (encoding, the shared connection, decoding), each one followed by
// the facility's own synchronous call carrying the same bytes on a connection of its own:
// `ratio` is the first's total time over the second's. `servicePipelined` keeps 256
// asynchronous status requests in flight and reports completed calls per second, decoding
// included; `servicePipelinedNoValue` does the same with a remove request, whose reply carries
// no value. Each case runs unpinned and with every thread of the process on CPU 0.
// `decodeStatusReply` times decoding alone.

#include "BenchSupport.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/ipc/Listener.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvane;

/// Ten statuses as the daemon sends them: encoded by the library's own encoder.
std::string tenStatuses() {
  std::vector<ManagedAppStatus> statuses;
  for (int i = 0; i < 10; ++i) {
    ManagedAppStatus status;
    status.bundleID = fmt::format("dev.corvane.app{}", i);
    status.declarationIdentifier = fmt::format("D{}", i);
    status.declarationKey = fmt::format("K{}", i);
    status.state = ManagedAppStatus::State::managed;
    status.updateState = ManagedAppStatus::UpdateState::promptingForUpdateLogin;
    status.reasons = {ManagedAppStatus::Reason::updateAvailable};
    status.name = fmt::format("App {}", i);
    status.installedVersionInfo =
        ManagedAppStatus::InstalledVersionInfo{1000 + i, fmt::format("1{}", i), "1.0"};
    statuses.push_back(std::move(status));
  }
  const Bytes reply =
      TetherEncoder::encode(ServiceResult<std::vector<ManagedAppStatus>>::success(statuses));
  return std::string(reply.view());
}

/// The daemon, the shared connection pointed at it, and a plain facility connection to it; made
/// once, since the shared connection lives as long as the process.
struct World {
  std::filesystem::path directory;
  std::optional<ipc::Listener> service;
  std::optional<ipc::Connection> plain;
  std::string reply = tenStatuses();
  Bytes argument = TetherEncoder::encode(DDMDeclarationStatusRequest{});

  World() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").native();
    directory = ::mkdtemp(pattern.data());
    ::setenv("CORVANE_RUNTIME_DIR", directory.c_str(), 1);  // NOLINT: before any other thread
    service.emplace(std::string(agentServiceName), ipc::ListenerOptions{directory, false, 4096});
    service->setConnectionHandler([this](ipc::Peer& peer) {
      auto table = std::make_shared<ipc::OperationTable>();
      table->on(std::string(ServiceProtocol::Selectors::getDeclarationStatus.name),
                [this](std::optional<Bytes>, ipc::Reply answer) { answer.send(Bytes(reply)); });
      table->on(
          std::string(ServiceProtocol::Selectors::removeManagedAppWithDeclarationIdentifier.name),
          [](std::optional<Bytes>, ipc::Reply answer) {
            answer.send(Bytes(std::string_view(R"([{"success": {"_0": null}}])")));
          });
      peer.setExportedObject(table);
      return true;
    });
    service->resume();
    plain.emplace(std::string(agentServiceName), ipc::ConnectionOptions{directory, std::nullopt});
    plain->resume();
    (void)DDMDeclarationStatusRequest{}.performSynchronously();  // connect outside the timing
  }
  ~World() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }

  static World& get() {
    static World world;
    return world;
  }
};

/// Every thread of the process on CPU 0 (threads made earlier included), for its lifetime.
class AllThreadsPinned {
 public:
  explicit AllThreadsPinned(bool pinned) : pinned_(pinned) {
    if (pinned_) apply(true);
  }
  ~AllThreadsPinned() {
    if (pinned_) apply(false);
  }
  AllThreadsPinned(const AllThreadsPinned&) = delete;
  AllThreadsPinned& operator=(const AllThreadsPinned&) = delete;

 private:
  static void apply(bool pin) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (pin) {
      CPU_SET(0, &set);
    } else {
      for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) CPU_SET(cpu, &set);
    }
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      const auto tid = static_cast<pid_t>(std::stol(task.path().filename().string()));
      sched_setaffinity(tid, sizeof set, &set);
    }
  }
  bool pinned_;
};

void serviceSync(benchmark::State& state) {
  auto& world = World::get();
  const bool pinned = state.range(0) != 0;
  const AllThreadsPinned placement(pinned);
  const DDMDeclarationStatusRequest request;
  const auto proxy = world.plain->synchronousRemoteObjectProxy({});
  // The two calls alternate, so that the machine drifting during the run weighs on both alike.
  using Clock = std::chrono::steady_clock;
  Clock::duration library{};
  Clock::duration facility{};
  for (auto _ : state) {
    const auto start = Clock::now();
    benchmark::DoNotOptimize(request.performSynchronously());
    const auto middle = Clock::now();
    proxy.call(ServiceProtocol::Selectors::getDeclarationStatus.name, world.argument.clone(),
               [](ipc::CallResult result) { benchmark::DoNotOptimize(result); });
    const auto end = Clock::now();
    library += middle - start;
    facility += end - middle;
  }
  const auto iterations = static_cast<double>(state.iterations());
  const auto nanoseconds = [](Clock::duration d) {
    return std::chrono::duration<double, std::nano>(d).count();
  };
  state.counters["ns_per_call"] = nanoseconds(library) / iterations;
  state.counters["facility_ns"] = nanoseconds(facility) / iterations;
  state.counters["ratio"] = nanoseconds(library) / nanoseconds(facility);
  state.SetLabel(pinned ? "pinned" : "unpinned");
}

/// Keeps 256 asynchronous calls of `request` in flight and reports calls per second.
template <class Request>
void pipelinedRequests(benchmark::State& state, const Request& request) {
  World::get();
  const bool pinned = state.range(0) != 0;
  const AllThreadsPinned placement(pinned);
  constexpr int window = 256;
  std::atomic<std::int64_t> failures{0};
  corvane::bench::pipelined(state, window, [&](auto& done) {
    request.perform([&](const std::exception_ptr& failure, auto&&... value) {
      (benchmark::DoNotOptimize(value), ...);
      if (failure) ++failures;
      done();
    });
  });
  if (failures != 0) state.SkipWithError("calls failed");
  state.SetLabel(pinned ? "pinned" : "unpinned");
}

/// The status request: ten statuses decoded per call.
void servicePipelined(benchmark::State& state) {
  pipelinedRequests(state, DDMDeclarationStatusRequest{});
}

/// A request without a value: a string encoded and an empty success decoded per call.
void servicePipelinedNoValue(benchmark::State& state) {
  pipelinedRequests(state, DDMRemoveManagedAppRequest{"D1"});
}

}  // namespace

/// Decoding alone: the status reply straight from its text (what every call does), then, for as
/// many decodes, through a tree of values (what a reply the direct reading leaves behind costs);
/// `ratio` is the first over the second.
void decodeStatusReply(benchmark::State& state) {
  const Bytes reply(tenStatuses());
  using Reply = ServiceResult<std::vector<ManagedAppStatus>>;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) benchmark::DoNotOptimize(TetherDecoder<Reply>::decode(reply));
  const std::chrono::duration<double, std::nano> direct = std::chrono::steady_clock::now() - start;
  start = std::chrono::steady_clock::now();
  for (std::int64_t i = 0; i < state.iterations(); ++i) {
    benchmark::DoNotOptimize(coding::detail::decodeFromTree<Reply>(reply.span()));
  }
  const std::chrono::duration<double, std::nano> tree = std::chrono::steady_clock::now() - start;
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["ns_per_decode"] = direct.count() / iterations;
  state.counters["tree_ns"] = tree.count() / iterations;
  state.counters["ratio"] = direct.count() / tree.count();
}

BENCHMARK(decodeStatusReply)->UseRealTime();
BENCHMARK(serviceSync)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(servicePipelined)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(servicePipelinedNoValue)->Arg(0)->Arg(1)->UseRealTime();

BENCHMARK_MAIN();
