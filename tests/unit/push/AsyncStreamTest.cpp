// AsyncStream: buffering, every way of waiting for a value, ending from either side, and races
// between a consumer and producers on other threads. Every wait is on the event, bounded.

#include <corvane/push/AsyncStream.hpp>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <numeric>
#include <ranges>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using Stream = AsyncStream<int>;
using Result = Stream::YieldResult;
using Values = std::vector<int>;
constexpr auto bound = std::chrono::seconds(10);
constexpr auto enqueued = YieldStatus::enqueued;
constexpr auto dropped = YieldStatus::dropped;
constexpr auto terminated = YieldStatus::terminated;

static_assert(std::ranges::input_range<Stream> && !std::is_copy_constructible_v<Stream>);

/// The value of a completion; a failure if it did not come within the bound.
std::optional<int> await(std::future<std::optional<int>> completion) {
  if (completion.wait_for(bound) != std::future_status::ready) {
    ADD_FAILURE() << "no completion within the bound";
    return std::nullopt;
  }
  return completion.get();
}

Values drain(Stream& stream) {
  Values values;
  while (auto value = stream.next()) values.push_back(*value);
  return values;
}

Values upTo(int count) {
  Values values(static_cast<std::size_t>(count));
  std::iota(values.begin(), values.end(), 0);
  return values;
}

/// The threads a termination handler ran on, one per run. Must outlive the stream.
class Terminations {
 public:
  std::function<void()> handler() {
    return [this] {
      const std::lock_guard lock(mutex_);
      runs_.push_back(std::this_thread::get_id());
    };
  }
  std::vector<std::thread::id> runs() const {
    const std::lock_guard lock(mutex_);
    return runs_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::thread::id> runs_;
};

TEST(AsyncStream, BufferingKeepsWhatItsPolicySays) {
  struct Case {
    std::string name;
    BufferingPolicy policy;
    std::vector<Result> results;  // of yielding 1 to 5 while the consumer is not waiting
    Values kept;
  };
  const auto e = [](std::optional<int> discarded) { return Result{enqueued, discarded}; };
  const auto d = [](int value) { return Result{dropped, value}; };
  const std::vector<Case> table = {
      {"unbounded", BufferingPolicy::unbounded(), std::vector(5, e({})), {1, 2, 3, 4, 5}},
      {"newest(1)", BufferingPolicy::bufferingNewest(1), {e({}), e(1), e(2), e(3), e(4)}, {5}},
      {"newest(3)",
       BufferingPolicy::bufferingNewest(3),
       {e({}), e({}), e({}), e(1), e(2)},
       {3, 4, 5}},
      {"oldest(2)", BufferingPolicy::bufferingOldest(2), {e({}), e({}), d(3), d(4), d(5)}, {1, 2}},
      {"newest(0)", BufferingPolicy::bufferingNewest(0), {d(1), d(2), d(3), d(4), d(5)}, {}},
      {"oldest(0)", BufferingPolicy::bufferingOldest(0), {d(1), d(2), d(3), d(4), d(5)}, {}},
  };
  for (const auto& [name, policy, results, kept] : table) {
    SCOPED_TRACE(name);
    auto [stream, continuation] = Stream::make(policy);
    // A waiting consumer is handed the value whatever the room in the buffer.
    auto waiting = stream.next(asio::use_future);
    EXPECT_TRUE(continuation.yield(0) == e({}));
    EXPECT_EQ(await(std::move(waiting)), 0);

    std::vector<Result> seen;
    for (int value = 1; value <= 5; ++value) seen.push_back(continuation.yield(value));
    EXPECT_TRUE(seen == results);
    continuation.finish();
    EXPECT_EQ(drain(stream), kept);
  }
}

enum class Form { callback, future, awaitable, deferred, blocking };

/// Starts one `next` in each form on a stream; the future is ready once it completed.
class NextInEveryForm : public ::testing::TestWithParam<Form> {
 protected:
  ~NextInEveryForm() override { guard_.reset(); }

  std::future<std::optional<int>> start(Stream& stream) {
    auto promise = std::make_shared<std::promise<std::optional<int>>>();
    auto completion = promise->get_future();
    auto fulfil = [promise](boost::system::error_code error, std::optional<int> value) {
      EXPECT_FALSE(error);
      promise->set_value(value);
    };
    switch (GetParam()) {
      case Form::callback:
        stream.next(fulfil);
        break;
      case Form::future:
        return stream.next(asio::use_future);
      case Form::awaitable:
        asio::co_spawn(
            io_,
            [&stream, fulfil]() -> asio::awaitable<void> {
              fulfil({}, co_await stream.next(asio::use_awaitable));
            },
            asio::detached);
        break;
      case Form::deferred:
        stream.next(asio::deferred)(fulfil);
        break;
      case Form::blocking:
        return std::async(std::launch::async, [&stream] { return stream.next(); });
    }
    return completion;
  }

 private:
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> guard_{io_.get_executor()};
  std::jthread runner_{[this] { io_.run(); }};
};

TEST_P(NextInEveryForm, TakesBufferedThenLaterValuesThenTheEnd) {
  auto [stream, continuation] = Stream::make();
  continuation.yield(1);
  EXPECT_EQ(await(start(stream)), 1);
  auto later = start(stream);
  std::jthread producer([&c = continuation] {
    c.yield(2);
    c.yield(3);
    c.finish();
  });
  EXPECT_EQ(await(std::move(later)), 2);
  EXPECT_EQ(await(start(stream)), 3);
  EXPECT_EQ(await(start(stream)), std::nullopt);
  EXPECT_EQ(await(start(stream)), std::nullopt);
}

std::string formName(const ::testing::TestParamInfo<Form>& param) {
  constexpr std::array names{"callback", "future", "awaitable", "deferred", "blocking"};
  return names.at(static_cast<std::size_t>(param.param));
}

INSTANTIATE_TEST_SUITE_P(AsyncStream, NextInEveryForm,
                         ::testing::Values(Form::callback, Form::future, Form::awaitable,
                                           Form::deferred, Form::blocking),
                         formName);

TEST(AsyncStream, APendingNextIsWorkOnItsExecutorUntilItsHandlerRan) {
  using End = std::function<void(const Stream::Continuation&, Stream&)>;
  const std::vector<std::tuple<std::string, End, std::optional<int>>> table = {
      {"yield", [](auto& c, auto&) { c.yield(5); }, 5},
      {"finish", [](auto& c, auto&) { c.finish(); }, std::nullopt},
      {"cancel", [](auto&, auto& s) { s.cancel(); }, std::nullopt},
      {"destroy", [](auto&, auto& s) { Stream(std::move(s)); }, std::nullopt}};
  for (const auto& [name, end, expected] : table) {
    SCOPED_TRACE(name);
    asio::io_context io;
    auto [stream, continuation] = Stream::make();
    std::vector<std::pair<std::optional<int>, std::thread::id>> completions;
    stream.next(asio::bind_executor(io, [&](boost::system::error_code, std::optional<int> value) {
      completions.emplace_back(value, std::this_thread::get_id());
    }));
    io.poll();
    EXPECT_FALSE(io.stopped());  // it would have stopped for want of work
    std::jthread([&e = end, &c = continuation, &s = stream] { e(c, s); }).join();
    io.run_for(bound);  // returns as soon as it is out of work
    EXPECT_EQ(completions, (std::vector{std::pair(expected, std::this_thread::get_id())}));
    io.restart();
    io.poll();
    EXPECT_TRUE(io.stopped());
  }
}

TEST(AsyncStream, BlockingIterationTakesEveryValueUntilTheEnd) {
  auto [stream, continuation] = Stream::make();
  std::jthread producer([&c = continuation] {
    for (int value = 0; value < 100; ++value) c.yield(value);
    c.finish();
  });
  Values seen;
  for (int value : stream) seen.push_back(value);
  EXPECT_EQ(seen, upTo(100));
  EXPECT_TRUE(stream.begin() == stream.end());
}

TEST(AsyncStream, FinishLeavesTheBufferToTheConsumerThenEnds) {
  Terminations ended;
  auto [stream, continuation] = Stream::make();
  continuation.onTermination(ended.handler());
  continuation.yield(1);
  continuation.yield(2);
  continuation.finish();
  EXPECT_EQ(ended.runs(), std::vector{std::this_thread::get_id()});
  EXPECT_TRUE(continuation.isTerminated());
  EXPECT_TRUE(continuation.yield(3) == (Result{terminated, 3}));
  EXPECT_EQ(drain(stream), (Values{1, 2}));
  continuation.finish();
  stream.cancel();
  EXPECT_EQ(ended.runs().size(), 1U);

  auto [cancelled, itsContinuation] = Stream::make();
  itsContinuation.yield(1);
  cancelled.cancel();  // unlike finish, drops what is buffered
  EXPECT_EQ(cancelled.next(), std::nullopt);
}

enum class End { finish, cancel, destroy };

TEST(AsyncStream, TheFirstEndRunsTheTerminationHandlerOnceOnItsThread) {
  const std::vector<std::vector<End>> table = {{End::finish},
                                               {End::cancel},
                                               {End::destroy},
                                               {End::finish, End::cancel},
                                               {End::cancel, End::finish, End::destroy},
                                               {End::finish, End::destroy}};
  for (const auto& ends : table) {
    SCOPED_TRACE(static_cast<int>(ends.front()) + 10 * static_cast<int>(ends.size()));
    Terminations ended;
    auto made = Stream::make();
    std::optional<Stream> stream(std::move(made.stream));
    const auto continuation = made.continuation;
    continuation.onTermination(ended.handler());
    auto pending = stream->next(asio::use_future);
    std::vector<std::thread::id> enders;
    for (const auto end : ends) {
      std::jthread ender([&] {
        if (end == End::finish) continuation.finish();
        if (end == End::cancel) stream->cancel();
        if (end == End::destroy) stream.reset();
      });
      enders.push_back(ender.get_id());
    }
    EXPECT_EQ(ended.runs(), std::vector{enders.front()});
    EXPECT_EQ(await(std::move(pending)), std::nullopt);
    EXPECT_TRUE(continuation.yield(1) == (Result{terminated, 1}));
  }
}

TEST(AsyncStream, TheTerminationHandlerRunsUnlockedAndAtOnceWhenSetAfterTheEnd) {
  auto [stream, continuation] = Stream::make();
  std::future<YieldStatus> fromElsewhere;
  bool answered = false;
  continuation.onTermination([&, &c = continuation] {
    fromElsewhere = std::async(std::launch::async, [&c] { return c.yield(1).status; });
    answered = fromElsewhere.wait_for(bound) == std::future_status::ready;
  });
  stream.cancel();
  EXPECT_TRUE(answered);  // another thread took the stream's lock while the handler ran
  EXPECT_EQ(fromElsewhere.get(), terminated);

  Terminations late;
  continuation.onTermination(late.handler());
  EXPECT_EQ(late.runs(), std::vector{std::this_thread::get_id()});
}

TEST(AsyncStream, EndingRacesWithAYieldingProducer) {
  enum class Race { consumerCancels, consumerDestroys, producerFinishesToo };
  const std::array policies{BufferingPolicy::unbounded(), BufferingPolicy::bufferingNewest(2),
                            BufferingPolicy::bufferingOldest(2)};
  for (const auto race :
       {Race::consumerCancels, Race::consumerDestroys, Race::producerFinishesToo}) {
    for (int round = 0; round < 150; ++round) {
      Terminations ended;
      auto made = Stream::make(policies.at(static_cast<std::size_t>(round % 3)));
      std::optional<Stream> stream(std::move(made.stream));
      made.continuation.onTermination(ended.handler());
      std::jthread producer([race, round, c = made.continuation] {
        for (int value = 0; c.yield(value).status != terminated; ++value) {
          if (race == Race::producerFinishesToo && value == round % 7) c.finish();
        }
      });
      for (int taken = 0; taken < round % 4; ++taken) (void)stream->next();
      if (race == Race::consumerDestroys) {
        stream.reset();
      } else {
        stream->cancel();
      }
      const auto producerId = producer.get_id();
      producer.join();
      const auto runs = ended.runs();
      ASSERT_EQ(runs.size(), 1U);
      EXPECT_TRUE(runs.front() == std::this_thread::get_id()
                  || (race == Race::producerFinishesToo && runs.front() == producerId));
    }
  }
}

TEST(AsyncStream, ConcurrentProducersDeliverEveryValueOnceInTheirOwnOrder) {
  constexpr int producers = 4;
  constexpr int each = 2000;
  for (const bool chainedCallbacks : {false, true}) {
    auto [stream, continuation] = Stream::make();
    std::atomic<int> notEnqueued = 0;
    std::jthread finisher([&, &c = continuation] {
      std::vector<std::jthread> threads;
      threads.reserve(producers);
      for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
          for (int i = 0; i < each; ++i) {
            if (c.yield(p * each + i).status != enqueued) ++notEnqueued;
          }
        });
      }
      threads.clear();
      c.finish();
    });
    Values seen;
    if (chainedCallbacks) {
      std::promise<void> done;
      std::function<void(boost::system::error_code, std::optional<int>)> take =
          [&, &s = stream](boost::system::error_code error, std::optional<int> value) {
            EXPECT_FALSE(error);
            if (!value) return done.set_value();
            seen.push_back(*value);
            s.next(take);
          };
      stream.next(take);
      ASSERT_EQ(done.get_future().wait_for(bound), std::future_status::ready);
    } else {
      for (int value : stream) seen.push_back(value);
    }
    finisher.join();
    EXPECT_EQ(notEnqueued, 0);
    std::vector<int> lastOf(producers, -1);  // each producer's values arrive in its order
    for (const int value : seen) {
      EXPECT_LT(std::exchange(lastOf.at(static_cast<std::size_t>(value / each)), value), value);
    }
    std::ranges::sort(seen);
    EXPECT_EQ(seen, upTo(producers * each));
  }
}

TEST(AsyncStream, ASlowConsumerSeesAnOrderedPartAndTheRestIsReportedDiscarded) {
  constexpr int count = 5000;
  for (const auto policy : {BufferingPolicy::unbounded(), BufferingPolicy::bufferingNewest(4),
                            BufferingPolicy::bufferingOldest(4)}) {
    auto [stream, continuation] = Stream::make(policy);
    std::promise<void> halfway;
    Values discarded;
    std::jthread producer([&, &c = continuation] {
      for (int value = 0; value < count; ++value) {
        if (auto result = c.yield(value); result.discarded) discarded.push_back(*result.discarded);
        if (value == count / 2) halfway.set_value();
      }
      c.finish();
    });
    // Behind from the start: takes nothing until half has been yielded.
    ASSERT_EQ(halfway.get_future().wait_for(bound), std::future_status::ready);
    const auto seen = drain(stream);
    producer.join();
    EXPECT_TRUE(std::ranges::is_sorted(seen) && std::ranges::adjacent_find(seen) == seen.end());
    Values all = seen;
    all.insert(all.end(), discarded.begin(), discarded.end());
    std::ranges::sort(all);
    EXPECT_EQ(all, upTo(count));  // each value either taken or reported discarded, never both
    ASSERT_GE(seen.size(), 4U);
    switch (policy.kind()) {
      case BufferingPolicy::Kind::unbounded:
        EXPECT_TRUE(discarded.empty());
        break;
      case BufferingPolicy::Kind::bufferingNewest:
        EXPECT_EQ(seen.back(), count - 1);
        break;
      case BufferingPolicy::Kind::bufferingOldest:
        EXPECT_EQ(Values(seen.begin(), seen.begin() + 4), (Values{0, 1, 2, 3}));
        break;
    }
  }
}

TEST(AsyncStream, AHandlerWithoutAnExecutorNeverRunsOnTheEndingThread) {
  for (const auto end : {End::finish, End::cancel, End::destroy}) {
    for (int round = 0; round < 40; ++round) {
      auto made = Stream::make();
      std::optional<Stream> stream(std::move(made.stream));
      std::promise<std::thread::id> ranOn;
      stream->next([&ranOn](boost::system::error_code, std::optional<int>) {
        ranOn.set_value(std::this_thread::get_id());
      });
      std::jthread other([&, c = made.continuation] {
        if (round % 2 == 0) c.yield(round);  // the value, or else the end, completes the wait
        if (end == End::finish) c.finish();
        if (end == End::cancel) stream->cancel();
        if (end == End::destroy) stream.reset();
      });
      const auto otherId = other.get_id();
      other.join();
      auto completion = ranOn.get_future();
      ASSERT_EQ(completion.wait_for(bound), std::future_status::ready);
      EXPECT_NE(completion.get(), otherId);
    }
  }
}

/// The error a failed future holds (none when it holds a value).
boost::system::error_code errorOf(std::future<std::optional<int>> future) {
  if (future.wait_for(bound) != std::future_status::ready) return asio::error::timed_out;
  try {
    (void)future.get();
  } catch (const boost::system::system_error& error) {
    return error.code();
  }
  return {};
}

TEST(AsyncStream, ASecondNextWhileOneIsPendingIsAUsageErrorAndLeavesTheStreamAlone) {
  Terminations ended;
  auto [stream, continuation] = Stream::make();
  continuation.onTermination(ended.handler());
  auto first = stream.next(asio::use_future);
  EXPECT_EQ(errorOf(stream.next(asio::use_future)), asio::error::already_started);
  try {
    (void)stream.next();
    ADD_FAILURE() << "a blocking next beside a pending one returned";
  } catch (const boost::system::system_error& error) {
    EXPECT_EQ(error.code(), asio::error::already_started);
  }
  continuation.yield(4);
  EXPECT_EQ(await(std::move(first)), 4);
  EXPECT_TRUE(ended.runs().empty());

  auto [other, otherContinuation] = Stream::make();
  otherContinuation.yield(8);
  stream = std::move(other);  // ends the stream assigned over
  EXPECT_EQ(ended.runs().size(), 1U);
  EXPECT_EQ(stream.next(), 8);
}

/// Ways of cancelling one pending wait: each emits on the waiting handler's own executor.
enum class Cancel { terminal, partial, total, eitherOfTwo };

TEST(AsyncStream, ACancelledNextTakesNothingAndTheNextNextGetsTheValue) {
  for (const auto how : {Cancel::terminal, Cancel::partial, Cancel::total, Cancel::eitherOfTwo}) {
    SCOPED_TRACE(static_cast<int>(how));
    asio::io_context io;
    auto [stream, continuation] = Stream::make();
    std::optional<boost::system::error_code> outcome;
    std::optional<int> got;
    asio::cancellation_signal signal;
    asio::steady_timer timer(io, std::chrono::milliseconds(1));
    if (how == Cancel::eitherOfTwo) {
      // The timeout idiom: whichever finishes first cancels the other.
      using namespace asio::experimental::awaitable_operators;
      asio::co_spawn(
          io,
          [&]() -> asio::awaitable<void> {
            try {
              auto first = co_await (stream.next(asio::use_awaitable)
                                     || timer.async_wait(asio::use_awaitable));
              outcome =
                  first.index() == 1 ? asio::error::operation_aborted : boost::system::error_code();
            } catch (const boost::system::system_error& error) {
              outcome = error.code();
            }
          },
          asio::detached);
    } else {
      stream.next(asio::bind_cancellation_slot(
          signal.slot(),
          asio::bind_executor(io, [&](boost::system::error_code error, std::optional<int> value) {
            outcome = error;
            got = value;
          })));
      timer.async_wait([&, how](boost::system::error_code) {
        signal.emit(how == Cancel::terminal  ? asio::cancellation_type::terminal
                    : how == Cancel::partial ? asio::cancellation_type::partial
                                             : asio::cancellation_type::total);
      });
    }
    io.run_for(bound);  // returns once the wait has ended: nothing else is left to do
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(*outcome, asio::error::operation_aborted);
    EXPECT_EQ(got, std::nullopt);

    // The value yielded after the cancellation is kept for the next wait, and a second
    // cancellation through the same (now cleared) slot touches nothing.
    EXPECT_EQ(continuation.yield(7).status, enqueued);
    signal.emit(asio::cancellation_type::terminal);
    EXPECT_EQ(stream.next(), 7);
    EXPECT_FALSE(continuation.isTerminated());
  }
}

TEST(AsyncStream, ACancellationRacingAYieldNeverLosesTheValue) {
  // Whichever wins, the value is either delivered to the cancelled wait or kept for the next.
  for (int round = 0; round < 200; ++round) {
    asio::io_context io;
    auto [stream, continuation] = Stream::make();
    asio::cancellation_signal signal;
    std::optional<int> delivered;
    bool completed = false;
    stream.next(asio::bind_cancellation_slot(
        signal.slot(),
        asio::bind_executor(io, [&](boost::system::error_code, std::optional<int> value) {
          delivered = value;
          completed = true;
        })));
    std::jthread producer([&c = continuation] { c.yield(1); });
    asio::post(io, [&] { signal.emit(asio::cancellation_type::terminal); });
    io.run_for(bound);
    producer.join();
    ASSERT_TRUE(completed);
    if (!delivered) {
      EXPECT_EQ(stream.next(std::chrono::seconds(0)), 1);
    }
  }
}

TEST(AsyncStream, ABoundedBlockingNextTimesOutAndTakesNothing) {
  auto [stream, continuation] = Stream::make();
  try {
    (void)stream.next(std::chrono::milliseconds(20));
    ADD_FAILURE() << "the bounded next returned without a value";
  } catch (const boost::system::system_error& error) {
    EXPECT_EQ(error.code(), asio::error::timed_out);
  }
  continuation.yield(3);
  EXPECT_EQ(stream.next(std::chrono::milliseconds(0)), 3);
  continuation.finish();
  EXPECT_EQ(stream.next(bound), std::nullopt);  // the end comes at once, not at the bound
}

}  // namespace
}  // namespace corvane::testing
