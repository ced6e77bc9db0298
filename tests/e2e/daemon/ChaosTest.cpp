// Chaos: a real corvaned-sim with a state file is killed (SIGKILL) and started again at random
// intervals while clients in every form the library offers (blocking calls, callbacks, futures,
// coroutines) and cvnctl processes loop over commands. Whatever the timing, no call hangs, none
// completes twice, no acknowledged write is lost, and the streams opened before the first kill
// deliver again after the last restart.
//
// Environment: CORVANE_CHAOS_SECONDS (default 20) is how long the clients run;
// CORVANE_CHAOS_SEED replays a run (the seed is printed); CORVANE_CHAOS_KILLS=0 keeps the daemon
// running throughout (the soak under LeakSanitizer, scripts/soak).

#include "support/DaemonProcess.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

/// How long any one call may take, restarts and sanitizers included, before it counts as hung.
constexpr auto hangBound = std::chrono::seconds(60);

struct Settings {
  std::chrono::seconds duration{20};
  std::uint64_t seed = std::random_device{}();
  bool kills = true;

  static Settings fromEnvironment() {
    Settings settings;
    if (const char* text = std::getenv("CORVANE_CHAOS_SECONDS"))  // NOLINT: read before threads
      settings.duration = std::chrono::seconds(std::stoll(text));
    if (const char* text = std::getenv("CORVANE_CHAOS_SEED"))  // NOLINT: read before threads
      settings.seed = std::stoull(text);
    if (const char* text = std::getenv("CORVANE_CHAOS_KILLS"))  // NOLINT: read before threads
      settings.kills = std::string_view(text) != "0";
    return settings;
  }
};

// Sample apps the clients declare; Notes is left to the streams' anchor, so that only the final
// step installs it.
constexpr std::array<std::int64_t, 4> clientItems{1000000002, 1000000003, 1000000006, 1000000007};

enum class Kind { add, remove, status, keys };

struct Op {
  Kind kind;
  std::string identifier;  // add, remove
  std::int64_t item = 0;   // add
  bool immediately = false;

  [[nodiscard]] std::string describe() const {
    static constexpr std::array names{"add", "remove", "status", "keys"};
    return fmt::format("{} {}", names.at(static_cast<std::size_t>(kind)), identifier);
  }
  [[nodiscard]] ManagedAppDeclaration declared() const {
    return declaration(identifier, StoreAppIdentifier::itemID(item),
                       immediately ? InstallTimingEnum::immediately : InstallTimingEnum::onDemand);
  }
};

/// Every call of the run: when it started and how often it completed, and what became of each
/// write. Shared with the callbacks, which may outlive a failed test.
class Ledger {
 public:
  std::size_t begin(std::string what) {
    const std::scoped_lock callsLock(mutex_);
    calls_.push_back(Call{std::move(what), Clock::now(), 0});
    return calls_.size() - 1;
  }

  void complete(std::size_t id) {
    const std::scoped_lock callsLock(mutex_);
    Call& call = calls_.at(id);
    if (++call.completions == 1 && Clock::now() - call.start > hangBound)
      faults_.push_back(fmt::format("{} took longer than {}s", call.what, hangBound.count()));
  }

  void fault(std::string what) {
    const std::scoped_lock faultsLock(mutex_);
    faults_.push_back(std::move(what));
  }

  void wrote(const Op& op, bool acknowledged) {
    const std::scoped_lock writesLock(mutex_);
    Write& write = writes_[op.identifier];
    if (op.kind == Kind::add) {
      write.added = acknowledged;
      acknowledgedAdds_ += acknowledged ? 1 : 0;
    } else {
      write.removeTried = true;
      write.removed = acknowledged;
      acknowledgedRemoves_ += acknowledged ? 1 : 0;
    }
  }

  /// The faults so far, calls that did not complete exactly once included.
  [[nodiscard]] std::vector<std::string> faults() const {
    const std::scoped_lock ledgerLock(mutex_);
    std::vector<std::string> found = faults_;
    for (const Call& call : calls_)
      if (call.completions != 1)
        found.push_back(fmt::format("{} completed {} times", call.what, call.completions));
    return found;
  }

  /// Acknowledged writes that `keys` (the declaration keys after the last restart) contradicts.
  /// An add whose remove failed may be either way; an add that failed is not looked at.
  [[nodiscard]] std::vector<std::string> lostWrites(const std::set<std::string>& keys) const {
    const std::scoped_lock writesLock(mutex_);
    std::vector<std::string> lost;
    for (const auto& [identifier, write] : writes_) {
      const bool present = keys.contains("key-" + identifier);
      if (write.removed && present)
        lost.push_back(identifier + ": removed, but still declared");
      else if (write.added && !write.removeTried && !present)
        lost.push_back(identifier + ": added, but gone");
    }
    return lost;
  }

  [[nodiscard]] std::string summary() const {
    const std::scoped_lock ledgerLock(mutex_);
    return fmt::format("{} calls, {} acknowledged adds, {} acknowledged removes", calls_.size(),
                       acknowledgedAdds_, acknowledgedRemoves_);
  }

 private:
  struct Call {
    std::string what;
    Clock::time_point start;
    int completions;
  };
  struct Write {
    bool added = false;
    bool removeTried = false;
    bool removed = false;
  };

  mutable std::mutex mutex_;
  std::deque<Call> calls_;
  std::vector<std::string> faults_;
  std::map<std::string, Write> writes_;
  std::size_t acknowledgedAdds_ = 0;
  std::size_t acknowledgedRemoves_ = 0;
};

/// What one client decides next, from its own generator: adds of fresh declarations, removes of
/// ones it added, and reads. Never reusing an identifier keeps each write's fate checkable.
class Script {
 public:
  Script(std::string name, std::uint64_t seed) : name_(std::move(name)), random_(seed) {}

  Op next() {
    // A client keeps few declarations, so that the daemon's state stays small however long the
    // run.
    const auto roll = added_.size() >= 16 ? 50 : std::uniform_int_distribution<int>(0, 99)(random_);
    if (roll < 45) {
      const auto item = clientItems.at(
          std::uniform_int_distribution<std::size_t>(0, clientItems.size() - 1)(random_));
      return Op{Kind::add, fmt::format("D-{}-{}", name_, serial_++), item, roll < 10};
    }
    if (roll < 75 && !added_.empty()) {
      const auto at = std::uniform_int_distribution<std::size_t>(0, added_.size() - 1)(random_);
      std::string identifier = std::move(added_.at(at));
      added_.erase(added_.begin() + static_cast<std::ptrdiff_t>(at));
      return Op{Kind::remove, std::move(identifier)};
    }
    return Op{roll < 88 ? Kind::status : Kind::keys, {}};
  }

  void settle(Ledger& ledger, const Op& op, bool acknowledged) {
    if (op.kind == Kind::add || op.kind == Kind::remove) ledger.wrote(op, acknowledged);
    if (op.kind == Kind::add && acknowledged) added_.push_back(op.identifier);
  }

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

 private:
  std::string name_;
  std::mt19937_64 random_;
  std::vector<std::string> added_;
  std::size_t serial_ = 0;
};

/// Sends `op` through `token` and hands what `perform` returned to `use`.
template <class Token, class Use>
auto send(const Op& op, Token&& token, Use&& use) {
  switch (op.kind) {
    case Kind::add:
      return use(DDMAppOrUpdateManagedAppRequest(op.declared()).perform(token));
    case Kind::remove:
      return use(DDMRemoveManagedAppRequest{op.identifier}.perform(token));
    case Kind::status:
      return use(DDMDeclarationStatusRequest{}.perform(token));
    case Kind::keys:
      break;
  }
  return use(DDMDeclarationKeysRequest{}.perform(token));
}

/// Sends `op` with a plain callback.
template <class Handler>
void post(const Op& op, Handler handler) {
  switch (op.kind) {
    case Kind::add:
      return DDMAppOrUpdateManagedAppRequest(op.declared()).perform(std::move(handler));
    case Kind::remove:
      return DDMRemoveManagedAppRequest{op.identifier}.perform(std::move(handler));
    case Kind::status:
      return DDMDeclarationStatusRequest{}.perform(std::move(handler));
    case Kind::keys:
      return DDMDeclarationKeysRequest{}.perform(std::move(handler));
  }
}

void syncCall(const Op& op) {
  switch (op.kind) {
    case Kind::add:
      DDMAppOrUpdateManagedAppRequest(op.declared()).performSynchronously();
      return;
    case Kind::remove:
      DDMRemoveManagedAppRequest{op.identifier}.performSynchronously();
      return;
    case Kind::status:
      (void)DDMDeclarationStatusRequest{}.performSynchronously();
      return;
    case Kind::keys:
      (void)DDMDeclarationKeysRequest{}.performSynchronously();
      return;
  }
}

/// The coded declaration cvnctl reads for an add.
std::string declarationJson(const Op& op) {
  return fmt::format(
      R"({{"declarationKey": "key-{0}", "declarationIdentifier": "{0}",)"
      R"( "managementScope": {{"user": {{}}}}, "installBehavior": {{"installTiming": {{"{1}": {{}}}},)"
      R"( "isAccountPromptAllowed": false, "purchaseMethod": {{"volumePurchaseProgram":)"
      R"( {{"_0": {{"itemID": {{"_0": {2}}}}}, "license": {{"device": {{}}}}}}}}}},)"
      R"( "backupBehavior": {{"backupAppData": false}}, "updateBehavior":)"
      R"( {{"automaticallyUpdate": {{}}}}, "platform": 1}})",
      op.identifier, op.immediately ? "immediately" : "onDemand", op.item);
}

/// The clients: each form runs on a thread of its own until `stop`, and says when it is done.
class Clients {
 public:
  Clients(std::shared_ptr<Ledger> ledger, std::uint64_t seed, std::filesystem::path runtime)
      : ledger_(std::move(ledger)), runtime_(std::move(runtime)) {
    threads_.emplace_back([this, seed] { run(&Clients::blocking, Script("sync", seed + 1)); });
    threads_.emplace_back([this, seed] { run(&Clients::callbacks, Script("callback", seed + 2)); });
    threads_.emplace_back([this, seed] { run(&Clients::futures, Script("future", seed + 3)); });
    threads_.emplace_back(
        [this, seed] { run(&Clients::coroutines, Script("coroutine", seed + 4)); });
    threads_.emplace_back([this, seed] { run(&Clients::cvnctl, Script("cvnctl", seed + 5)); });
  }
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;
  ~Clients() { stop_ = true; }  // the jthreads join after this

  /// Stops the clients and waits until each finished its last call; false when one is still
  /// busy after the bound (its call hangs).
  bool stop() {
    stop_ = true;
    std::unique_lock doneLock(mutex_);
    return done_.wait_for(doneLock, hangBound, [&] { return finished_ == threads_.size(); });
  }

 private:
  void run(void (Clients::*body)(Script&), Script script) {
    try {
      (this->*body)(script);
    } catch (const std::exception& error) {
      ledger_->fault(fmt::format("{} client: {}", script.name(), error.what()));
    }
    const std::scoped_lock doneLock(mutex_);
    ++finished_;
    done_.notify_all();
  }

  // Outcome of one call: acknowledged, or the library's error (a daemon away is expected).
  static bool acknowledged(const std::exception_ptr& failure) {
    if (!failure) return true;
    try {
      std::rethrow_exception(failure);
    } catch (const Error&) {
      return false;
    }
  }

  void blocking(Script& script) {
    while (!stop_) {
      const Op op = script.next();
      const auto id = ledger_->begin("sync " + op.describe());
      std::exception_ptr failure;
      try {
        syncCall(op);
      } catch (...) {
        failure = std::current_exception();
      }
      ledger_->complete(id);
      script.settle(*ledger_, op, acknowledged(failure));
    }
  }

  // A few calls in flight at once, each with a plain callback counted as it runs.
  void callbacks(Script& script) {
    struct Batch {
      std::mutex mutex;
      std::condition_variable settled;
      std::vector<std::optional<std::exception_ptr>> outcomes;
    };
    while (!stop_) {
      auto batch = std::make_shared<Batch>();
      const std::array ops{script.next(), script.next(), script.next()};
      batch->outcomes.resize(ops.size());
      for (std::size_t slot = 0; slot < ops.size(); ++slot) {
        const auto id = ledger_->begin("callback " + ops[slot].describe());
        post(ops[slot], [ledger = ledger_, batch, id, slot](std::exception_ptr failure, auto&&...) {
          ledger->complete(id);
          const std::scoped_lock batchLock(batch->mutex);
          batch->outcomes[slot] = std::move(failure);
          batch->settled.notify_all();
        });
      }
      std::unique_lock batchLock(batch->mutex);
      if (!batch->settled.wait_for(batchLock, hangBound, [&] {
            return std::ranges::all_of(batch->outcomes, [](auto& o) { return o.has_value(); });
          }))
        return;  // the ledger names the calls that never completed
      const auto outcomes = batch->outcomes;
      batchLock.unlock();
      for (std::size_t slot = 0; slot < ops.size(); ++slot)
        script.settle(*ledger_, ops[slot], acknowledged(*outcomes[slot]));
    }
  }

  void futures(Script& script) {
    while (!stop_) {
      const Op op = script.next();
      const auto id = ledger_->begin("future " + op.describe());
      const bool acked = send(op, asio::use_future, [&](auto future) {
        if (future.wait_for(hangBound) != std::future_status::ready)
          throw std::runtime_error("future " + op.describe() + " never became ready");
        ledger_->complete(id);
        try {
          future.get();
        } catch (...) {
          return acknowledged(std::current_exception());
        }
        return true;
      });
      script.settle(*ledger_, op, acked);
    }
  }

  // Two coroutines on one io_context, awaiting calls in turn.
  void coroutines(Script& script) {
    asio::io_context context;
    std::mutex scriptMutex;  // both coroutines draw from the one script
    auto loop = [&]() -> asio::awaitable<void> {
      while (!stop_) {
        Op op = [&] {
          const std::scoped_lock scriptLock(scriptMutex);
          return script.next();
        }();
        const auto id = ledger_->begin("coroutine " + op.describe());
        std::exception_ptr failure;
        try {
          co_await send(op, asio::use_awaitable, [](auto awaitable) -> asio::awaitable<void> {
            (void)co_await std::move(awaitable);
          });
        } catch (...) {
          failure = std::current_exception();
        }
        ledger_->complete(id);
        const std::scoped_lock scriptLock(scriptMutex);
        script.settle(*ledger_, op, acknowledged(failure));
      }
    };
    for (int i = 0; i < 2; ++i)
      asio::co_spawn(context, loop(), [&](const std::exception_ptr& failure) {
        if (failure) ledger_->fault("a coroutine ended with an exception");
      });
    context.run();
  }

  // cvnctl processes, one command each; exit 0 is the acknowledgement.
  void cvnctl(Script& script) {
    while (!stop_) {
      const Op op = script.next();
      std::vector<std::string> argv{CVNCTL_PATH, "--runtime-dir", runtime_.native(), "--timeout",
                                    "20"};
      if (op.kind == Kind::add) {
        const auto file = runtime_ / (op.identifier + ".json");
        std::ofstream(file) << declarationJson(op);
        argv.insert(argv.end(), {"add", file.native()});
      } else if (op.kind == Kind::remove) {
        argv.insert(argv.end(), {"remove", op.identifier});
      } else {
        argv.emplace_back(op.kind == Kind::status ? "status" : "keys");
      }
      const auto id = ledger_->begin("cvnctl " + op.describe());
      Process process(argv);
      const auto status = process.wait(hangBound);
      if (!status) {
        ledger_->fault("cvnctl " + op.describe() + " did not exit");
        return;
      }
      ledger_->complete(id);
      // 0 done, 1 refused, 3 not found, 4 daemon away, 5 timed out; anything else is a fault.
      if (!std::set{0, 1, 3, 4, 5}.contains(*status))
        ledger_->fault(
            fmt::format("cvnctl {} exited with {}: {}", op.describe(), *status, process.err()));
      script.settle(*ledger_, op, *status == 0);
    }
  }

  std::shared_ptr<Ledger> ledger_;
  std::filesystem::path runtime_;
  std::atomic<bool> stop_ = false;
  std::mutex mutex_;
  std::condition_variable done_;
  std::size_t finished_ = 0;
  std::vector<std::jthread> threads_;  // last: joined before the rest goes
};

bool declares(const CatalogResult& result, std::string_view identifier) {
  const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
  return apps != nullptr && std::ranges::any_of(*apps, [&](const ManagedApp& app) {
           return app.declarationIdentifier() == identifier;
         });
}

class Chaos : public ::testing::Test {
 protected:
  void SetUp() override {
    // Before the library's first use, so that its shared connection goes to this daemon.
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
    // The daemon logs each registration at info level.
    ::setenv("CORVANE_LOG_LEVEL", "info", 1);  // NOLINT: no threads yet
  }

  TemporaryDirectory runtime_;
};

TEST_F(Chaos, CallsEndOnceWritesSurviveAndStreamsComeBackWhileTheDaemonIsKilled) {
  const Settings settings = Settings::fromEnvironment();
  std::cout << "chaos: seed " << settings.seed << " (CORVANE_CHAOS_SEED), "
            << settings.duration.count() << " s, " << (settings.kills ? "with" : "without")
            << " kills" << std::endl;
  std::mt19937_64 random(settings.seed);
  DaemonProcess daemon(runtime_.path(),
                       {"--tick-ms", "5", "--state", (runtime_.path() / "state.db").native()});

  // The streams' anchor: Notes, declared on demand, which only the final step installs.
  declare("D-anchor", StoreAppIdentifier::itemID(notesItem), InstallTimingEnum::onDemand);
  auto catalog = ManagedAppLibrary::shared().managedApps();
  std::optional<ManagedApp> anchor = firstCatalogEntry(catalog);
  ASSERT_TRUE(anchor.has_value());
  auto states = anchor->stateUpdates();
  ASSERT_TRUE(nextWithin(states).has_value());
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(daemon.process().waitFor([](const std::string&, const std::string& err) {
    return occurrences(err, ") registered ") == 3;
  })) << daemon.process().err();

  auto ledger = std::make_shared<Ledger>();
  std::size_t restarts = 0;
  {
    Clients clients(ledger, settings.seed, runtime_.path());
    const auto end = Clock::now() + settings.duration;
    std::uniform_int_distribution<int> pause(100, 500);
    while (Clock::now() < end) {
      // Reads the daemon's output while it lives, so that its pipe never fills.
      const auto interval = std::chrono::milliseconds(settings.kills ? pause(random) : 1000);
      (void)daemon.process().waitFor([](const auto&, const auto&) { return false; }, interval);
      ASSERT_TRUE(daemon.process().running())
          << "the daemon ended by itself: " << daemon.process().err();
      if (!settings.kills) continue;
      daemon.kill();
      daemon.restart();
      ++restarts;
    }
    if (!clients.stop()) {
      // A thread blocked in a call for good cannot be joined: say which calls hang, and end.
      for (const auto& fault : ledger->faults()) std::cerr << "chaos: " << fault << '\n';
      std::cerr << "chaos: a client is still busy after " << hangBound.count() << " s (seed "
                << settings.seed << ")" << std::endl;
      std::abort();
    }
  }
  if (settings.kills) {
    daemon.kill();
    daemon.restart();
    ++restarts;
  }
  std::cout << "chaos: " << restarts << " restarts, " << ledger->summary() << std::endl;
  // The connection is back (its streams resumed) before the checks make their calls on it.
  if (settings.kills) {
    ASSERT_TRUE(daemon.process().waitForError(") resumed with ")) << daemon.process().err();
  }

  const auto keys = DDMDeclarationKeysRequest{}.performSynchronously(bound);
  EXPECT_EQ(ledger->lostWrites({keys.begin(), keys.end()}), std::vector<std::string>{})
      << "seed " << settings.seed;

  // Each stream delivers again: a new declaration reaches the catalogue, and installing the
  // anchor reaches its progress and its state.
  declare("D-final", StoreAppIdentifier::itemID(clientItems[0]), InstallTimingEnum::onDemand);
  EXPECT_TRUE(readUntil(catalog, [](const auto& result) { return declares(result, "D-final"); }));
  auto installed = ManagedAppLibrary::shared().install(*anchor, asio::use_future);
  ASSERT_EQ(installed.wait_for(bound), std::future_status::ready);
  installed.get();
  EXPECT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == anchor->bundleID() && value.state == AppState::managed();
  }));
  EXPECT_TRUE(
      readUntil(states, [](const AppState& state) { return state == AppState::managed(); }));

  // Late second completions would have arrived by now, with everything else.
  EXPECT_EQ(ledger->faults(), std::vector<std::string>{}) << "seed " << settings.seed;
  EXPECT_EQ(daemon.stop(), 0) << daemon.process().err();
}

}  // namespace
}  // namespace corvane::testing
