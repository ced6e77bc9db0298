// What one client can make a service hold, over real sockets: each case is a client (a raw socket
// where it has to misbehave) against an in-process service on a Listener.

#include "IpcTestSupport.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/ipc/Listener.hpp>
#include <corvane/platform/Log.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace corvane::ipc {
namespace {

using testing::bound;
using testing::Counter;
using testing::frame;
using testing::RawSocket;
using testing::text;

constexpr const char* serviceName = "dev.corvane.bounds.corvaneagent";
constexpr std::size_t mebibyte = std::size_t{1024} * 1024;

// NOLINTNEXTLINE(cert-err58-cpp): made before any test runs; a throw is a broken test, not a case
const auto hello = frame(FrameKind::hello, 0, "", helloPayload);

std::vector<std::byte> join(std::initializer_list<std::vector<std::byte>> parts) {
  std::vector<std::byte> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::string describe(RawSocket::Read outcome) {
  switch (outcome) {
    case RawSocket::Read::frame:
      return "a frame";
    case RawSocket::Read::closed:
      return "the end of the stream";
    case RawSocket::Read::timedOut:
      return "nothing within the bound";
    case RawSocket::Read::violation:
      return "bytes that are not a frame";
  }
  return "?";
}

/// The lines logged so far that contain every one of `parts`.
std::vector<std::string> loggedLines(const platform::ScopedLogCapture& capture,
                                     std::initializer_list<std::string_view> parts) {
  std::vector<std::string> lines;
  for (const auto& record : capture.records()) {
    if (std::ranges::all_of(parts, [&](std::string_view part) {
          return record.message.find(part) != std::string::npos;
        })) {
      lines.push_back(record.message);
    }
  }
  return lines;
}

/// Waits (bounded) for a logged line containing every one of `parts`.
bool waitForLine(const platform::ScopedLogCapture& capture,
                 std::initializer_list<std::string_view> parts) {
  return capture.waitFor(
      [&](const platform::LogRecord& record) {
        return std::ranges::all_of(parts, [&](std::string_view part) {
          return record.message.find(part) != std::string::npos;
        });
      },
      bound);
}

/// The first lines logged, for a failure message.
std::string allLines(const platform::ScopedLogCapture& capture) {
  constexpr std::size_t shown = 20;
  const auto records = capture.records();
  std::string out;
  for (std::size_t i = 0; i < std::min(records.size(), shown); ++i) {
    out += "\n  " + records[i].message;
  }
  if (records.size() > shown) out += fmt::format("\n  ... and {} more", records.size() - shown);
  return out;
}

class Bounds : public ::testing::Test {
 protected:
  [[nodiscard]] ListenerOptions listenerOptions() const {
    ListenerOptions options;
    options.runtimeDirectory = directory.path();
    options.adoptActivatedSocket = false;
    return options;
  }

  /// A table answering "echo:reply:" with its argument.
  static std::shared_ptr<OperationTable> echoTable() {
    auto table = std::make_shared<OperationTable>();
    table->on("echo:reply:", [](std::optional<Bytes> argument, Reply reply) {
      reply.send(argument ? std::move(*argument) : Bytes());
    });
    return table;
  }

  static void serveEcho(Listener& listener) {
    listener.setConnectionHandler([](Peer& peer) {
      peer.setExportedObject(echoTable());
      return true;
    });
    listener.resume();
  }

  /// A new well-behaved client's echo of `argument`: the answer, or what went wrong.
  [[nodiscard]] std::string echoFromNewClient(std::string_view argument) const {
    std::string answer = "no answer within the bound";
    Counter done;
    {
      Connection connection(serviceName, {directory.path(), std::nullopt});
      connection.resume();
      connection.remoteObjectProxy({}).call("echo:reply:", text(argument), [&](CallResult result) {
        answer = result ? std::string(result.reply().view()) : result.error().description();
        done.add();
      });
      done.waitFor(1);
    }  // a call still in flight fails here, before `answer` goes
    return answer;
  }

  // Declared first so that it sees the service's last lines.
  platform::ScopedLogCapture capture;
  testing::TemporaryDirectory directory;
};

// A client that kept sending calls and never read their answers made the service hold every
// answer: memory grew with whatever the client asked for. Past `maxQueuedOutgoingBytes` the
// service now drops that client, and only that client.
TEST_F(Bounds, AClientThatNeverReadsItsAnswersIsDisconnected) {
  auto options = listenerOptions();
  options.maxQueuedOutgoingBytes = mebibyte;
  Listener listener(serviceName, options);
  serveEcho(listener);

  // 64 calls of 256 KiB each: 16 MiB of answers, far beyond the bound and any socket buffer.
  constexpr std::uint64_t calls = 64;
  const std::string payload(std::size_t{256} * 1024, 'x');
  std::vector<std::byte> stream = hello;
  for (std::uint64_t serial = 1; serial <= calls; ++serial) {
    const auto call = frame(FrameKind::call, serial, "echo:reply:", payload);
    stream.insert(stream.end(), call.begin(), call.end());
  }
  auto hostile = RawSocket::connectTo(listener.path());
  const auto written = hostile.writeAll(stream);
  ASSERT_NE(written, RawSocket::Write::timedOut)
      << "the service stopped reading the client instead of dropping it";

  ASSERT_TRUE(waitForLine(capture, {"Closed client connection", "the peer does not read"}))
      << "the client that does not read was never disconnected; log:" << allLines(capture);
  const auto lines = loggedLines(capture, {"Closed client connection", "the peer does not read"});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find(fmt::format("(pid {})", ::getpid())), std::string::npos) << lines[0];

  // What the service had written before it gave up is still there to read, then the end.
  std::vector<std::byte> received;
  EXPECT_TRUE(hostile.readUntilClosed(received)) << "the socket stayed open";
  ASSERT_GE(received.size(), hello.size());
  EXPECT_TRUE(std::equal(hello.begin(), hello.end(), received.begin()));

  EXPECT_EQ(echoFromNewClient(R"(["still served"])"), R"(["still served"])");
}

// Partly received frames were buffered without bound: a few clients each declaring a large frame
// and sending part of it made the service hold all of it. Together they may now hold only
// `receiveBudgetBytes`, and a client that would go past it is disconnected.
TEST_F(Bounds, PartlyReceivedLargeFramesShareOneBudget) {
  auto options = listenerOptions();
  options.receiveBudgetBytes = mebibyte;
  Listener listener(serviceName, options);
  serveEcho(listener);

  // Each client declares a 32 MiB CALL and sends 400 KiB of it: four of them need more than the
  // budget, three of them fit.
  constexpr std::size_t clients = 4;
  constexpr std::size_t declared = 32 * mebibyte;
  constexpr std::size_t sent = std::size_t{400} * 1024;
  std::vector<std::byte> start = hello;
  std::vector<std::byte> header;
  encodeFrameHeader(header, FrameKind::call, 1, "echo:reply:", true, declared);
  start.insert(start.end(), header.begin(), header.end());
  start.resize(start.size() + sent, std::byte{'x'});

  std::vector<RawSocket> partial;
  for (std::size_t i = 0; i < clients; ++i) {
    partial.push_back(RawSocket::connectTo(listener.path()));
    ASSERT_NE(partial.back().writeAll(start), RawSocket::Write::timedOut) << "client " << i;
  }

  ASSERT_TRUE(waitForLine(capture, {"Closed client connection", "partly received frames"}))
      << "no client was disconnected; log:" << allLines(capture);

  // The disconnected one reads the service's HELLO and then the end of the stream.
  std::vector<pollfd> fds(clients);
  for (std::size_t i = 0; i < clients; ++i) fds[i] = {partial[i].get(), POLLIN, 0};
  std::vector<bool> ended(clients, false);
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (std::ranges::none_of(ended, [](bool e) { return e; })) {
    const int ready = ::poll(fds.data(), fds.size(), testing::millisecondsUntil(deadline));
    ASSERT_GT(ready, 0) << "no partial client saw its connection end";
    for (std::size_t i = 0; i < clients; ++i) {
      if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      std::array<std::byte, 4096> chunk{};
      const ssize_t n = ::recv(fds[i].fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        ended[i] = true;
        fds[i].fd = -1;
      }
    }
  }

  EXPECT_EQ(echoFromNewClient(R"(["served"])"), R"(["served"])");
}

// Nothing bounded how many connections clients could open: every one was served, until the
// process ran out of descriptors or memory. Past the total or the per-user limit a connection is
// now closed at once, before any HELLO, and the refusal logged; a place that comes free is taken.
TEST_F(Bounds, ConnectionsPastTheLimitsAreRefusedAtOnce) {
  struct Case {
    const char* what;
    std::size_t total;
    std::size_t perUser;
    const char* logged;
  };
  for (const auto& limits : {Case{"in all", 3, 100, "3 connections are open"},
                             Case{"per user", 100, 3, "has 3 connections open"}}) {
    SCOPED_TRACE(limits.what);
    auto options = listenerOptions();
    options.maxConnections = limits.total;
    options.maxConnectionsPerUser = limits.perUser;
    Listener listener(serviceName, options);
    serveEcho(listener);

    std::vector<RawSocket> held;
    Frame answer;
    for (int i = 0; i < 3; ++i) {
      held.push_back(RawSocket::connectTo(listener.path()));
      held.back().write(hello);
      const auto outcome = held.back().readFrame(answer);
      ASSERT_EQ(outcome, RawSocket::Read::frame) << i << ": " << describe(outcome);
    }
    auto refused = RawSocket::connectTo(listener.path());
    refused.write(hello);
    const auto outcome = refused.readFrame(answer);
    EXPECT_EQ(outcome, RawSocket::Read::closed) << describe(outcome);
    EXPECT_TRUE(waitForLine(capture, {"Refused a connection", limits.logged})) << allLines(capture);

    held.pop_back();
    // The service hears of the close a moment later; until then a new client is refused too.
    std::string echoed;
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (echoed != "[1]" && std::chrono::steady_clock::now() < deadline) {
      echoed = echoFromNewClient("[1]");
    }
    EXPECT_EQ(echoed, "[1]");
  }
}

// The service stopped reading a client once it had `maxCallsInFlight` of its calls in hand. A
// handler that needed the client's answer to one of its own calls then waited for a REPLY nobody
// read: the client's call never completed. Answers are now read all along.
TEST_F(Bounds, TheInFlightLimitNeverStopsTheServiceReadingAnswers) {
  auto options = listenerOptions();
  options.maxCallsInFlight = 1;
  Listener listener(serviceName, options);
  listener.setConnectionHandler([](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    // Asks the client, keeps the Reply and answers when the client's answer is in.
    const auto async = peer.remoteObjectProxy({});
    table->on("work:reply:", [async](std::optional<Bytes> argument, Reply reply) {
      async.call("ping:reply:", std::move(argument),
                 [reply = std::move(reply)](CallResult pong) mutable {
                   if (pong) {
                     reply.send(std::move(pong).reply());
                   } else {
                     reply.fail(pong.error().description());
                   }
                 });
    });
    // Asks the client from inside the handler and waits there for its answer.
    const auto sync = peer.synchronousRemoteObjectProxy({});
    table->on("workInline:reply:", [sync](std::optional<Bytes> argument, Reply reply) {
      std::optional<std::string> pong;
      sync.call("ping:reply:", std::move(argument), [&](CallResult result) {
        if (result) pong.emplace(result.reply().view());
      });
      if (pong) {
        reply.send(text(*pong));
      } else {
        reply.fail("the client's answer did not come");
      }
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  Connection client(serviceName, {directory.path(), std::nullopt});
  auto pings = std::make_shared<OperationTable>();
  pings->on("ping:reply:", [](std::optional<Bytes> argument, Reply reply) {
    reply.send(text("pong " + std::string(argument->view())));
  });
  client.setExportedObject(pings);
  client.resume();

  const auto proxy = client.remoteObjectProxy({});
  for (const char* operation : {"work:reply:", "workInline:reply:"}) {
    SCOPED_TRACE(operation);
    // Shared with the completion, which outlives this iteration should the call hang.
    struct Outcome {
      std::string answer;
      Counter done;
    };
    auto outcome = std::make_shared<Outcome>();
    proxy.call(operation, text("1"), [outcome](CallResult result) {
      outcome->answer = result ? std::string(result.reply().view()) : result.error().description();
      outcome->done.add();
    });
    ASSERT_TRUE(outcome->done.waitFor(1)) << "the call never completed: the service did not read "
                                             "the client's answer while at its in-flight limit";
    EXPECT_EQ(outcome->answer, "pong 1");
  }
}

// The same with pipelined calls: the limit is reached and further calls are held back while the
// handler in flight waits for the client's answer, which must still be read past them.
TEST_F(Bounds, TheInFlightLimitReadsAnswersPastHeldCalls) {
  constexpr int calls = 8;
  auto options = listenerOptions();
  options.maxCallsInFlight = 1;
  std::atomic<int> handling{0};
  std::atomic<int> mostHandled{0};
  Listener listener(serviceName, options);
  listener.setConnectionHandler([&](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    const auto back = peer.remoteObjectProxy({});
    table->on("work:reply:", [&, back](std::optional<Bytes> argument, Reply reply) {
      const int now = ++handling;
      int most = mostHandled.load();
      while (now > most && !mostHandled.compare_exchange_weak(most, now)) {
      }
      back.call("ping:reply:", std::move(argument),
                [&, reply = std::move(reply)](CallResult pong) mutable {
                  --handling;
                  if (pong) {
                    reply.send(std::move(pong).reply());
                  } else {
                    reply.fail(pong.error().description());
                  }
                });
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  // The first ping is answered only once every call has been made, so that its answer follows
  // all of them on the socket: the service reads it with the other calls held back.
  std::mutex firstMutex;
  std::optional<Reply> firstPing;
  Counter pinged;
  std::mutex answersMutex;
  std::map<int, std::string> answers;
  Counter done;
  Connection client(serviceName, {directory.path(), std::nullopt});
  auto pings = std::make_shared<OperationTable>();
  pings->on("ping:reply:", [&](std::optional<Bytes> argument, Reply reply) {
    if (argument->view() == "1") {
      const std::lock_guard first(firstMutex);
      firstPing.emplace(std::move(reply));
    } else {
      reply.send(text("pong " + std::string(argument->view())));
    }
    pinged.add();
  });
  client.setExportedObject(pings);
  client.resume();

  const auto proxy = client.remoteObjectProxy({});
  for (int i = 1; i <= calls; ++i) {
    proxy.call("work:reply:", text(std::to_string(i)), [&, i](CallResult result) {
      {
        const std::lock_guard list(answersMutex);
        answers[i] = result ? std::string(result.reply().view()) : result.error().description();
      }
      done.add();
    });
  }
  ASSERT_TRUE(pinged.waitFor(1)) << "the service never called the client";
  {
    const std::lock_guard first(firstMutex);
    ASSERT_TRUE(firstPing.has_value());
    firstPing->send(text("pong 1"));
  }

  ASSERT_TRUE(done.waitFor(calls)) << done.value() << " of " << calls
                                   << " calls completed: an answer held behind the limit went "
                                      "unread";
  EXPECT_EQ(pinged.value(), calls);
  EXPECT_EQ(mostHandled.load(), 1) << "more calls were handled at once than the limit allows";
  const std::lock_guard list(answersMutex);
  for (int i = 1; i <= calls; ++i) EXPECT_EQ(answers[i], "pong " + std::to_string(i)) << i;
}

// A client that shut down its writing lost the answers to the calls it had sent: the service took
// the end of its stream for the end of the connection.
TEST_F(Bounds, AHalfClosedClientStillGetsEveryAnswer) {
  Listener listener(serviceName, listenerOptions());
  serveEcho(listener);

  auto client = RawSocket::connectTo(listener.path());
  client.write(join({hello, frame(FrameKind::call, 1, "echo:reply:", "[1]"),
                     frame(FrameKind::call, 2, "echo:reply:", "[2]"),
                     frame(FrameKind::call, 3, "echo:reply:", "[3]")}));
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);

  Frame frame;
  auto outcome = client.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  EXPECT_EQ(frame.kind, FrameKind::hello);
  ASSERT_TRUE(frame.payload.has_value());
  EXPECT_EQ(frame.payload->view(), helloPayload);

  std::map<std::uint64_t, std::string> replies;
  for (int i = 0; i < 3; ++i) {
    outcome = client.readFrame(frame);
    ASSERT_EQ(outcome, RawSocket::Read::frame) << "answer " << i + 1 << ": " << describe(outcome);
    ASSERT_EQ(frame.kind, FrameKind::reply) << toString(frame.kind);
    ASSERT_TRUE(frame.payload.has_value());
    replies[frame.serial] = std::string(frame.payload->view());
  }
  EXPECT_EQ(replies, (std::map<std::uint64_t, std::string>{{1, "[1]"}, {2, "[2]"}, {3, "[3]"}}));
  outcome = client.readFrame(frame);
  EXPECT_EQ(outcome, RawSocket::Read::closed) << describe(outcome);
}

/// A service whose "relay:reply:" asks the client "ping:reply:" and answers with what came of it
/// (the reply, or the error's description); its "echo:reply:" echoes.
void serveRelay(Listener& listener) {
  listener.setConnectionHandler([](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    table->on("echo:reply:",
              [](std::optional<Bytes> argument, Reply reply) { reply.send(std::move(*argument)); });
    const auto back = peer.remoteObjectProxy({});
    table->on("relay:reply:", [back](std::optional<Bytes> argument, Reply reply) {
      back.call("ping:reply:", std::move(argument),
                [reply = std::move(reply)](CallResult outcome) mutable {
                  reply.send(text(outcome ? std::string(outcome.reply().view())
                                          : outcome.error().description()));
                });
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();
}

// The same, with an answer that can only be given once the service has seen the end of the
// client's stream: the third call's handler waits for its own call to the client, which the end of
// the stream fails. That answer must still reach the client, ahead of the end.
TEST_F(Bounds, AHalfClosedClientGetsAnswersGivenAfterItsEnd) {
  Listener listener(serviceName, listenerOptions());
  serveRelay(listener);

  auto client = RawSocket::connectTo(listener.path());
  client.write(join({hello, frame(FrameKind::call, 1, "echo:reply:", "[1]"),
                     frame(FrameKind::call, 2, "echo:reply:", "[2]"),
                     frame(FrameKind::call, 3, "relay:reply:", "[3]")}));

  // HELLO, the two echoes and the service's own call, in whatever order the last three come.
  std::map<std::uint64_t, std::string> replies;
  bool pinged = false;
  Frame frame;
  auto outcome = client.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  ASSERT_EQ(frame.kind, FrameKind::hello);
  while (!pinged || replies.size() < 2) {
    outcome = client.readFrame(frame);
    ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
    if (frame.kind == FrameKind::call) {
      EXPECT_EQ(frame.name, "ping:reply:");
      pinged = true;
    } else {
      ASSERT_EQ(frame.kind, FrameKind::reply) << toString(frame.kind);
      replies[frame.serial] = std::string(frame.payload->view());
    }
  }
  // The client will never answer the ping.
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);

  outcome = client.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame)
      << "the answer given after the end of the client's stream: " << describe(outcome);
  ASSERT_EQ(frame.kind, FrameKind::reply) << toString(frame.kind);
  EXPECT_EQ(frame.serial, 3U);
  EXPECT_NE(frame.payload->view().find("interrupted"), std::string_view::npos)
      << frame.payload->view();
  EXPECT_EQ(replies, (std::map<std::uint64_t, std::string>{{1, "[1]"}, {2, "[2]"}}));
  outcome = client.readFrame(frame);
  EXPECT_EQ(outcome, RawSocket::Read::closed) << describe(outcome);
}

// A call the service makes to a client whose stream has ended can never be answered either: it
// must fail at once like the ones made before the end, not wait for an answer that cannot come
// (holding the connection, and a handler that waits on it, for good).
TEST_F(Bounds, ACallToAHalfClosedClientFailsAtOnce) {
  std::promise<std::string> secondOutcome;  // outlives the listener, which may still fulfil it
  Listener listener(serviceName, listenerOptions());
  listener.setConnectionHandler([&](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    const auto back = peer.remoteObjectProxy({});
    // The first call to the client fails when its stream ends; only then is the second made.
    table->on("relay:reply:", [&, back](std::optional<Bytes> argument, Reply reply) {
      back.call("ping:reply:", std::move(argument),
                [&, back, reply = std::move(reply)](CallResult first) mutable {
                  back.call("ping:reply:", text("again"),
                            [&, reply = std::move(reply)](CallResult second) mutable {
                              const auto what = second ? std::string(second.reply().view())
                                                       : second.error().description();
                              secondOutcome.set_value(what);
                              reply.send(text(what));
                            });
                  (void)first;
                });
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  auto client = RawSocket::connectTo(listener.path());
  client.write(join({hello, frame(FrameKind::call, 1, "relay:reply:", "[1]")}));
  Frame frame;
  auto outcome = client.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  ASSERT_EQ(frame.kind, FrameKind::hello);
  outcome = client.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  ASSERT_EQ(frame.kind, FrameKind::call);
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);

  auto second = secondOutcome.get_future();
  ASSERT_EQ(second.wait_for(bound), std::future_status::ready)
      << "the call made after the end of the client's stream never got an outcome";
  EXPECT_NE(second.get().find("interrupted"), std::string::npos);
  // The client reads the service's second call (if it went out), the answer and the end.
  for (;;) {
    outcome = client.readFrame(frame);
    ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
    if (frame.kind != FrameKind::call) break;
  }
  EXPECT_EQ(frame.kind, FrameKind::reply);
  EXPECT_EQ(frame.serial, 1U);
  outcome = client.readFrame(frame);
  EXPECT_EQ(outcome, RawSocket::Read::closed) << describe(outcome);
}

// Every client's calls were delivered one at a time on one executor: a handler that waited on one
// client held up every other client. Each peer now has its own.
TEST_F(Bounds, OneStuckPeerDoesNotDelayTheOthers) {
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  Counter stuck;
  Listener listener(serviceName, listenerOptions());
  listener.setConnectionHandler([&](Peer& peer) {
    auto table = echoTable();
    table->on("block:reply:", [&, released](std::optional<Bytes> argument, Reply reply) {
      stuck.add();
      // Far longer than the test waits for anything: only the test lets it go.
      const bool free = released.wait_for(6 * bound) == std::future_status::ready;
      reply.send(free ? std::move(*argument) : text("never released"));
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  std::string firstAnswer;
  Counter firstDone;
  Connection first(serviceName, {directory.path(), std::nullopt});
  first.resume();
  first.remoteObjectProxy({}).call("block:reply:", text("[\"A\"]"), [&](CallResult result) {
    firstAnswer = result ? std::string(result.reply().view()) : result.error().description();
    firstDone.add();
  });
  ASSERT_TRUE(stuck.waitFor(1)) << "the first client's handler never ran";

  // The second client calls synchronously from a thread of its own, so that the test can give up
  // waiting (and let the first handler go) should those calls hang.
  constexpr int calls = 10;
  Counter answered;
  std::atomic<int> wrong{0};
  Connection other(serviceName, {directory.path(), std::nullopt});
  other.resume();
  const auto sync = other.synchronousRemoteObjectProxy([&](const CallError&) { ++wrong; });
  std::jthread caller([&] {
    for (int i = 0; i < calls; ++i) {
      const auto argument = fmt::format("[\"B\",{}]", i);
      sync.call("echo:reply:", text(argument), [&](const Bytes& reply) {
        if (reply.view() != argument) ++wrong;
        answered.add();
      });
    }
  });
  const bool othersServed = answered.waitFor(calls);
  const int firstDoneMeanwhile = firstDone.value();
  release.set_value();
  caller.join();

  EXPECT_TRUE(othersServed) << answered.value() << " of " << calls
                            << " calls of the second client were answered while the first "
                               "client's handler was blocked";
  EXPECT_EQ(firstDoneMeanwhile, 0) << "the blocked call was answered before it was released";
  EXPECT_EQ(wrong.load(), 0);
  ASSERT_TRUE(firstDone.waitFor(1)) << "the released call was never answered";
  EXPECT_EQ(firstAnswer, "[\"A\"]");
}

/// Sets the soft limit on descriptors for as long as it lives, then puts the old one back.
class DescriptorLimit {
 public:
  DescriptorLimit() { ::getrlimit(RLIMIT_NOFILE, &original_); }
  ~DescriptorLimit() { restore(); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  bool lower(rlim_t soft) {
    rlimit lowered = original_;
    lowered.rlim_cur = soft;
    return ::setrlimit(RLIMIT_NOFILE, &lowered) == 0;
  }
  void restore() { ::setrlimit(RLIMIT_NOFILE, &original_); }

 private:
  rlimit original_{};
};

/// The lowest descriptor number free now: with the soft limit there, no new descriptor can be
/// made until one of those below it closes.
int lowestFreeDescriptor() {
  const int probe = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  if (probe >= 0) ::close(probe);
  return probe;
}

/// The pause of an "accepting again in N ms" line.
int pauseOf(const std::string& line) {
  constexpr std::string_view marker = "accepting again in ";
  const auto at = line.find(marker);
  return at == std::string::npos ? -1 : std::stoi(line.substr(at + marker.size()));
}

// Out of descriptors, accept(2) fails at once for as long as a connection waits, and the listener
// tried again at once: a worker spun and the log filled with the same line. It now pauses, longer
// each time, logging once per pause, and accepts again when descriptors are back.
TEST_F(Bounds, OutOfDescriptorsTheListenerBacksOff) {
#if defined(__SANITIZE_ADDRESS__)
  // That build also checks virtual calls (UBSan's vptr check), which opens a pipe to probe memory
  // and so reports every virtual call as invalid once the process has no descriptor left.
  GTEST_SKIP() << "needs free descriptors under the sanitizers; runs in the plain and TSan builds";
#endif
  Listener listener(serviceName, listenerOptions());
  serveEcho(listener);
  ASSERT_EQ(echoFromNewClient("[0]"), "[0]");

  // Made while descriptors can still be made; connecting takes none on this side.
  auto waiting = RawSocket::unconnected();
  ASSERT_GE(waiting.get(), 0);
  DescriptorLimit limit;
  const int lowest = lowestFreeDescriptor();
  ASSERT_GT(lowest, 0);
  ASSERT_TRUE(limit.lower(static_cast<rlim_t>(lowest)));
  ASSERT_LT(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0), 0) << "descriptors can still be made";
  ASSERT_EQ(errno, EMFILE);
  ASSERT_EQ(waiting.connect(listener.path()), 0);
  waiting.write(join({hello, frame(FrameKind::call, 1, "echo:reply:", "[1]")}));

  // Three pauses, each longer than the one before; every wait asks for a longer one than seen.
  int longest = 0;
  std::vector<std::string> pauses;
  while (pauses.size() < 3) {
    const bool paused = capture.waitFor(
        [&](const platform::LogRecord& record) {
          return record.message.find("accept on") != std::string::npos
                 && pauseOf(record.message) > longest;
        },
        bound);
    pauses = loggedLines(capture, {"accept on", "failed", "accepting again in"});
    ASSERT_TRUE(paused) << "after " << pauses.size()
                        << " pauses no longer one came; log:" << allLines(capture);
    for (const auto& line : pauses) longest = std::max(longest, pauseOf(line));
  }
  EXPECT_LT(pauses.size(), 20U) << "the listener kept retrying; log:" << allLines(capture);
  EXPECT_NE(pauses[0].find(listener.path().native()), std::string::npos) << pauses[0];
  EXPECT_GT(pauseOf(pauses[0]), 0) << pauses[0];
  EXPECT_LT(pauseOf(pauses[0]), pauseOf(pauses[1])) << pauses[0] << "\n" << pauses[1];
  EXPECT_LT(pauseOf(pauses[1]), pauseOf(pauses[2])) << pauses[1] << "\n" << pauses[2];

  // Descriptors are back: the paused accept takes the waiting client, and new ones are served.
  limit.restore();
  Frame frame;
  auto outcome = waiting.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  EXPECT_EQ(frame.kind, FrameKind::hello);
  outcome = waiting.readFrame(frame);
  ASSERT_EQ(outcome, RawSocket::Read::frame) << describe(outcome);
  EXPECT_EQ(frame.kind, FrameKind::reply);
  EXPECT_EQ(frame.serial, 1U);
  EXPECT_EQ(echoFromNewClient("[2]"), "[2]");
}

// Calls racing the destruction of their connection could complete twice (once with the answer,
// once with the failure of the close) or never. Each one now completes exactly once.
TEST_F(Bounds, CallsRacingDestructionCompleteExactlyOnce) {
  std::mutex heldMutex;
  std::vector<Reply> held;
  Listener listener(serviceName, listenerOptions());
  listener.setConnectionHandler([&](Peer& peer) {
    auto table = echoTable();
    table->on("hold:reply:", [&](std::optional<Bytes>, Reply reply) {
      const std::lock_guard list(heldMutex);
      held.push_back(std::move(reply));
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  // Each caller keeps at most `window` echoes unanswered, so that answers keep arriving while it
  // calls; the connection goes once `destroyAfter` calls have been made, with the callers going on.
  constexpr std::size_t threads = 4;
  constexpr std::size_t mostPerThread = 50000;
  constexpr int window = 64;
  constexpr int destroyAfter = 2000;
  std::vector<std::atomic<int>> runs(threads * mostPerThread);
  std::array<std::atomic<int>, threads> made{};
  std::array<Counter, threads> echoesDone;
  const auto totalMade = [&] {
    int total = 0;
    for (const auto& count : made) total += count.load();
    return total;
  };
  Counter callsMade;
  std::atomic<int> replies{0};
  std::atomic<int> failures{0};
  std::atomic<bool> stalled{false};
  Counter completed;
  std::atomic<bool> stop{false};
  auto connection =
      std::make_unique<Connection>(serviceName, ConnectionOptions{directory.path(), std::nullopt});
  connection->resume();
  const auto proxy = connection->remoteObjectProxy({});
  {
    std::latch start(static_cast<std::ptrdiff_t>(threads) + 1);
    std::vector<std::jthread> callers;
    for (std::size_t t = 0; t < threads; ++t) {
      callers.emplace_back([&, t] {
        start.arrive_and_wait();
        int echoes = 0;
        for (std::size_t i = 0; i < mostPerThread && !stop.load(); ++i) {
          const std::size_t id = t * mostPerThread + i;
          // Some calls stay unanswered, so that some are surely in flight at the destruction.
          const bool hold = i % 100 == 0;
          if (!hold && !echoesDone[t].waitFor(echoes - window)) {
            stalled.store(true);
            break;
          }
          proxy.call(hold ? "hold:reply:" : "echo:reply:", text("[]"),
                     [&, id, hold, t](CallResult result) {
                       ++runs[id];
                       ++(result ? replies : failures);
                       if (!hold) echoesDone[t].add();
                       completed.add();
                     });
          echoes += hold ? 0 : 1;
          ++made[t];
          callsMade.add();
        }
      });
    }
    start.arrive_and_wait();
    const bool calledBefore = callsMade.waitFor(destroyAfter);
    const int repliesBefore = replies.load();
    connection.reset();  // while the callers go on calling
    const int madeAtDestruction = totalMade();
    const bool calledAfter = callsMade.waitFor(madeAtDestruction + destroyAfter);
    stop.store(true);
    callers.clear();
    ASSERT_TRUE(calledBefore) << callsMade.value() << " calls made";
    EXPECT_FALSE(stalled.load()) << "a caller waited in vain for its answers";
    EXPECT_GT(repliesBefore, 0) << "no call was answered before the destruction";
    EXPECT_TRUE(calledAfter) << "the callers stopped calling at the destruction: "
                             << madeAtDestruction << " calls then, " << totalMade() << " now";
  }

  const int total = totalMade();
  ASSERT_TRUE(completed.waitFor(total)) << completed.value() << " of " << total << " completed";
  EXPECT_EQ(completed.value(), total);
  EXPECT_GT(failures.load(), 0) << "no call failed with the destruction";
  int never = 0;
  int twice = 0;
  for (std::size_t t = 0; t < threads; ++t) {
    for (std::size_t i = 0; i < mostPerThread; ++i) {
      const int count = runs[t * mostPerThread + i].load();
      if (i < static_cast<std::size_t>(made[t].load())) {
        never += count == 0 ? 1 : 0;
        twice += count > 1 ? 1 : 0;
      } else {
        twice += count > 0 ? 1 : 0;
      }
    }
  }
  EXPECT_EQ(never, 0) << "calls whose completion never ran";
  EXPECT_EQ(twice, 0) << "calls whose completion ran more than once";
}

}  // namespace
}  // namespace corvane::ipc
