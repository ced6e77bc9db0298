#pragma once

#include "Inbox.hpp"

#include <functional>

namespace cvnctl {

/// Notices the daemon going away: while it lives, an interruption or invalidation of the
/// library's shared connection (`ServiceConnection::shared().connection()`) posts `onLost` to the
/// inbox. Destruction puts back handlers that only log, as the library's own do.
///
/// The connection reports an interruption only while it is connected, so make a call (any call)
/// before relying on it.
class DaemonMonitor {
 public:
  DaemonMonitor(Inbox inbox, std::function<void()> onLost);
  ~DaemonMonitor();
  DaemonMonitor(const DaemonMonitor&) = delete;
  DaemonMonitor& operator=(const DaemonMonitor&) = delete;
};

}  // namespace cvnctl
