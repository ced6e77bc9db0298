#include "Catalog.hpp"
#include "Commands.hpp"
#include "DaemonCalls.hpp"
#include "EventLoop.hpp"
#include "Problems.hpp"
#include "Reconnection.hpp"
#include "StreamFollower.hpp"

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <fmt/format.h>

#include <variant>

namespace cvnctl {
namespace {

/// A catalogue entry standing for `bundleID` alone, to follow the state of an app that need not
/// be in the catalogue (the state registration names only the bundle identifier).
corvane::ManagedApp appWithBundleID(const std::string& bundleID) {
  return corvane::ManagedApp({}, bundleID, std::nullopt, std::nullopt, corvane::Platform{},
                             std::nullopt, std::nullopt, {}, std::nullopt, std::nullopt, {},
                             std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt,
                             std::nullopt, std::nullopt, std::nullopt, {}, std::nullopt,
                             std::nullopt, std::nullopt, false, std::nullopt, std::nullopt);
}

/// How long `state` waits for a state still on its way once the daemon has answered a later
/// call: the daemon sends the current state of an app it knows before that answer.
constexpr std::chrono::milliseconds stateGrace{500};

/// Follows `stream` on a loop until Ctrl-C (success), SIGTERM (143) or until the daemon goes
/// away (4); with --follow, a daemon that goes away is waited for instead (see `Reconnection`), and
/// --timeout bounds each such wait (5).
template <class Stream, class Value>
ExitStatus follow(EventLoop& loop, const Options& options, std::function<void()>& onLost,
                  Stream& stream, Output& output, std::function<void(Value)> onValue) {
  const auto socketPath = daemonSocketPath();
  auto end = [&](const Failure& failure) {
    output.failure(failure);
    loop.finish(failure.status);
  };
  std::optional<Reconnection> reconnection;
  if (options.follow) reconnection.emplace(loop, output, socketPath, options.timeout, end);
  if (reconnection) onLost = [&] { reconnection->lost(); };
  StreamFollower<Stream, Value> follower(
      loop, stream,
      [&](Value value) {
        // The daemon gave the registration back: its first value is the news that it is back.
        if (reconnection) reconnection->back();
        onValue(std::move(value));
      },
      [&] { end(daemonWentAway(socketPath)); });
  follower.start();
  const auto status = loop.run();
  if (const auto signal = loop.signal())
    throw interrupted(*signal, fmt::format("the watch ended by {}", signalName(*signal)));
  return status;
}

/// Starts a loop that calls `onLost` when the daemon goes away, set here to report it and end
/// (`follow` may change it), and checks that the daemon is there.
void prepare(EventLoop& loop, const Options& options, Output& output,
             std::function<void()>& onLost) {
  onLost = [&loop, &output, socketPath = daemonSocketPath()] {
    output.failure(daemonWentAway(socketPath));
    loop.finish(ExitStatus::unavailable);
  };
  // The same observation throughout, so that no loss goes unseen while `follow` takes over.
  loop.watchDaemon([&onLost] { onLost(); });
  loop.followTerminalSize([&output] { output.resized(); });
  checkDaemon(options);
}

}  // namespace

Problem unknownBundle(const std::string& bundleID) {
  return notFound(fmt::format("corvaned knows no app with the bundle identifier \"{}\"", bundleID));
}

namespace {

/// The first state of `states`, the state stream of `bundleID` just opened. Throws a not-found
/// `Problem` at once when the daemon knows no such app.
corvane::AppState firstState(corvane::AsyncStream<corvane::AppState>& states,
                             const std::string& bundleID, const Options& options) {
  // A daemon that knows the app answers the registration with its state before it answers a
  // later call; one that does not sends nothing, so the call's answer settles it.
  (void)awaitCall<std::vector<std::string>>(
      [](auto token) { corvane::DDMDeclarationKeysRequest{}.perform(std::move(token)); }, options);
  Options grace = options;
  grace.deadline = std::chrono::steady_clock::now() + std::min(stateGrace, answerTime(options));
  std::optional<corvane::AppState> state;
  try {
    state = awaitFirst<corvane::AppState>(states, grace, "no state");
  } catch (const Problem& problem) {
    if (problem.status() != ExitStatus::timedOut) throw;
    throw unknownBundle(bundleID);
  }
  if (!state) {
    throw corvane::Error(corvane::CorvaneError::unrecoverableError,
                         "the state stream ended before a state arrived");
  }
  return std::move(*state);
}

}  // namespace

corvane::AppState currentState(const std::string& bundleID, const Options& options) {
  // No stream is opened towards a daemon that is not there.
  checkDaemon(options);
  auto states = appWithBundleID(bundleID).stateUpdates();
  return firstState(states, bundleID, options);
}

ExitStatus runCatalog(const Options& options, Output& output) {
  if (!options.watch) {
    output.catalog(currentCatalog(options));
    return ExitStatus::success;
  }
  EventLoop loop(true);
  std::function<void()> onLost;
  prepare(loop, options, output, onLost);
  auto apps = corvane::ManagedAppLibrary::shared().managedApps();
  return follow<corvane::ManagedAppLibrary::ManagedApps, corvane::CatalogResult>(
      loop, options, onLost, apps, output, [&output](corvane::CatalogResult result) {
        if (auto* list = std::get_if<std::vector<corvane::ManagedApp>>(&result)) {
          output.catalog(*list);
        } else {
          // A catalogue the daemon could not make; the next one may succeed.
          output.failedResult(describeFailure(
              std::make_exception_ptr(corvane::Error(std::get<corvane::CorvaneError>(result))),
              daemonSocketPath()));
        }
      });
}

ExitStatus runProgress(const Options& options, Output& output) {
  EventLoop loop(true);
  std::function<void()> onLost;
  prepare(loop, options, output, onLost);
  auto progress = corvane::ManagedAppLibrary::shared().progressUpdates();
  return follow<corvane::AsyncStream<corvane::AppProgress>, corvane::AppProgress>(
      loop, options, onLost, progress, output,
      [&output](const corvane::AppProgress& value) { output.progress(value); });
}

ExitStatus runState(const Options& options, Output& output) {
  const auto app = appWithBundleID(options.bundleID);
  if (!options.watch) {
    output.state(options.bundleID, currentState(options.bundleID, options), false);
    return ExitStatus::success;
  }
  EventLoop loop(true);
  std::function<void()> onLost;
  prepare(loop, options, output, onLost);
  auto states = app.stateUpdates();
  // An unknown app fails here, as the one-shot does, rather than being watched for ever.
  output.state(options.bundleID, firstState(states, options.bundleID, options), true);
  return follow<corvane::AsyncStream<corvane::AppState>, corvane::AppState>(
      loop, options, onLost, states, output, [&output, &options](const corvane::AppState& state) {
        output.state(options.bundleID, state, true);
      });
}

}  // namespace cvnctl
