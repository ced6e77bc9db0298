#include "Reconnection.hpp"

#include "DaemonCalls.hpp"
#include "Problems.hpp"

#include <corvane/coding/CorvaneError.hpp>
#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <fmt/format.h>

namespace cvnctl {
namespace {

constexpr std::chrono::milliseconds firstProbeDelay{100};
constexpr std::chrono::milliseconds longestProbeDelay{1000};

/// Whether a failed call means the daemon cannot be had again: the connection was invalidated
/// (by a daemon that broke the protocol or runs as the wrong user), not merely interrupted.
bool isFinal(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const corvane::Error& error) {
    using corvane::ipc::ConnectionError;
    return error.origin() == corvane::ipc::make_error_code(ConnectionError::invalidated)
           || error.origin() == corvane::ipc::make_error_code(ConnectionError::serviceNotTrusted);
  } catch (...) {
    return false;
  }
}

}  // namespace

Reconnection::Reconnection(EventLoop& loop, Output& output, std::filesystem::path socketPath,
                           std::optional<std::chrono::milliseconds> absenceLimit,
                           std::function<void(Failure)> onFailure, std::function<void()> onBack)
    : loop_(loop),
      output_(output),
      socketPath_(std::move(socketPath)),
      absenceLimit_(absenceLimit),
      onFailure_(std::move(onFailure)),
      onBack_(std::move(onBack)),
      probeTimer_(loop.context()),
      absenceTimer_(loop.context()) {
  loop_.onFinish([this] {
    probeTimer_.cancel();
    absenceTimer_.cancel();
  });
}

void Reconnection::lost() {
  if (away_ || loop_.finished()) return;
  away_ = true;
  ++absence_;
  lostAt_ = std::chrono::steady_clock::now();
  output_.note(
      fmt::format("cvnctl: corvaned went away (the connection to {} was lost); waiting "
                  "for it to come back (--follow)",
                  socketPath_.string()));
  if (absenceLimit_) {
    absenceTimer_.expires_after(*absenceLimit_);
    absenceTimer_.async_wait([this](const boost::system::error_code& error) {
      if (error || loop_.finished() || !away_) return;
      onFailure_(describeFailure(
          std::make_exception_ptr(timedOut(fmt::format(
              "corvaned went away and did not come back within {} (the connection to {} was lost)",
              describeDuration(*absenceLimit_), socketPath_.string()))),
          socketPath_));
    });
  }
  probeDelay_ = firstProbeDelay;
  scheduleProbe();
}

void Reconnection::back() {
  if (!away_ || loop_.finished()) return;
  away_ = false;
  probeTimer_.cancel();
  absenceTimer_.cancel();
  const auto gone = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - lostAt_);
  output_.note(
      fmt::format("cvnctl: corvaned is back after {}; the watch goes on", describeDuration(gone)));
  if (onBack_) onBack_();
}

void Reconnection::scheduleProbe() {
  probeTimer_.expires_after(probeDelay_);
  probeDelay_ = std::min(probeDelay_ * 2, longestProbeDelay);
  probeTimer_.async_wait([this](const boost::system::error_code& error) {
    if (error || loop_.finished() || !away_) return;
    probe();
  });
}

void Reconnection::probe() {
  corvane::DDMDeclarationKeysRequest{}.perform(
      [inbox = loop_.inbox(), this, absence = absence_](std::exception_ptr failure,
                                                        const std::vector<std::string>&) {
        // On the library's thread; the loop takes it from here while it runs.
        inbox.post([this, absence, failure = std::move(failure)] {
          if (absence == absence_) onProbe(failure);
        });
      });
}

void Reconnection::onProbe(const std::exception_ptr& failure) {
  if (!away_ || loop_.finished()) return;
  if (!failure) {
    back();
    return;
  }
  if (isFinal(failure)) {
    onFailure_(describeFailure(failure, socketPath_));
    return;
  }
  // Any answer of the daemon's own, a refusal included, means it is there again.
  if (describeFailure(failure, socketPath_).status != ExitStatus::unavailable) {
    back();
    return;
  }
  scheduleProbe();
}

}  // namespace cvnctl
