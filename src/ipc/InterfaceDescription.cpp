#include <corvane/ipc/Frame.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>

#include <stdexcept>

namespace corvane::ipc {

InterfaceDescription::InterfaceDescription(std::string name, std::span<const Operation> operations)
    : name_(std::move(name)) {
  for (const auto& operation : operations) {
    if (!isValidOperationName(operation.name)) {
      throw std::invalid_argument("invalid operation name in " + name_);
    }
    if (!shapes_.emplace(std::string(operation.name), operation.shape).second) {
      throw std::invalid_argument("operation " + std::string(operation.name) + " listed twice in "
                                  + name_);
    }
  }
}

InterfaceDescription::InterfaceDescription(std::string name,
                                           std::initializer_list<Operation> operations)
    : InterfaceDescription(std::move(name),
                           std::span<const Operation>(operations.begin(), operations.size())) {}

std::optional<OperationShape> InterfaceDescription::shape(std::string_view operation) const {
  if (auto found = shapes_.find(operation); found != shapes_.end()) return found->second;
  return std::nullopt;
}

std::string_view toString(OperationShape shape) noexcept {
  switch (shape) {
    case OperationShape::argumentAndReply:
      return "argument and reply";
    case OperationShape::replyOnly:
      return "reply only";
    case OperationShape::oneWay:
      return "one-way";
  }
  return "unknown";
}

}  // namespace corvane::ipc
