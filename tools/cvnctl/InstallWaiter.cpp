#include "InstallWaiter.hpp"

#include "DaemonCalls.hpp"
#include "Problems.hpp"
#include "StreamFollower.hpp"

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <fmt/format.h>

#include <algorithm>

namespace cvnctl {
namespace {

constexpr std::chrono::milliseconds refreshInterval{500};

using State = corvane::ManagedAppStatus::State;

/// Whether a state is on the way to an install. Any other one (done, or available again because
/// the install failed, was cancelled or its declaration removed) may settle the wait or end it,
/// so the statuses are asked for at once rather than at the next interval.
bool isUnderWay(const corvane::AppState& state) {
  const auto& cases = state.cases();
  return std::holds_alternative<corvane::AppState::Waiting>(cases)
         || std::holds_alternative<corvane::AppState::Downloading>(cases)
         || std::holds_alternative<corvane::AppState::Installing>(cases)
         || std::holds_alternative<corvane::AppState::Paused>(cases);
}

std::string joinReasons(const corvane::ManagedAppStatus& status) {
  std::string text;
  for (const auto reason : status.reasons) {
    if (!text.empty()) text += ", ";
    text += corvane::rawValue(reason);
  }
  return text.empty() ? "no reason given" : text;
}

}  // namespace

bool InstallWaiter::isSettled(State state) noexcept {
  return state == State::managed || state == State::failed;
}

InstallWaiter::InstallWaiter(Output& output, const Options& options,
                             std::filesystem::path socketPath)
    : output_(output),
      options_(options),
      socketPath_(std::move(socketPath)),
      loop_(false),
      progress_([this] {
        // Watch the connection before anything is sent, so that no interruption goes unseen.
        loop_.watchDaemon([this] { onLost(); });
        return corvane::ManagedAppLibrary::shared().progressUpdates();
      }()),
      timer_(loop_.context()),
      deadline_(loop_.context()) {
  if (options_.follow) {
    reconnection_.emplace(
        loop_, output_, socketPath_, std::nullopt,
        [this](Failure failure) { fail(std::move(failure)); }, [this] { refresh(); });
  }
}

void InstallWaiter::onLost() {
  if (reconnection_) {
    reconnection_->lost();
  } else {
    fail(daemonWentAway(socketPath_));
  }
}

ExitStatus InstallWaiter::wait(std::set<std::string> declarationIdentifiers, std::string applied) {
  targets_ = std::move(declarationIdentifiers);
  applied_ = std::move(applied);
  if (targets_.empty()) return ExitStatus::success;
  StreamFollower<corvane::AsyncStream<corvane::AppProgress>, corvane::AppProgress> follower(
      loop_, progress_, [this](corvane::AppProgress progress) { onProgress(std::move(progress)); },
      [this] { fail(daemonWentAway(socketPath_)); });
  loop_.followTerminalSize([this] { output_.resized(); });
  loop_.onFinish([this] {
    timer_.cancel();
    deadline_.cancel();
  });
  if (options_.deadline) {
    deadline_.expires_at(*options_.deadline);
    deadline_.async_wait([this](const boost::system::error_code& error) {
      if (error || loop_.finished()) return;
      failWith(std::make_exception_ptr(
          timedOut(fmt::format("{}; the install did not finish within {}", applied_,
                               describeDuration(timeLimit(options_))))));
    });
  }
  follower.start();
  refresh();
  armTimer();
  const auto status = loop_.run();
  if (const auto signal = loop_.signal()) {
    failure_ = describeFailure(
        std::make_exception_ptr(interrupted(
            *signal, fmt::format("interrupted by {} while waiting; {}, and corvaned goes on with "
                                 "the install (cvnctl status shows it)",
                                 signalName(*signal), applied_))),
        socketPath_);
  }
  if (failure_) {
    output_.failure(*failure_);
    return failure_->status;
  }
  return status;
}

void InstallWaiter::fail(Failure failure) {
  if (loop_.finished()) return;
  const auto status = failure.status;
  failure_ = std::move(failure);
  loop_.finish(status);
}

void InstallWaiter::failWith(const std::exception_ptr& problem) {
  fail(describeFailure(problem, socketPath_));
}

void InstallWaiter::armTimer() {
  timer_.expires_after(refreshInterval);
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (error || loop_.finished()) return;
    refresh();
    armTimer();
  });
}

void InstallWaiter::onProgress(corvane::AppProgress progress) {
  if (reconnection_) reconnection_->back();
  const bool underWay = isUnderWay(progress.state);
  if (bundles_.contains(progress.bundleID)) output_.progress(progress);
  lastProgress_.insert_or_assign(progress.bundleID, std::move(progress));
  if (!underWay) refresh();
}

void InstallWaiter::refresh() {
  if (refreshing_) {
    refreshAgain_ = true;
    return;
  }
  refreshing_ = true;
  const Inbox inbox = loop_.inbox();
  corvane::DDMDeclarationStatusRequest{}.perform(
      [inbox, this](std::exception_ptr failure, std::vector<corvane::ManagedAppStatus> statuses) {
        // Runs on the library's thread; the loop takes it from here while it runs.
        inbox.post([this, failure = std::move(failure), statuses = std::move(statuses)] {
          onStatuses(failure, statuses);
        });
      });
}

void InstallWaiter::onStatuses(const std::exception_ptr& failure,
                               const std::vector<corvane::ManagedAppStatus>& statuses) {
  refreshing_ = false;
  if (failure) {
    // With --follow, a daemon that cannot be reached is waited for; the timer asks again.
    if (reconnection_ && describeFailure(failure, socketPath_).status == ExitStatus::unavailable) {
      reconnection_->lost();
      return;
    }
    failWith(failure);
    return;
  }
  if (reconnection_) reconnection_->back();
  std::vector<corvane::ManagedAppStatus> concerned;
  bool allSettled = true;
  for (const auto& identifier : targets_) {
    const auto status = std::find_if(
        statuses.begin(), statuses.end(),
        [&](const corvane::ManagedAppStatus& s) { return s.declarationIdentifier == identifier; });
    if (status == statuses.end()) {
      fail(describeFailure(std::make_exception_ptr(Problem(
                               ExitStatus::notInstalled, "notInstalled",
                               fmt::format("the declaration {} was removed while cvnctl waited "
                                           "for its install",
                                           identifier))),
                           socketPath_));
      return;
    }
    if (status->state == State::optional) {
      // Nothing installs it any more: someone cancelled the install, or it never started.
      fail(describeFailure(
          std::make_exception_ptr(
              Problem(ExitStatus::notInstalled, "notInstalled",
                      fmt::format("{} ({}) is optional again: its install was cancelled before it "
                                  "finished",
                                  status->bundleID, identifier))),
          socketPath_));
      return;
    }
    if (bundles_.insert(status->bundleID).second) {
      // Progress that arrived before the status named this bundle.
      if (const auto seen = lastProgress_.find(status->bundleID); seen != lastProgress_.end())
        output_.progress(seen->second);
    }
    allSettled = allSettled && isSettled(status->state);
    concerned.push_back(*status);
  }
  if (allSettled) {
    output_.settled(concerned);
    std::vector<std::string> failed;
    for (const auto& status : concerned) {
      if (status.state == State::failed)
        failed.push_back(fmt::format("{} ({}) failed: {}", status.bundleID,
                                     status.declarationIdentifier, joinReasons(status)));
    }
    if (failed.empty()) {
      loop_.finish(ExitStatus::success);
    } else {
      fail(describeFailure(
          std::make_exception_ptr(Problem(ExitStatus::failure, "installFailed",
                                          fmt::format("{}", fmt::join(failed, "; ")))),
          socketPath_));
    }
    return;
  }
  if (std::exchange(refreshAgain_, false)) refresh();
}

}  // namespace cvnctl
