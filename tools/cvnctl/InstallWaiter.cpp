#include "InstallWaiter.hpp"

#include "Failure.hpp"
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

bool isDone(const corvane::AppState& state) {
  return std::holds_alternative<corvane::AppState::Managed>(state.cases())
         || std::holds_alternative<corvane::AppState::Installed>(state.cases());
}

}  // namespace

bool InstallWaiter::isSettled(State state) noexcept {
  return state == State::managed || state == State::failed;
}

InstallWaiter::InstallWaiter(Output& output, std::filesystem::path socketPath)
    : output_(output),
      socketPath_(std::move(socketPath)),
      progress_([this] {
        // Watch the connection before anything is sent, so that no interruption goes unseen.
        loop_.watchDaemon([this] {
          output_.failure(daemonWentAway(socketPath_));
          loop_.finish(ExitStatus::failure);
        });
        return corvane::ManagedAppLibrary::shared().progressUpdates();
      }()),
      timer_(loop_.context()) {}

ExitStatus InstallWaiter::wait(std::set<std::string> declarationIdentifiers) {
  targets_ = std::move(declarationIdentifiers);
  if (targets_.empty()) return ExitStatus::success;
  StreamFollower<corvane::AsyncStream<corvane::AppProgress>, corvane::AppProgress> follower(
      loop_, progress_, [this](corvane::AppProgress progress) { onProgress(std::move(progress)); },
      [this] {
        output_.failure(daemonWentAway(socketPath_));
        loop_.finish(ExitStatus::failure);
      });
  loop_.onFinish([this] { timer_.cancel(); });
  follower.start();
  refresh();
  armTimer();
  return loop_.run();
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
  const bool done = isDone(progress.state);
  if (bundles_.contains(progress.bundleID)) output_.progress(progress);
  lastProgress_.insert_or_assign(progress.bundleID, std::move(progress));
  if (done) refresh();
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
    const auto described = describeFailure(failure, socketPath_);
    output_.failure(described);
    loop_.finish(described.status);
    return;
  }
  std::vector<corvane::ManagedAppStatus> concerned;
  bool allSettled = true;
  for (const auto& identifier : targets_) {
    const auto status = std::find_if(
        statuses.begin(), statuses.end(),
        [&](const corvane::ManagedAppStatus& s) { return s.declarationIdentifier == identifier; });
    if (status == statuses.end()) {
      output_.failure(describeFailure(
          std::make_exception_ptr(corvane::Error(
              corvane::CorvaneError::unrecoverableError,
              fmt::format("the declaration \"{}\" is no longer declared", identifier))),
          socketPath_));
      loop_.finish(ExitStatus::failure);
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
    const bool allManaged =
        std::all_of(concerned.begin(), concerned.end(),
                    [](const corvane::ManagedAppStatus& s) { return s.state == State::managed; });
    for (const auto& status : concerned) {
      if (status.state == State::failed)
        output_.note(
            fmt::format("cvnctl: {} ({}) failed", status.bundleID, status.declarationIdentifier));
    }
    loop_.finish(allManaged ? ExitStatus::success : ExitStatus::failure);
    return;
  }
  if (std::exchange(refreshAgain_, false)) refresh();
}

}  // namespace cvnctl
