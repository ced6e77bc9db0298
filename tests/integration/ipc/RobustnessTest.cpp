#include "IpcTestSupport.hpp"

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/Listener.hpp>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace corvane::ipc {
namespace {

using testing::Counter;
using testing::frame;
using testing::RawSocket;
using testing::text;

constexpr const char* serviceName = "dev.corvane.robust.corvaneagent";

std::vector<std::byte> raw(std::initializer_list<unsigned> values) {
  std::vector<std::byte> out;
  for (auto v : values) out.push_back(static_cast<std::byte>(v));
  return out;
}

std::vector<std::byte> join(std::initializer_list<std::vector<std::byte>> parts) {
  std::vector<std::byte> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// NOLINTNEXTLINE(cert-err58-cpp): made before any test runs; a throw is a broken test, not a case
const auto hello = frame(FrameKind::hello, 0, "", helloPayload);

struct BadInput {
  const char* what;
  std::vector<std::byte> bytes;
};

const std::vector<BadInput>& badInputs() {
  static const std::vector<BadInput> inputs{
      {"garbage", raw({0xde, 0xad, 0xbe, 0xef, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})},
      {"callBeforeHello", frame(FrameKind::call, 1, "echo:reply:", "[]")},
      {"wrongVersion", frame(FrameKind::hello, 0, "", R"({"protocol":2})")},
      {"helloNotJson", frame(FrameKind::hello, 0, "", "protocol 1")},
      {"oversized", join({hello, raw({0x7f, 0xff, 0xff, 0xff, 2, 1, 0, 1})})},
      {"unknownKind", join({hello, raw({0, 0, 0, 12, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})})},
      {"replyToUnknownSerial", join({hello, frame(FrameKind::reply, 77, "", "[]")})},
      {"secondHello", join({hello, hello})},
      {"serialGoesBack", join({hello, frame(FrameKind::message, 5, "handleMessages:", "[]"),
                               frame(FrameKind::message, 5, "handleMessages:", "[]")})},
      {"truncatedHeader", join({hello, raw({0, 0, 0, 40, 2, 1})})},
  };
  return inputs;
}

// The service side: each bad client is closed, and the service keeps serving everyone else.
TEST(ServiceRobustness, BadClientsAreClosedAndTheServiceKeepsServing) {
  testing::TemporaryDirectory directory;
  ListenerOptions options;
  options.runtimeDirectory = directory.path();
  options.adoptActivatedSocket = false;
  Listener listener(serviceName, options);
  listener.setConnectionHandler([](Peer& peer) {
    auto table = std::make_shared<OperationTable>();
    table->on("echo:reply:", [](std::optional<Bytes> argument, Reply reply) {
      reply.send(argument ? std::move(*argument) : Bytes());
    });
    peer.setExportedObject(table);
    return true;
  });
  listener.resume();

  for (const auto& input : badInputs()) {
    SCOPED_TRACE(input.what);
    auto socket = RawSocket::connectTo(listener.path());
    socket.write(input.bytes);
    std::vector<std::byte> received;
    if (std::string_view(input.what) == "truncatedHeader") {
      ::shutdown(socket.get(), SHUT_WR);  // the service only learns of the truncation at the end
    }
    ASSERT_TRUE(socket.readUntilClosed(received)) << "the service kept the connection open";
    if (std::string_view(input.what) == "wrongVersion") {
      EXPECT_EQ(received, frame(FrameKind::fault, 0, "", "unsupported protocol version"));
    }
  }

  Connection connection(serviceName, {directory.path(), std::nullopt});
  connection.resume();
  std::string answer;
  connection
      .synchronousRemoteObjectProxy([](const CallError& e) { ADD_FAILURE() << e.description(); })
      .call("echo:reply:", text("[\"still here\"]"),
            [&](const Bytes& reply) { answer = std::string(reply.view()); });
  EXPECT_EQ(answer, "[\"still here\"]");
}

/// A fake service that answers the client's HELLO and first CALL with scripted bytes.
class FakeService {
 public:
  FakeService(const std::filesystem::path& path, std::vector<std::byte> answer, bool closeAfter)
      : listening_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.native().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(listening_.get(), 4), 0);
    thread_ = std::jthread([this, answer = std::move(answer), closeAfter] {
      RawSocket client(::accept(listening_.get(), nullptr, nullptr));
      // Wait for HELLO and the CALL (16 + 14 bytes, then 16 + name + payload).
      std::vector<std::byte> in;
      std::array<std::byte, 4096> chunk{};
      while (in.size() < hello.size() + 16) {
        const ssize_t n = ::recv(client.get(), chunk.data(), chunk.size(), 0);
        if (n <= 0) return;
        in.insert(in.end(), chunk.begin(), chunk.begin() + n);
      }
      client.write(answer);
      if (closeAfter) return;
      std::vector<std::byte> rest;
      (void)client.readUntilClosed(rest);
    });
  }

 private:
  RawSocket listening_;
  std::jthread thread_;
};

struct ClientCase {
  const char* what;
  std::vector<std::byte> answer;
  bool closeAfter;
  ConnectionError expected;
  bool invalidates;
};

// The client side: a service that breaks the protocol invalidates the connection (each call
// failing once); one that dies mid-frame only interrupts it.
TEST(ClientRobustness, BadServicesFailTheCallOnceAndNeverCrashTheClient) {
  const std::vector<ClientCase> cases{
      {"garbage", raw({0xff, 0xff, 0xff, 0xff, 1, 2, 3}), false, ConnectionError::protocolViolation,
       true},
      {"noHello", frame(FrameKind::reply, 1, "", "[]"), false, ConnectionError::protocolViolation,
       true},
      {"wrongVersion", frame(FrameKind::hello, 0, "", R"({"protocol":7})"), false,
       ConnectionError::invalidated, true},
      {"refusedHello", frame(FrameKind::fault, 0, "", "unsupported protocol version"), true,
       ConnectionError::invalidated, true},
      {"unknownKind", join({hello, raw({0, 0, 0, 12, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})}), false,
       ConnectionError::protocolViolation, true},
      {"oversized", join({hello, raw({0x10, 0, 0, 0, 3, 1})}), false,
       ConnectionError::protocolViolation, true},
      {"unknownSerial", join({hello, frame(FrameKind::reply, 99, "", "[]")}), false,
       ConnectionError::protocolViolation, true},
      {"nameOnReply", join({hello, raw({0, 0, 0, 13, 3, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 'x'})}),
       false, ConnectionError::protocolViolation, true},
      {"truncatedThenGone", join({hello, raw({0, 0, 0, 30, 3, 1, 0, 0})}), true,
       ConnectionError::interrupted, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::TemporaryDirectory directory;
    FakeService fake(directory.path() / serviceName, c.answer, c.closeAfter);
    Connection connection(serviceName, {directory.path(), std::nullopt});
    Counter errors;
    Counter invalidations;
    Counter interruptions;
    std::vector<CallError> seen;
    std::mutex seenMutex;
    connection.setInvalidationHandler([&] { invalidations.add(); });
    connection.setInterruptionHandler([&] { interruptions.add(); });
    connection.resume();
    const auto proxy = connection.remoteObjectProxy([&](const CallError& e) {
      {
        const std::lock_guard lock(seenMutex);
        seen.push_back(e);
      }
      errors.add();
    });
    proxy.call("echo:reply:", text("[]"),
               [](const Bytes&) { ADD_FAILURE() << "no reply expected"; });
    ASSERT_TRUE(errors.waitFor(1));
    ASSERT_TRUE(c.invalidates ? invalidations.waitFor(1) : interruptions.waitFor(1));
    {
      const std::lock_guard lock(seenMutex);
      EXPECT_TRUE(seen[0].is(c.expected)) << seen[0].description();
    }
    if (c.invalidates) {
      proxy.call("echo:reply:", text("[]"),
                 [](const Bytes&) { ADD_FAILURE() << "no reply expected"; });
      ASSERT_TRUE(errors.waitFor(2));
      const std::lock_guard lock(seenMutex);
      EXPECT_TRUE(seen[1].is(ConnectionError::invalidated));
    }
  }
}

}  // namespace
}  // namespace corvane::ipc
