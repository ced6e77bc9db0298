#include "IpcTestSupport.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Listener.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <future>
#include <latch>
#include <map>
#include <numeric>
#include <thread>
#include <unistd.h>

namespace corvane::ipc {
namespace {

using testing::bound;
using testing::Counter;
using testing::text;

/// The protocol the test service exports, called through the typed proxy layer.
struct TestProtocol : ProtocolProxy<TestProtocol> {
  static constexpr std::string_view protocolName = "TestProtocol";
  static constexpr std::array operations{
      Operation{"echo:reply:", OperationShape::argumentAndReply},
      Operation{"hold:reply:", OperationShape::argumentAndReply},
      Operation{"push:reply:", OperationShape::argumentAndReply},
      Operation{"keysWithReply:", OperationShape::replyOnly},
      Operation{"notImplemented:reply:", OperationShape::argumentAndReply},
  };
  using ProtocolProxy::ProtocolProxy;
  void echo(Bytes argument, ReplyHandler reply) const {
    call(operations[0], std::move(argument), std::move(reply));
  }
  void hold(Bytes argument, ReplyHandler reply) const {
    call(operations[1], std::move(argument), std::move(reply));
  }
  void push(Bytes argument, ReplyHandler reply) const {
    call(operations[2], std::move(argument), std::move(reply));
  }
  void keys(ReplyHandler reply) const { call(operations[3], std::move(reply)); }
  void notImplemented(Bytes argument, ReplyHandler reply) const {
    call(operations[4], std::move(argument), std::move(reply));
  }
};

// NOLINTNEXTLINE(cert-err58-cpp): made before any test runs; a throw is a broken test, not a case
const InterfaceDescription callbackInterface("Callback",
                                             {{"handleMessages:", OperationShape::oneWay}});

/// An in-process service on a Listener: echoes, holds calls unanswered on request, pushes.
class TestService {
 public:
  TestService(const std::filesystem::path& directory, ListenerOptions options = {}) {
    options.runtimeDirectory = directory;
    options.adoptActivatedSocket = false;
    listener_.emplace("dev.corvane.test.corvaneagent", options);
    listener_->setConnectionHandler([this](Peer& peer) {
      {
        const std::lock_guard state(mutex_);
        credentials_.push_back(peer.credentials());
        if (reject_) return false;
      }
      peer.setExportedInterface(TestProtocol::interface());
      peer.setRemoteObjectInterface(callbackInterface);
      auto table = std::make_shared<OperationTable>();
      table->on("echo:reply:", [](std::optional<Bytes> argument, Reply reply) {
        reply.send(std::move(*argument));
      });
      table->on("keysWithReply:",
                [](std::optional<Bytes>, Reply reply) { reply.send(text("[]")); });
      table->on("hold:reply:", [this](std::optional<Bytes>, Reply reply) {
        {
          const std::lock_guard state(mutex_);
          held_.push_back(std::move(reply));
        }
        heldCount.add();
      });
      auto back = peer.remoteObjectProxy([](const CallError&) {});
      table->on("push:reply:", [back](std::optional<Bytes> argument, Reply reply) {
        reply.send(text("[]"));
        back.send("handleMessages:", std::move(*argument));
      });
      peer.setExportedObject(table);
      return true;
    });
    listener_->resume();
  }

  void reject(bool value) {
    const std::lock_guard state(mutex_);
    reject_ = value;
  }
  std::vector<Reply> takeHeld() {
    const std::lock_guard state(mutex_);
    return std::exchange(held_, {});
  }
  std::vector<PeerCredentials> credentials() {
    const std::lock_guard state(mutex_);
    return credentials_;
  }
  /// Stops the service as if its process died (held calls are dropped unanswered).
  void stop() {
    listener_.reset();
    takeHeld();
  }

  Counter heldCount;

 private:
  std::mutex mutex_;
  bool reject_ = false;
  std::vector<Reply> held_;
  std::vector<PeerCredentials> credentials_;
  std::optional<Listener> listener_;
};

/// Records what a client connection reports.
struct Events {
  Counter replies;
  Counter errors;
  Counter interruptions;
  Counter invalidations;
  std::mutex mutex;
  std::vector<CallError> errorList;
  void error(const CallError& e) {
    {
      const std::lock_guard list(mutex);
      errorList.push_back(e);
    }
    errors.add();
  }
  bool allErrorsAre(ConnectionError code) {
    const std::lock_guard list(mutex);
    return std::all_of(errorList.begin(), errorList.end(),
                       [&](const auto& e) { return e.is(code); });
  }
  /// What a failed expectation shows: how many replies came and which errors.
  std::string summary() {
    std::string text = fmt::format("{} replies, {} errors", replies.value(), errors.value());
    const std::lock_guard list(mutex);
    for (const auto& e : errorList) text += "; " + e.description();
    return text;
  }
};

class ConnectionTest : public ::testing::Test {
 protected:
  std::unique_ptr<Connection> makeConnection(ConnectionOptions options = {}) {
    options.runtimeDirectory = directory.path();
    auto connection = std::make_unique<Connection>("dev.corvane.test.corvaneagent", options);
    connection->setRemoteObjectInterface(TestProtocol::interface());
    connection->setExportedInterface(callbackInterface);
    connection->setInterruptionHandler([this] { events.interruptions.add(); });
    connection->setInvalidationHandler([this] { events.invalidations.add(); });
    return connection;
  }
  ErrorHandler onError() {
    return [this](const CallError& e) { events.error(e); };
  }

  testing::TemporaryDirectory directory;
  Events events;
};

TEST_F(ConnectionTest, ConcurrentAsyncAndSyncCallsGetTheirOwnReplies) {
  TestService service(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());

  constexpr int threads = 4;
  constexpr int asyncPerThread = 250;
  constexpr int syncPerThread = 100;
  std::atomic<int> mismatches{0};
  std::vector<std::jthread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < asyncPerThread; ++i) {
        auto expected = fmt::format("[\"async\",{},{}]", t, i);
        async.echo(text(expected), [&, expected](const Bytes& reply) {
          if (reply.view() != expected) ++mismatches;
          events.replies.add();
        });
      }
    });
    workers.emplace_back([&, t] {
      // Synchronous callers read their own answers while workers read the asynchronous ones;
      // both kinds share the socket.
      for (int i = 0; i < syncPerThread; ++i) {
        auto expected = fmt::format("[\"sync\",{},{}]", t, i);
        bool replied = false;
        sync.echo(text(expected), [&](const Bytes& reply) {
          replied = true;
          if (reply.view() != expected) ++mismatches;
        });
        // The handler of a synchronous call has run when the call returns.
        if (!replied) ++mismatches;
      }
    });
  }
  workers.clear();
  ASSERT_TRUE(events.replies.waitFor(threads * asyncPerThread)) << events.summary();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(events.errors.value(), 0);
  EXPECT_EQ(service.credentials().size(), 1U) << "one connection serves every thread";
}

TEST_F(ConnectionTest, CallsRacingTheFirstConnectLeaveBehindItsHello) {
  // Whoever loses the race to connect finds the new channel at once; its call must still leave
  // after the HELLO, or the service refuses the connection and every call fails.
  TestService service(directory.path());
  constexpr int rounds = 200;
  constexpr int callers = 6;
  for (int round = 0; round < rounds; ++round) {
    auto connection = makeConnection();
    connection->resume();
    const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
    const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
    Counter replies;
    std::latch go(callers);
    {
      std::vector<std::jthread> threads;
      threads.reserve(callers);
      for (int t = 0; t < callers; ++t) {
        threads.emplace_back([&, t] {
          go.arrive_and_wait();
          if (t % 2 == 0) {
            async.echo(text("[1]"), [&](const Bytes&) { replies.add(); });
          } else {
            sync.echo(text("[2]"), [&](const Bytes&) { replies.add(); });
          }
        });
      }
    }
    ASSERT_TRUE(replies.waitFor(callers)) << "round " << round << ": " << events.summary();
  }
  EXPECT_EQ(events.errors.value(), 0);
  EXPECT_EQ(service.credentials().size(), static_cast<std::size_t>(rounds));
}

TEST_F(ConnectionTest, SyncCallFromInsideDeliveryCallbacksCompletes) {
  TestService service(directory.path());
  auto connection = makeConnection();
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
  // A pushed message whose handler makes a synchronous call back to the service.
  auto exported = std::make_shared<OperationTable>();
  exported->on("handleMessages:", [&](std::optional<Bytes> argument, Reply) {
    sync.echo(std::move(*argument), [&](const Bytes& reply) {
      EXPECT_EQ(reply.view(), "[\"pushed\"]");
      events.replies.add();
    });
  });
  connection->setExportedObject(exported);
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  async.echo(text("[1]"), [&](const Bytes&) {
    sync.keys([&](const Bytes& reply) {
      EXPECT_EQ(reply.view(), "[]");
      events.replies.add();
    });
  });
  async.push(text("[\"pushed\"]"), [](const Bytes&) {});
  ASSERT_TRUE(events.replies.waitFor(2));
  EXPECT_EQ(events.errors.value(), 0);
}

TEST_F(ConnectionTest, PeerDeathFailsEveryPendingCallOnceAndTheNextCallReconnects) {
  auto service = std::make_unique<TestService>(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  constexpr int pending = 20;
  for (int i = 0; i < pending; ++i)
    async.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(service->heldCount.waitFor(pending));

  service->stop();
  ASSERT_TRUE(events.errors.waitFor(pending));
  ASSERT_TRUE(events.interruptions.waitFor(1));
  EXPECT_TRUE(events.allErrorsAre(ConnectionError::interrupted));

  // While the service is gone, a call fails at once and leaves the connection usable.
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
  sync.echo(text("[0]"), [&](const Bytes&) { events.replies.add(); });
  EXPECT_EQ(events.errors.value(), pending + 1);

  service = std::make_unique<TestService>(directory.path());
  std::string answer;
  sync.echo(text("[\"again\"]"), [&](const Bytes& reply) { answer = std::string(reply.view()); });
  EXPECT_EQ(answer, "[\"again\"]");
  EXPECT_EQ(events.replies.value(), 0);
  EXPECT_EQ(events.errors.value(), pending + 1);
  EXPECT_EQ(events.interruptions.value(), 1);
  EXPECT_EQ(events.invalidations.value(), 0);
}

TEST_F(ConnectionTest, CallsMadeWhileManyWaitForAnswersLeaveAtOnceAndInOrder) {
  // With many calls in flight, further calls are queued for a worker to write; they must still
  // leave without waiting for the unanswered ones, and in the order they were made.
  TestService service(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  constexpr int heldCalls = 20;
  constexpr int laterCalls = 200;
  for (int i = 0; i < heldCalls; ++i)
    async.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(service.heldCount.waitFor(heldCalls));

  std::mutex mutex;
  std::vector<int> order;
  Counter echoed;
  for (int i = 0; i < laterCalls; ++i) {
    async.echo(text(std::to_string(i)), [&](const Bytes& reply) {
      {
        const std::lock_guard list(mutex);
        order.push_back(std::stoi(std::string(reply.view())));
      }
      echoed.add();
    });
  }
  ASSERT_TRUE(echoed.waitFor(laterCalls));
  EXPECT_EQ(events.replies.value(), 0) << "the held calls are still unanswered";
  std::vector<int> inOrder(laterCalls);
  std::iota(inOrder.begin(), inOrder.end(), 0);
  {
    const std::lock_guard list(mutex);
    EXPECT_EQ(order, inOrder);
  }
  for (auto& reply : service.takeHeld()) reply.send(text("[]"));
  ASSERT_TRUE(events.replies.waitFor(heldCalls));
  EXPECT_EQ(events.errors.value(), 0);
}

TEST_F(ConnectionTest, InvalidationFailsPendingAndLaterCallsAndIsFinal) {
  TestService service(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  for (int i = 0; i < 5; ++i) async.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(service.heldCount.waitFor(5));
  connection->invalidate();
  connection->invalidate();
  async.echo(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(events.errors.waitFor(6));
  ASSERT_TRUE(events.invalidations.waitFor(1));
  EXPECT_TRUE(events.allErrorsAre(ConnectionError::invalidated));
  EXPECT_EQ(events.interruptions.value(), 0);
  EXPECT_EQ(events.replies.value(), 0);
  // Answers arriving after invalidation go nowhere and hurt nothing.
  for (auto& reply : service.takeHeld()) reply.send(text("[]"));
}

TEST_F(ConnectionTest, DestructionWithCallsInFlightRunsEachErrorHandlerOnce) {
  TestService service(directory.path());
  std::future<void> syncDone;
  {
    auto connection = makeConnection();
    connection->resume();
    const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
    for (int i = 0; i < 10; ++i)
      async.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
    const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
    syncDone = std::async(std::launch::async, [sync, this] {
      sync.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
    });
    ASSERT_TRUE(service.heldCount.waitFor(11));
  }
  ASSERT_EQ(syncDone.wait_for(bound), std::future_status::ready);
  EXPECT_EQ(events.errors.value(), 11);
  EXPECT_EQ(events.replies.value(), 0);
  EXPECT_EQ(events.invalidations.value(), 1);
}

TEST_F(ConnectionTest, ConnectFailureFailsThatCallOnlyAndBeforeResumeNothingIsSent) {
  auto connection = makeConnection();
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
  sync.echo(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_EQ(events.errors.value(), 1);
  EXPECT_TRUE(events.allErrorsAre(ConnectionError::notResumed));

  connection->resume();
  sync.echo(text("[]"), [&](const Bytes&) { events.replies.add(); });
  {
    const std::lock_guard list(events.mutex);
    ASSERT_EQ(events.errorList.size(), 2U);
    EXPECT_TRUE(events.errorList[1].is(ConnectionError::connectFailed))
        << fmt::format("{}", events.errorList[1]);
  }
  TestService service(directory.path());
  sync.echo(text("[]"), [&](const Bytes&) { events.replies.add(); });
  EXPECT_EQ(events.replies.value(), 1);
  EXPECT_EQ(events.interruptions.value() + events.invalidations.value(), 0);
}

TEST_F(ConnectionTest, InterfaceMismatchesFailWithAReason) {
  TestService service(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto sync = connection->synchronousRemoteObjectProxy(onError());
  struct Case {
    std::function<void()> call;
    ConnectionError expected;
  };
  const std::vector<Case> cases{
      {[&] { sync.call("missing:reply:", text("[]"), [](const Bytes&) {}); },
       ConnectionError::unknownOperation},
      {[&] { sync.call("echo:reply:", [](const Bytes&) {}); }, ConnectionError::shapeMismatch},
      {[&] { sync.send("echo:reply:", text("[]")); }, ConnectionError::shapeMismatch},
      // In the client's interface but not implemented by the service: the service's FAULT.
      {[&] { sync.call("notImplemented:reply:", text("[]"), [](const Bytes&) {}); },
       ConnectionError::peerFault},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    cases[i].call();
    const std::lock_guard list(events.mutex);
    ASSERT_EQ(events.errorList.size(), i + 1);
    EXPECT_TRUE(events.errorList[i].is(cases[i].expected))
        << i << ": " << events.errorList[i].description();
  }
  // Without a remote interface the service itself refuses the shape.
  auto unchecked = std::make_unique<Connection>("dev.corvane.test.corvaneagent",
                                                ConnectionOptions{directory.path(), std::nullopt});
  unchecked->resume();
  unchecked->synchronousRemoteObjectProxy(onError()).call("echo:reply:", [](const Bytes&) {});
  const std::lock_guard list(events.mutex);
  ASSERT_EQ(events.errorList.size(), cases.size() + 1);
  EXPECT_TRUE(events.errorList.back().is(ConnectionError::peerFault));
  EXPECT_NE(events.errorList.back().reason().find("shape mismatch"), std::string::npos);
}

TEST_F(ConnectionTest, CredentialsAreReportedAndCanBeRequiredOrRefused) {
  TestService service(directory.path());
  auto connection = makeConnection();
  connection->resume();
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
  sync.keys([&](const Bytes&) { events.replies.add(); });
  ASSERT_EQ(service.credentials().size(), 1U);
  EXPECT_EQ(service.credentials()[0].pid, ::getpid());
  EXPECT_EQ(service.credentials()[0].uid, ::getuid());
  EXPECT_EQ(service.credentials()[0].gid, ::getgid());

  // The service refuses a client: the client's call fails, the client is not invalidated.
  service.reject(true);
  auto refused = makeConnection();
  refused->resume();
  refused->synchronousRemoteObjectProxy<TestProtocol>(onError()).keys(
      [&](const Bytes&) { events.replies.add(); });
  EXPECT_EQ(events.errors.value(), 1);
  EXPECT_TRUE(events.allErrorsAre(ConnectionError::interrupted));
  service.reject(false);

  // The client requires another uid than the service's: invalidation.
  auto suspicious = makeConnection({{}, ::getuid() + 1});
  suspicious->resume();
  const auto proxy = suspicious->synchronousRemoteObjectProxy<TestProtocol>(onError());
  proxy.keys([&](const Bytes&) { events.replies.add(); });
  proxy.keys([&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(events.invalidations.waitFor(1));
  const std::lock_guard list(events.mutex);
  ASSERT_EQ(events.errorList.size(), 3U);
  EXPECT_TRUE(events.errorList[1].is(ConnectionError::serviceNotTrusted));
  EXPECT_TRUE(events.errorList[2].is(ConnectionError::invalidated));
  EXPECT_EQ(events.replies.value(), 1);
}

TEST_F(ConnectionTest, ServiceBoundsCallsInFlightPerConnection) {
  ListenerOptions options;
  options.maxCallsInFlight = 3;
  TestService service(directory.path(), options);
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  for (int i = 0; i < 8; ++i) async.hold(text("[]"), [&](const Bytes&) { events.replies.add(); });
  ASSERT_TRUE(service.heldCount.waitFor(3));
  // The other calls stay unread until an answer frees a slot; an echo queued behind them too.
  async.echo(text("[]"), [&](const Bytes&) { events.replies.add(); });
  int answered = 0;
  while (answered < 8) {
    auto held = service.takeHeld();
    EXPECT_LE(held.size(), 3U);
    for (auto& reply : held) reply.send(text("[]"));
    answered += static_cast<int>(held.size());
    if (answered < 8) {
      ASSERT_TRUE(service.heldCount.waitFor(std::min(answered + 1, 8)));
    }
  }
  ASSERT_TRUE(events.replies.waitFor(9));
  EXPECT_EQ(events.errors.value(), 0);
}

TEST_F(ConnectionTest, SyncCallersGetTheirRepliesWhilePushesAndAsyncRepliesInterleave) {
  TestService service(directory.path());
  auto connection = makeConnection();
  constexpr int threads = 3;
  constexpr int pushesPerThread = 60;
  constexpr int asyncCalls = 300;
  std::mutex pushedMutex;
  std::map<int, std::vector<int>> pushed;  // per sync thread, in delivery order
  auto exported = std::make_shared<OperationTable>();
  exported->on("handleMessages:", [&](std::optional<Bytes> argument, Reply) {
    int thread = 0;
    int index = 0;
    if (std::sscanf(std::string(argument->view()).c_str(), "[%d,%d]", &thread, &index) == 2) {
      const std::lock_guard list(pushedMutex);
      pushed[thread].push_back(index);
    }
    events.replies.add();
  });
  connection->setExportedObject(exported);
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());

  // Synchronous callers read the socket themselves while asynchronous replies and pushed
  // messages for the delivery thread arrive on the same socket.
  std::atomic<int> mismatches{0};
  Counter asyncReplies;
  std::vector<std::jthread> callers;
  callers.emplace_back([&] {
    for (int i = 0; i < asyncCalls; ++i) {
      auto expected = fmt::format("[\"async\",{}]", i);
      async.echo(text(expected), [&, expected](const Bytes& reply) {
        if (reply.view() != expected) ++mismatches;
        asyncReplies.add();
      });
    }
  });
  for (int t = 0; t < threads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < pushesPerThread; ++i) {
        auto argument = fmt::format("[{},{}]", t, i);
        bool replied = false;
        sync.push(text(argument), [&](const Bytes& reply) { replied = reply.view() == "[]"; });
        auto expected = fmt::format("[\"sync\",{},{}]", t, i);
        bool echoed = false;
        sync.echo(text(expected), [&](const Bytes& reply) { echoed = reply.view() == expected; });
        if (!replied || !echoed) ++mismatches;
      }
    });
  }
  callers.clear();
  ASSERT_TRUE(asyncReplies.waitFor(asyncCalls))
      << asyncReplies.value() << " async replies; " << events.summary();
  ASSERT_TRUE(events.replies.waitFor(threads * pushesPerThread)) << events.summary();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(events.errors.value(), 0);
  const std::lock_guard list(pushedMutex);
  for (int t = 0; t < threads; ++t) {
    std::vector<int> inOrder(pushesPerThread);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    EXPECT_EQ(pushed[t], inOrder) << "pushes of thread " << t << " arrive once, in order";
  }
}

TEST_F(ConnectionTest, AServiceHandlerThatBlocksDoesNotStallSocketIo) {
  // The handler pushes more than a socket buffer holds and then blocks until the client has
  // received all of it: the rest can only leave while the handler is still blocked.
  constexpr std::size_t bigSize = std::size_t{8} * 1024 * 1024;
  Counter received;
  Listener listener("dev.corvane.test.corvaneagent", {directory.path(), false, 16});
  listener.setConnectionHandler([&](Peer& peer) {
    auto back = peer.remoteObjectProxy([](const CallError&) {});
    auto table = std::make_shared<OperationTable>();
    table->on("echo:reply:", [&, back](std::optional<Bytes> argument, Reply reply) {
      back.send("handleMessages:", Bytes(std::string(bigSize, 'x')));
      const bool delivered = received.waitFor(1);
      reply.send(delivered ? std::move(*argument) : text("[\"stalled\"]"));
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();
  auto connection = makeConnection();
  auto exported = std::make_shared<OperationTable>();
  exported->on("handleMessages:", [&](std::optional<Bytes> argument, Reply) {
    if (argument && argument->size() == bigSize) received.add();
  });
  connection->setExportedObject(exported);
  connection->resume();
  const auto sync = connection->synchronousRemoteObjectProxy<TestProtocol>(onError());
  std::string answer;
  sync.echo(text("[\"done\"]"), [&](const Bytes& reply) { answer = std::string(reply.view()); });
  EXPECT_EQ(answer, "[\"done\"]");
  EXPECT_EQ(received.value(), 1);
  EXPECT_EQ(events.errors.value(), 0);
}

TEST_F(ConnectionTest, AnAnswerLeavesWhileTheNextQueuedHandlerBlocks) {
  // Pipelined calls: each second handler blocks until the client has the answer to the call
  // before it, which the service gave just before while that handler was still queued.
  constexpr int pairs = 50;
  Counter answered;
  Listener listener("dev.corvane.test.corvaneagent", {directory.path(), false, 256});
  listener.setConnectionHandler([&](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    table->on("echo:reply:",
              [](std::optional<Bytes> argument, Reply reply) { reply.send(std::move(*argument)); });
    table->on("hold:reply:", [&](std::optional<Bytes> argument, Reply reply) {
      const int before = std::stoi(std::string(argument->view()));
      reply.send(answered.waitFor(before) ? text("true") : text("false"));
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();
  auto connection = makeConnection();
  connection->resume();
  const auto async = connection->remoteObjectProxy<TestProtocol>(onError());
  Counter held;
  Counter unstalled;
  for (int i = 1; i <= pairs; ++i) {
    async.echo(text("[1]"), [&](const Bytes&) { answered.add(); });
    async.hold(text(std::to_string(i)), [&](const Bytes& reply) {
      if (reply.view() == "true") unstalled.add();
      held.add();
    });
  }
  EXPECT_TRUE(held.waitFor(pairs));
  EXPECT_EQ(unstalled.value(), pairs);
  EXPECT_EQ(events.errors.value(), 0);
}

}  // namespace
}  // namespace corvane::ipc
