#pragma once

// Helpers for talking to the daemon through the library: calls bounded by the command's time and
// ended by SIGINT/SIGTERM through the library's cancellation, the daemon's socket path, and a
// check that it answers at all.

#include "Inbox.hpp"
#include "Interrupts.hpp"
#include "Options.hpp"
#include "Problems.hpp"

#include <corvane/coding/CorvaneError.hpp>
#include <corvane/ipc/ConnectionError.hpp>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fmt/format.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <type_traits>

namespace cvnctl {

/// "15 s", "0.5 s".
[[nodiscard]] std::string describeDuration(std::chrono::milliseconds duration);

/// How long the next answer may take: what is left of --timeout, else the default bound.
[[nodiscard]] std::chrono::milliseconds answerTime(const Options& options);
/// --timeout as given, else the default bound: for messages.
[[nodiscard]] std::chrono::milliseconds timeLimit(const Options& options);

/// How an operation run by `runBounded` ended when it did not complete by itself.
struct BoundedRun {
  bool expired = false;       ///< the bound passed and the operation was cancelled
  std::optional<int> signal;  ///< SIGINT or SIGTERM arrived and the operation was cancelled
};

/// Runs one asynchronous operation to its end on the calling thread. `start(wrap)` starts it with
/// `wrap(handler)` as its completion token: the handler runs here, and the operation is
/// cancelled through its cancellation slot when `bound` passes or a signal arrives (it then
/// completes with its cancellation error, and the result says why).
template <class Start>
BoundedRun runBounded(Start&& start, std::chrono::milliseconds bound) {
  boost::asio::io_context context;
  boost::asio::cancellation_signal cancellation;
  BoundedRun run;
  bool done = false;
  boost::asio::steady_timer timer(context, bound);
  timer.async_wait([&](const boost::system::error_code& error) {
    if (error || done) return;
    run.expired = true;
    cancellation.emit(boost::asio::cancellation_type::terminal);
  });
  const Inbox inbox(context.get_executor());
  {
    const Interrupts::Diversion diversion([&, inbox](int signal) {
      inbox.post([&, signal] {
        if (done) return;
        run.signal = signal;
        cancellation.emit(boost::asio::cancellation_type::terminal);
      });
    });
    std::forward<Start>(start)([&](auto handler) {
      return boost::asio::bind_cancellation_slot(
          cancellation.slot(),
          boost::asio::bind_executor(
              context, [&done, &timer, handler = std::move(handler)](auto&&... outcome) mutable {
                done = true;
                timer.cancel();
                handler(std::forward<decltype(outcome)>(outcome)...);
              }));
    });
    context.run();
    inbox.close();
  }
  return run;
}

/// The failure of a call that did not answer in time.
[[nodiscard]] corvane::Error noAnswer(const Options& options);

/// The outcome of a library call, started by `start(token)`, waited for at most
/// `answerTime(options)`. Rethrows the call's failure; a call that takes too long, or is
/// interrupted by a signal, is cancelled and fails with status 5, or 130/143.
template <class T, class Start>
T awaitCall(Start&& start, const Options& options) {
  std::exception_ptr failure;
  // A call without a value (`void`) completes with the failure alone.
  using Stored = std::conditional_t<std::is_void_v<T>, bool, T>;
  std::optional<Stored> value;
  const auto run = runBounded(
      [&](auto wrap) {
        std::forward<Start>(start)(
            wrap([&](std::exception_ptr error, [[maybe_unused]] auto&&... answer) {
              failure = std::move(error);
              if constexpr (std::is_void_v<T>) {
                value.emplace(true);
              } else {
                value.emplace(std::forward<decltype(answer)>(answer)...);
              }
            }));
      },
      answerTime(options));
  if (run.signal) {
    throw interrupted(*run.signal,
                      fmt::format("interrupted by {} before corvaned answered (the request may "
                                  "still be carried out)",
                                  signalName(*run.signal)));
  }
  if (run.expired) throw noAnswer(options);
  if (failure) std::rethrow_exception(failure);
  if constexpr (!std::is_void_v<T>) return std::move(*value);
}

/// The first value of a library stream (`next` completing with an error code and an optional),
/// waited for at most `answerTime(options)`, or empty when the stream ended first. `what` names
/// the value in the timeout's message ("no catalogue").
template <class T, class Stream>
std::optional<T> awaitFirst(Stream& stream, const Options& options, std::string_view what) {
  std::optional<T> value;
  const auto run = runBounded(
      [&](auto wrap) {
        stream.next(wrap(
            [&](boost::system::error_code, std::optional<T> first) { value = std::move(first); }));
      },
      answerTime(options));
  if (run.signal) {
    throw interrupted(*run.signal, fmt::format("interrupted by {} while waiting for {}",
                                               signalName(*run.signal), what));
  }
  if (run.expired) {
    throw timedOut(
        fmt::format("corvaned sent {} within {}", what, describeDuration(timeLimit(options))));
  }
  return value;
}

/// The daemon's socket: <runtime directory>/dev.corvane.corvaneagent. Throws `UsageError` for a
/// runtime directory whose socket path cannot be used.
[[nodiscard]] std::filesystem::path daemonSocketPath();

/// Makes one cheap request so that a daemon that is not there, or refuses this caller, is
/// reported before a stream is opened (a stream would otherwise wait for ever). An error the
/// daemon answers with is not a reason to stop here and is ignored.
void checkDaemon(const Options& options);

}  // namespace cvnctl
