#include "DaemonMonitor.hpp"

#include <corvane/platform/LogCategory.hpp>
#include <corvane/service/ServiceConnection.hpp>

namespace cvnctl {

DaemonMonitor::DaemonMonitor(Inbox inbox, std::function<void()> onLost) {
  auto& connection = corvane::ServiceConnection::shared().connection();
  connection.setInterruptionHandler([inbox, onLost] {
    corvane::LogCategory::tether().error("Daemon connection interrupted");
    inbox.post(onLost);
  });
  connection.setInvalidationHandler([inbox, onLost] {
    corvane::LogCategory::tether().error("Daemon connection invalidated");
    inbox.post(onLost);
  });
}

DaemonMonitor::~DaemonMonitor() {
  auto& connection = corvane::ServiceConnection::shared().connection();
  connection.setInterruptionHandler(
      [] { corvane::LogCategory::tether().error("Daemon connection interrupted"); });
  connection.setInvalidationHandler(
      [] { corvane::LogCategory::tether().error("Daemon connection invalidated"); });
}

}  // namespace cvnctl
