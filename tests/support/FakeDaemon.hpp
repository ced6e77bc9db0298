#pragma once

// An in-process daemon for the tests of the service calls and of the push hub, built on the
// facility's listener.

#include "integration/ipc/IpcTestSupport.hpp"

#include <corvane/Corvane.hpp>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::testing {

inline constexpr std::string_view successWithoutValue = R"([{"success": {"_0": null}}])";

/// What the daemon received: the operation and its argument buffer, if any.
struct Received {
  std::string operation;
  std::optional<std::string> argument;
};

/// An in-process daemon on the agent's service name: answers every operation of the service
/// protocol with its scripted reply (success without a value by default) or holds it unanswered,
/// records every call, and pushes batches to the client that connected last.
class FakeDaemon {
 public:
  explicit FakeDaemon(const std::filesystem::path& directory)
      : listener_(std::string(agentServiceName), ipc::ListenerOptions{directory, false}) {
    listener_.setConnectionHandler([this](ipc::Peer& peer) {
      auto table = std::make_shared<ipc::OperationTable>();
      for (const auto& operation : ServiceProtocol::operations) {
        table->on(std::string(operation.name),
                  [this, name = std::string(operation.name)](std::optional<Bytes> argument,
                                                             ipc::Reply reply) {
                    answer(name, std::move(argument), std::move(reply));
                  });
      }
      peer.setExportedObject(table);
      peer.setRemoteObjectInterface(TetherClientProtocolDescription::interface());
      {
        const std::lock_guard state(mutex_);
        client_ = peer.remoteObjectProxy([](const ipc::CallError&) {});
      }
      connections.add();
      return true;
    });
    listener_.resume();
  }

  void script(std::string_view operation, std::string_view reply) {
    const std::lock_guard state(mutex_);
    replies_[std::string(operation)] = std::string(reply);
  }
  /// Holds the calls of `operation` (every call, without one) unanswered until `release`.
  void hold(std::optional<std::string_view> operation = std::nullopt) {
    const std::lock_guard state(mutex_);
    holding_ = operation ? std::string(*operation) : std::string();
  }
  /// Stops holding and answers the held calls (with the default reply).
  void release() {
    std::vector<ipc::Reply> held;
    {
      const std::lock_guard state(mutex_);
      holding_.reset();
      held.swap(held_);
    }
    for (auto& reply : held) reply.send(Bytes(successWithoutValue));
  }
  [[nodiscard]] std::vector<Received> received() const {
    const std::lock_guard state(mutex_);
    return received_;
  }

  /// Pushes one batch, given as the JSON list of its messages, to the client.
  void push(std::string_view batch) {
    ASSERT_TRUE(connections.waitFor(1));
    ipc::RemoteProxy client;
    {
      const std::lock_guard state(mutex_);
      client = client_;
    }
    client.send("handleMessages:", Bytes(fmt::format("[{}]", batch)));
  }

  ipc::testing::Counter connections;
  ipc::testing::Counter calls;

 private:
  void answer(const std::string& operation, std::optional<Bytes> argument, ipc::Reply reply) {
    std::string answer(successWithoutValue);
    {
      const std::lock_guard state(mutex_);
      received_.push_back(
          {operation, argument ? std::optional(std::string(argument->view())) : std::nullopt});
      if (holding_ && (holding_->empty() || *holding_ == operation)) {
        held_.push_back(std::move(reply));
      } else if (auto scripted = replies_.find(operation); scripted != replies_.end()) {
        answer = scripted->second;
      }
    }
    if (reply.expectsAnswer()) reply.send(Bytes(answer));  // a held (moved-from) one is not
    calls.add();
  }

  mutable std::mutex mutex_;
  std::map<std::string, std::string> replies_;
  std::vector<Received> received_;
  std::vector<ipc::Reply> held_;
  std::optional<std::string> holding_;  // the operation held; empty: every one
  ipc::RemoteProxy client_;
  ipc::Listener listener_;
};

}  // namespace corvane::testing
