// echo-service: the smallest service on the connection facility, and the example that
// docs/protocol.md walks through.
//
//   echo:reply:   answers with its argument unchanged
//   slow:reply:   answers with its argument after the milliseconds it holds ([250])
//   push:reply:   answers, then sends the caller one MESSAGE handleMessages: with its argument
//   anything else is answered with a FAULT
//
// Runs until SIGTERM or SIGINT. Adopts a systemd-activated socket when given one.

#include <corvane/ipc/Listener.hpp>
#include <corvane/platform/LogCategory.hpp>

#include <CLI/CLI.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/json/parse.hpp>

#include <chrono>
#include <csignal>
#include <iostream>

namespace {

using corvane::Bytes;
using corvane::ipc::OperationShape;

/// The delay a slow:reply: argument asks for, or an explanation of why it is not one.
std::optional<std::chrono::milliseconds> delayOf(const std::optional<Bytes>& argument,
                                                 std::string& why) {
  boost::system::error_code error;
  const auto document = boost::json::parse(argument ? argument->view() : "", error);
  if (error || !document.is_array() || document.as_array().size() != 1
      || !document.as_array()[0].is_int64() || document.as_array()[0].as_int64() < 0
      || document.as_array()[0].as_int64() > 60'000) {
    why = "slow:reply: expects a list holding 0 to 60000 milliseconds, like [250]";
    return std::nullopt;
  }
  return std::chrono::milliseconds(document.as_array()[0].as_int64());
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Echo service on the Corvane connection facility");
  std::string runtimeDirectory;
  std::string serviceName = "dev.corvane.echo";
  app.add_option("--runtime-dir", runtimeDirectory, "Directory of the service socket");
  app.add_option("--service", serviceName, "Service name (the socket's file name)");
  CLI11_PARSE(app, argc, argv);

  // Timers of slow:reply: and the signal wait run here, on the main thread.
  boost::asio::io_context main;
  auto work = boost::asio::make_work_guard(main);
  boost::asio::signal_set signals(main, SIGTERM, SIGINT);
  signals.async_wait([&](const boost::system::error_code&, int) {
    work.reset();
    main.stop();
  });

  try {
    corvane::ipc::ListenerOptions options;
    options.runtimeDirectory = runtimeDirectory;
    corvane::ipc::Listener listener(serviceName, options);
    const corvane::ipc::InterfaceDescription interface(
        "EchoProtocol", {{"echo:reply:", OperationShape::argumentAndReply},
                         {"slow:reply:", OperationShape::argumentAndReply},
                         {"push:reply:", OperationShape::argumentAndReply}});
    listener.setConnectionHandler([&](corvane::ipc::Peer& peer) {
      const auto& who = peer.credentials();
      corvane::LogCategory::general().info("echo-service: client pid {} uid {}", who.pid, who.uid);
      auto table = std::make_shared<corvane::ipc::OperationTable>();
      table->on("echo:reply:", [](std::optional<Bytes> argument, corvane::ipc::Reply reply) {
        reply.send(std::move(*argument));
      });
      table->on("slow:reply:", [&main](std::optional<Bytes> argument, corvane::ipc::Reply reply) {
        std::string why;
        const auto delay = delayOf(argument, why);
        if (!delay) return reply.fail(why);
        auto timer = std::make_shared<boost::asio::steady_timer>(main, *delay);
        timer->async_wait(
            [timer, argument = std::move(*argument),
             reply = std::make_shared<corvane::ipc::Reply>(std::move(reply))](
                const boost::system::error_code&) mutable { reply->send(std::move(argument)); });
      });
      // The proxy holds the client weakly, so the table keeping it makes no cycle.
      auto client = peer.remoteObjectProxy([](const corvane::ipc::CallError& error) {
        corvane::LogCategory::general().error("echo-service: push failed: {}", error);
      });
      table->on("push:reply:", [client](std::optional<Bytes> argument, corvane::ipc::Reply reply) {
        reply.send(argument->clone());
        client.send("handleMessages:", std::move(*argument));
      });
      peer.setExportedInterface(interface);
      peer.setExportedObject(std::move(table));
      return true;
    });
    listener.resume();
    std::cout << "echo-service listening on " << listener.path().native()
              << (listener.isActivated() ? " (socket activated)" : "") << std::endl;
    main.run();
    // Leaving the scope closes every client connection and removes the socket.
  } catch (const std::exception& e) {
    std::cerr << "echo-service: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
