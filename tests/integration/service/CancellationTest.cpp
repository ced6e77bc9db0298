// Calls whose reply never comes: cancelled the ways Asio callers cancel (a bound signal, the
// timeout idiom of a coroutine), and bounded synchronous calls. Each ends promptly, exactly once,
// with the documented error; the late reply is dropped and the connection goes on.

#include "integration/ipc/IpcTestSupport.hpp"
#include "support/FakeDaemon.hpp"

#include <corvane/Corvane.hpp>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using ipc::testing::bound;
using ipc::testing::TemporaryDirectory;
using namespace std::chrono_literals;

/// The error a failed call carries, as a `corvane::Error`.
Error errorOf(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    return error;
  } catch (const std::exception& other) {
    ADD_FAILURE() << "not a corvane::Error: " << other.what();
  }
  return Error(CorvaneError::unrecoverableError);
}

/// How a caller gives up on a call.
enum class Way { terminalSignal, eitherOrTimer, partialThenTerminal };

struct Case {
  std::string name;
  Way way;
  bool withValue;  // the status request (a value) or the poll (none)
};

class CancellationTest : public ::testing::Test {
 protected:
  /// Lines recorded at `level` whose message starts with `prefix`.
  [[nodiscard]] std::size_t lines(platform::LogLevel level, std::string_view prefix) const {
    std::size_t count = 0;
    for (const auto& record : log.records())
      if (record.level >= level && record.message.starts_with(prefix)) ++count;
    return count;
  }

  void SetUp() override {
    ::setenv("CORVANE_RUNTIME_DIR", directory.path().c_str(), 1);  // NOLINT: before any thread
  }

  TemporaryDirectory directory;
  platform::ScopedLogCapture log;
};

TEST_F(CancellationTest, ACallWhoseReplyNeverComesEndsOnceWithTheCancellation) {
  FakeDaemon daemon(directory.path());
  const std::vector<Case> table = {
      {"signal, no value", Way::terminalSignal, false},
      {"signal, a value", Way::terminalSignal, true},
      {"either-or with a timer, no value", Way::eitherOrTimer, false},
      {"either-or with a timer, a value", Way::eitherOrTimer, true},
      {"partial is not enough, terminal is", Way::partialThenTerminal, false},
  };
  int held = 0;
  for (const auto& [name, way, withValue] : table) {
    SCOPED_TRACE(name);
    daemon.hold();
    asio::io_context io;
    asio::cancellation_signal signal;
    std::vector<std::exception_ptr> completions;
    bool timerWon = false;
    const auto record = [&](std::exception_ptr failure) { completions.push_back(failure); };

    if (way == Way::eitherOrTimer) {
      using namespace asio::experimental::awaitable_operators;
      asio::co_spawn(
          io,
          [&, withValue = withValue]() -> asio::awaitable<void> {
            asio::steady_timer timer(io, 50ms);
            if (withValue) {
              auto first = co_await (DDMDeclarationStatusRequest{}.perform(asio::use_awaitable)
                                     || timer.async_wait(asio::use_awaitable));
              timerWon = first.index() == 1;
            } else {
              auto first = co_await (DDMPollForUpdatesRequest{}.perform(asio::use_awaitable)
                                     || timer.async_wait(asio::use_awaitable));
              timerWon = first.index() == 1;
            }
            completions.emplace_back();
          },
          asio::detached);
    } else {
      if (withValue) {
        DDMDeclarationStatusRequest{}.perform(asio::bind_cancellation_slot(
            signal.slot(), asio::bind_executor(io, [&](std::exception_ptr failure,
                                                       const std::vector<ManagedAppStatus>&) {
              record(failure);
            })));
      } else {
        DDMPollForUpdatesRequest{}.perform(
            asio::bind_cancellation_slot(signal.slot(), asio::bind_executor(io, record)));
      }
      ASSERT_TRUE(daemon.calls.waitFor(++held));
      if (way == Way::partialThenTerminal) {
        // The daemon may already have acted: only terminal cancellation is honoured.
        asio::post(io, [&] { signal.emit(asio::cancellation_type::partial); });
        io.run_for(100ms);
        EXPECT_TRUE(completions.empty()) << "a partial cancellation ended the call";
        io.restart();
      }
      asio::post(io, [&] { signal.emit(asio::cancellation_type::terminal); });
    }
    const auto started = std::chrono::steady_clock::now();
    io.run_for(bound);  // returns once the call is done: it counts as work until then
    if (way == Way::eitherOrTimer) {
      ASSERT_TRUE(daemon.calls.waitFor(++held));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s) << "the cancellation was not prompt";
    ASSERT_EQ(completions.size(), 1U);
    if (way == Way::eitherOrTimer) {
      EXPECT_TRUE(timerWon);
    } else {
      ASSERT_TRUE(completions.front());
      const Error error = errorOf(completions.front());
      EXPECT_TRUE(error.isCancellation());
      EXPECT_EQ(error.error(), CorvaneError::unrecoverableError);
      EXPECT_EQ(error.cause(), "the call was cancelled");
      EXPECT_EQ(error.origin(), std::errc::operation_canceled);
    }

    // The late reply arrives and is dropped: nothing runs again, nothing is logged, and the next
    // call (answered after it, in order) goes through.
    daemon.release();
    EXPECT_NO_THROW(DDMRemoveManagedAppRequest{"I"}.performSynchronously());
    io.restart();
    io.poll();
    EXPECT_EQ(completions.size(), 1U);
  }
  EXPECT_EQ(lines(platform::LogLevel::error, ""), 0U) << "a cancelled call is no failure to log";
}

TEST_F(CancellationTest, ABoundedSynchronousCallTimesOutAndTheConnectionGoesOn) {
  FakeDaemon daemon(directory.path());
  daemon.script(ServiceProtocol::Selectors::currentDeclarationKeys.name,
                R"([{"success": {"_0": ["K"]}}])");
  daemon.hold();
  const auto started = std::chrono::steady_clock::now();
  try {
    (void)DDMDeclarationStatusRequest{}.performSynchronously(200ms);
    ADD_FAILURE() << "the bounded call returned although nothing answered";
  } catch (const Error& error) {
    EXPECT_EQ(error.error(), CorvaneError::unrecoverableError);
    EXPECT_EQ(error.origin(), ipc::ConnectionError::timedOut);
    EXPECT_FALSE(error.isCancellation());
    EXPECT_NE(error.cause().find("getDeclarationStatus:reply:"), std::string::npos)
        << error.cause();
  }
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, 200ms);
  EXPECT_LT(waited, 5s);
  EXPECT_EQ(lines(platform::LogLevel::error, "Error fetching synchronous remote object proxy: "),
            1U);

  // The late reply goes nowhere; the next calls, bounded or not, get their own answers.
  daemon.release();
  EXPECT_EQ(DDMDeclarationKeysRequest{}.performSynchronously(bound), std::vector<std::string>{"K"});
  EXPECT_EQ(DDMDeclarationKeysRequest{}.performSynchronously(), std::vector<std::string>{"K"});
}

}  // namespace
}  // namespace corvane::testing
