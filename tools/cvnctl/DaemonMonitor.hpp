#pragma once

#include "Inbox.hpp"

#include <corvane/service/ServiceConnection.hpp>

#include <functional>

namespace cvnctl {

/// Notices the daemon going away: while it lives, an interruption or invalidation of the
/// library's shared connection posts `onLost` to the inbox.
///
/// The connection reports an interruption only while it is connected, so make a call (any call)
/// before relying on it.
class DaemonMonitor {
 public:
  DaemonMonitor(Inbox inbox, std::function<void()> onLost);

 private:
  corvane::LossObservation observation_;
};

}  // namespace cvnctl
