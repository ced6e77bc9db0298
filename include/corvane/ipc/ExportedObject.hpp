#pragma once

#include <corvane/base/Bytes.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace corvane::ipc {

namespace detail {
class Channel;
}

/// The answer to one incoming CALL, handed to the exported object. Move-only; it may be kept and
/// used later from any thread. Exactly one answer reaches the caller: `send` or `fail` once, and a
/// Reply destroyed without either answers with a FAULT "no reply", so a caller never waits for an
/// answer that cannot come. For a one-way MESSAGE the Reply is empty and both calls do nothing.
/// Answering after the connection closed is harmless (nothing is sent).
class Reply {
 public:
  Reply() = default;
  Reply(Reply&& other) noexcept;
  Reply& operator=(Reply&& other) noexcept;
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply();

  /// Answers with a REPLY carrying `reply`. Throws std::logic_error if this call was answered.
  void send(Bytes reply);
  /// Answers with a FAULT carrying `reason`. Throws std::logic_error if this call was answered.
  void fail(std::string_view reason);
  /// Whether an answer is still owed (false for a MESSAGE and after answering).
  [[nodiscard]] bool expectsAnswer() const noexcept { return pending_; }

 private:
  friend class detail::Channel;
  Reply(std::weak_ptr<detail::Channel> channel, std::uint64_t serial) noexcept
      : channel_(std::move(channel)), serial_(serial), pending_(true) {}
  void answer(std::optional<Bytes> reply, std::string_view reason);

  std::weak_ptr<detail::Channel> channel_;
  std::uint64_t serial_ = 0;
  bool pending_ = false;
};

/// The object a connection exports: incoming CALLs and MESSAGEs are dispatched to it by operation
/// name, one at a time on the connection's delivery executor, in arrival order. An operation that
/// is not in the exported interface (when one is set), or that is called in the wrong shape, is
/// answered with a FAULT before it gets here.
class ExportedObject {
 public:
  virtual ~ExportedObject() = default;
  /// Handles `operation`. `argument` is the payload (empty for a reply-only call). `reply` is
  /// empty for a MESSAGE. Runs on the delivery executor; an exception is logged and, for a CALL
  /// not yet answered, turns into a FAULT.
  virtual void handle(std::string_view operation, std::optional<Bytes> argument, Reply reply) = 0;
};

/// An exported object made of one function per operation name; a name without a function is
/// answered with a FAULT "unknown operation". Register every operation before exporting it.
class OperationTable final : public ExportedObject {
 public:
  using Function = std::function<void(std::optional<Bytes> argument, Reply reply)>;

  /// Registers (or replaces) the function of `operation`.
  OperationTable& on(std::string operation, Function function);
  void handle(std::string_view operation, std::optional<Bytes> argument, Reply reply) override;

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept {
      return std::hash<std::string_view>{}(s);
    }
  };
  std::unordered_map<std::string, Function, Hash, std::equal_to<>> functions_;
};

}  // namespace corvane::ipc
