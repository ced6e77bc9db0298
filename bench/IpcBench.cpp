// Round trips over the connection facility against the floor: a raw AF_UNIX ping-pong carrying
// the same payload. Every case runs twice: threads unpinned, and every thread of both sides
// pinned to one CPU (threads inherit the affinity of the thread that creates them, so the
// Listener and Connection are made after pinning). The facility round-trip cases report `ratio`:
// their time per round trip over that of a raw ping-pong run right after them, in the same
// placement and for as many round trips, so that the drift of a shared machine's speed between
// repetitions does not show in it. `vcsw` and `ivcsw` count the voluntary and involuntary
// context switches of the whole process per round trip.

#include "BenchSupport.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Listener.hpp>

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <sched.h>
#include <span>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using corvane::Bytes;
using namespace corvane::ipc;
using corvane::bench::Placement;
using corvane::bench::Switches;

constexpr std::size_t payloadSize = 64;

/// Reads exactly `buffer.size()` bytes; false once the socket has ended.
bool receiveAll(int fd, std::span<char> buffer) {
  std::size_t got = 0;
  while (got < buffer.size()) {
    const ssize_t n = recv(fd, buffer.data() + got, buffer.size() - got, 0);
    if (n <= 0) return false;
    got += static_cast<std::size_t>(n);
  }
  return true;
}

/// A socket pair whose far end echoes every payload from a thread of its own.
class RawPingPong {
 public:
  RawPingPong() {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_.data());
    server_ = std::jthread([fd = fds_[1]] {
      std::array<char, payloadSize> buffer{};
      while (receiveAll(fd, buffer)) send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL);
    });
  }
  ~RawPingPong() {
    shutdown(fds_[0], SHUT_RDWR);
    server_.join();
    close(fds_[0]);
    close(fds_[1]);
  }
  RawPingPong(const RawPingPong&) = delete;
  RawPingPong& operator=(const RawPingPong&) = delete;

  void roundTrip() {
    send(fds_[0], buffer_.data(), buffer_.size(), MSG_NOSIGNAL);
    receiveAll(fds_[0], buffer_);
  }

  /// Nanoseconds per round trip over `count` round trips.
  static double measure(std::int64_t count) {
    RawPingPong raw;
    raw.roundTrip();
    const auto start = std::chrono::steady_clock::now();
    for (std::int64_t i = 0; i < count; ++i) raw.roundTrip();
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - start;
    return elapsed.count() / static_cast<double>(count);
  }

 private:
  std::array<int, 2> fds_{};
  std::jthread server_;
  std::array<char, payloadSize> buffer_{};
};

/// Times the benchmark loop and reports what the file comment describes.
class RoundTrips {
 public:
  RoundTrips(benchmark::State& state, bool pinned)
      : state_(state), pinned_(pinned), start_(std::chrono::steady_clock::now()) {}
  RoundTrips(const RoundTrips&) = delete;
  RoundTrips& operator=(const RoundTrips&) = delete;

  /// Call right after the loop. With `againstRaw`, also measures the floor and reports `ratio`.
  void report(bool againstRaw) {
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - start_;
    const auto after = Switches::now();
    const auto iterations = static_cast<double>(state_.iterations());
    const double nanoseconds = elapsed.count() / iterations;
    state_.counters["ns_per_call"] = nanoseconds;
    state_.counters["vcsw"] =
        static_cast<double>(after.voluntary - switches_.voluntary) / iterations;
    state_.counters["ivcsw"] =
        static_cast<double>(after.involuntary - switches_.involuntary) / iterations;
    if (againstRaw)
      state_.counters["ratio"] = nanoseconds / RawPingPong::measure(state_.iterations());
    state_.SetLabel(pinned_ ? "pinned" : "unpinned");
  }

 private:
  benchmark::State& state_;
  bool pinned_;
  Switches switches_ = Switches::now();
  std::chrono::steady_clock::time_point start_;
};

void rawPingPong(benchmark::State& state) {
  const bool pinned = state.range(0) != 0;
  Placement placement(pinned);
  RawPingPong raw;
  RoundTrips timing(state, pinned);
  for (auto _ : state) raw.roundTrip();
  timing.report(false);
}

/// An in-process echo service and a resumed connection to it.
struct Setup {
  std::filesystem::path directory;
  std::optional<Listener> listener;
  std::optional<Connection> connection;

  Setup() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").native();
    directory = mkdtemp(pattern.data());
    listener.emplace("bench", ListenerOptions{directory, false, 4096});
    listener->setConnectionHandler([](Peer& peer) {
      auto table = std::make_shared<OperationTable>();
      table->on("echo:reply:", [](std::optional<Bytes> argument, Reply reply) {
        reply.send(std::move(*argument));
      });
      peer.setExportedObject(table);
      return true;
    });
    listener->resume();
    connection.emplace("bench", ConnectionOptions{directory, std::nullopt});
    connection->resume();
  }
  ~Setup() {
    connection.reset();
    listener.reset();
    std::filesystem::remove_all(directory);
  }
};

void facilitySync(benchmark::State& state) {
  const bool pinned = state.range(0) != 0;
  Placement placement(pinned);
  Setup setup;
  const auto proxy = setup.connection->synchronousRemoteObjectProxy([](const CallError& e) {
    std::fprintf(stderr, "call failed: %s\n", e.description().c_str());
  });
  const std::string payload(payloadSize, 'x');
  proxy.call("echo:reply:", Bytes(payload), [](const Bytes&) {});  // connect outside the timing
  RoundTrips timing(state, pinned);
  for (auto _ : state) {
    proxy.call("echo:reply:", Bytes(payload),
               [](const Bytes& reply) { benchmark::DoNotOptimize(reply); });
  }
  timing.report(true);
}

/// Asynchronous calls with up to `window` in flight; reports calls per second.
void facilityAsyncPipelined(benchmark::State& state) {
  const bool pinned = state.range(0) != 0;
  constexpr int window = 256;
  Placement placement(pinned);
  Setup setup;
  const auto proxy = setup.connection->remoteObjectProxy([](const CallError& e) {
    std::fprintf(stderr, "call failed: %s\n", e.description().c_str());
  });
  const std::string payload(payloadSize, 'x');
  corvane::bench::pipelined(state, window, [&](auto& done) {
    proxy.call("echo:reply:", Bytes(payload), [&done](const Bytes&) { done(); });
  });
  state.SetLabel(pinned ? "pinned" : "unpinned");
}

/// Asynchronous calls one at a time (a reply handler per round trip), for the ratio.
void facilityAsyncRoundTrip(benchmark::State& state) {
  const bool pinned = state.range(0) != 0;
  Placement placement(pinned);
  Setup setup;
  const auto proxy = setup.connection->remoteObjectProxy([](const CallError&) {});
  const std::string payload(payloadSize, 'x');
  std::mutex mutex;
  std::condition_variable done;
  RoundTrips timing(state, pinned);
  for (auto _ : state) {
    bool replied = false;
    proxy.call("echo:reply:", Bytes(payload), [&](const Bytes&) {
      {
        const std::lock_guard lock(mutex);
        replied = true;
      }
      done.notify_one();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return replied; });
  }
  timing.report(true);
}

}  // namespace

BENCHMARK(rawPingPong)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(facilitySync)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(facilityAsyncRoundTrip)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(facilityAsyncPipelined)->Arg(0)->Arg(1)->UseRealTime();

BENCHMARK_MAIN();
