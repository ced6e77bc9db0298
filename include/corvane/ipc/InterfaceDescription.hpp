#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace corvane::ipc {

/// How an operation is called: with one argument buffer and a reply, with a reply only, or with
/// one argument buffer and no reply (a one-way MESSAGE).
enum class OperationShape { argumentAndReply, replyOnly, oneWay };

/// One named operation of a protocol; `constexpr`-friendly so a protocol can list its operations
/// in a static table.
struct Operation {
  std::string_view name;
  OperationShape shape = OperationShape::argumentAndReply;
};

/// The operations of one protocol and their shapes. A connection checks outgoing calls against its
/// remote interface and incoming ones against its exported interface: an unknown name or a call of
/// the wrong shape fails with a clear error instead of reaching the peer or the exported object.
class InterfaceDescription {
 public:
  InterfaceDescription() = default;
  /// Throws std::invalid_argument for an invalid operation name (see `isValidOperationName`) or a
  /// name listed twice.
  InterfaceDescription(std::string name, std::span<const Operation> operations);
  InterfaceDescription(std::string name, std::initializer_list<Operation> operations);

  /// The protocol's name (for log lines only).
  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  /// The shape of `operation`, or empty when the protocol has no such operation.
  [[nodiscard]] std::optional<OperationShape> shape(std::string_view operation) const;
  [[nodiscard]] std::size_t size() const noexcept { return shapes_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept {
      return std::hash<std::string_view>{}(s);
    }
  };
  std::string name_;
  std::unordered_map<std::string, OperationShape, Hash, std::equal_to<>> shapes_;
};

/// "argument and reply", "reply only", "one-way".
[[nodiscard]] std::string_view toString(OperationShape shape) noexcept;

}  // namespace corvane::ipc
