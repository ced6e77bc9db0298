#include "DaemonMonitor.hpp"

#include <utility>

namespace cvnctl {

DaemonMonitor::DaemonMonitor(Inbox inbox, std::function<void()> onLost)
    : observation_(corvane::ServiceConnection::shared().observeLoss(
        [inbox = std::move(inbox), onLost = std::move(onLost)] { inbox.post(onLost); })) {}

}  // namespace cvnctl
