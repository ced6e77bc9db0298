#include <corvane/push/TetherClientMessage.hpp>

namespace corvane {
namespace {

using MessageType = TetherClientMessage::MessageType;

struct Render {
  std::string operator()(const MessageType::AppProgressCase& c) const {
    return fmt::format("appProgress({}: {})", c.progress.bundleID, c.progress.state.description());
  }
  std::string operator()(const MessageType::ConnectionEstablished&) const {
    return "connectionEstablished";
  }
  std::string operator()(const MessageType::Log& c) const { return fmt::format("log({})", c.log); }
  std::string operator()(const MessageType::ManagedAppCatalog& c) const {
    if (c._1) return fmt::format("managedAppCatalog({})", *c._1);
    if (c._0) return fmt::format("managedAppCatalog({} apps)", c._0->size());
    return "managedAppCatalog()";
  }
};

}  // namespace

std::string TetherClientMessage::description() const {
  return std::visit(Render{}, type.cases());
}

std::string description(const std::vector<TetherClientMessage>& messages) {
  std::string out = "[";
  for (std::size_t i = 0; i < messages.size(); ++i) {
    if (i != 0) out += ", ";
    out += messages[i].description();
  }
  out += ']';
  return out;
}

}  // namespace corvane
