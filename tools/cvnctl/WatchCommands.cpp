#include "Catalog.hpp"
#include "Commands.hpp"
#include "DaemonCalls.hpp"
#include "EventLoop.hpp"
#include "StreamFollower.hpp"

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
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

/// Follows `stream` on a loop until Ctrl-C (success) or until the daemon goes away (failure).
template <class Stream, class Value>
ExitStatus follow(EventLoop& loop, Stream& stream, Output& output,
                  std::function<void(Value)> onValue) {
  const auto socketPath = daemonSocketPath();
  StreamFollower<Stream, Value> follower(loop, stream, std::move(onValue), [&] {
    output.failure(daemonWentAway(socketPath));
    loop.finish(ExitStatus::failure);
  });
  follower.start();
  return loop.run();
}

/// Starts a loop that reports the daemon going away, and checks that the daemon is there.
void prepare(EventLoop& loop, const Options& options, Output& output) {
  loop.watchDaemon([&loop, &output, socketPath = daemonSocketPath()] {
    output.failure(daemonWentAway(socketPath));
    loop.finish(ExitStatus::failure);
  });
  checkDaemon(options.timeout);
}

}  // namespace

ExitStatus runCatalog(const Options& options, Output& output) {
  if (!options.watch) {
    output.catalog(currentCatalog(options.timeout));
    return ExitStatus::success;
  }
  EventLoop loop;
  prepare(loop, options, output);
  auto apps = corvane::ManagedAppLibrary::shared().managedApps();
  return follow<corvane::ManagedAppLibrary::ManagedApps, corvane::CatalogResult>(
      loop, apps, output, [&output](corvane::CatalogResult result) {
        if (auto* list = std::get_if<std::vector<corvane::ManagedApp>>(&result)) {
          output.catalog(*list);
        } else {
          // A catalogue the daemon could not make; the next one may succeed.
          output.failure(describeFailure(
              std::make_exception_ptr(corvane::Error(std::get<corvane::CorvaneError>(result))),
              daemonSocketPath()));
        }
      });
}

ExitStatus runProgress(const Options& options, Output& output) {
  EventLoop loop;
  prepare(loop, options, output);
  auto progress = corvane::ManagedAppLibrary::shared().progressUpdates();
  return follow<corvane::AsyncStream<corvane::AppProgress>, corvane::AppProgress>(
      loop, progress, output,
      [&output](const corvane::AppProgress& value) { output.progress(value); });
}

ExitStatus runState(const Options& options, Output& output) {
  const auto app = appWithBundleID(options.bundleID);
  if (!options.watch) {
    checkDaemon(options.timeout);
    auto states = app.stateUpdates();
    auto first = states.next(boost::asio::use_future);
    if (first.wait_for(options.timeout) != std::future_status::ready) {
      states.cancel();
      throw corvane::Error(corvane::CorvaneError::unrecoverableError,
                           fmt::format("corvaned reported no state of {} within {}",
                                       options.bundleID, describeDuration(options.timeout)));
    }
    const auto state = first.get();
    if (!state) {
      throw corvane::Error(corvane::CorvaneError::unrecoverableError,
                           "the state stream ended before a state arrived");
    }
    output.state(options.bundleID, *state, false);
    return ExitStatus::success;
  }
  EventLoop loop;
  prepare(loop, options, output);
  auto states = app.stateUpdates();
  return follow<corvane::AsyncStream<corvane::AppState>, corvane::AppState>(
      loop, states, output, [&output, &options](const corvane::AppState& state) {
        output.state(options.bundleID, state, true);
      });
}

}  // namespace cvnctl
