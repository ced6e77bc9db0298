#pragma once

// The streams that callers observe pushed values through: the catalogue, global progress and the
// state of one app. Each creates a stream, wraps its producing end in a listener, adds the
// listener to the process's `TetherClient`, and removes it when the consumer ends the stream
// (destroying or cancelling it). Values are produced on the connection's delivery executor (a
// cached one on the thread that opens the stream); a consumer's completion runs through its own
// associated executor (see `AsyncStream::next`). Ending a stream takes the hub's lock on the
// ending thread and, for the last listener of a kind, withdraws the registration with a
// synchronous call while holding it.

#include <corvane/model/ManagedApp.hpp>
#include <corvane/push/AsyncStream.hpp>
#include <corvane/push/TetherClient.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <chrono>
#include <memory>
#include <optional>

namespace corvane {

/// The catalogue stream: holds at most one undelivered result, the newest.
[[nodiscard]] AsyncStream<CatalogResult> catalogStream();
/// The global progress stream: every value kept.
[[nodiscard]] AsyncStream<AppProgress> progressStream();
/// The state stream of `app`: every value kept.
[[nodiscard]] AsyncStream<AppState> stateStream(const ManagedApp& app);

/// An asynchronous sequence of catalogue results (a list of apps, or the error that kept the
/// daemon from making it). Move-only; destroying it ends the stream.
class ManagedAppLibrary::ManagedApps {
 public:
  /// Continues one iterator of the stream; every iterator made from the same sequence continues
  /// where the previous call stopped.
  class AsyncIterator {
   public:
    /// The next result, or an empty optional once the stream has ended. A failed catalogue is a
    /// result, not an error. Completion, executor, lifetime and cancellation as for
    /// `AsyncStream::next`: `void(boost::system::error_code, std::optional<CatalogResult>)`, whose
    /// error is only ever a cancellation of this wait or a second wait started while one is
    /// pending.
    template <boost::asio::completion_token_for<AsyncStream<CatalogResult>::NextSignature>
                  CompletionToken>
    auto next(CompletionToken&& token) {
      return stream_->next(std::forward<CompletionToken>(token));
    }
    /// The same, blocking the calling thread (see `AsyncStream::next()`).
    std::optional<CatalogResult> next() { return stream_->next(); }
    /// The same, waiting `timeout` at most (see `AsyncStream::next(timeout)`).
    std::optional<CatalogResult> next(std::chrono::steady_clock::duration timeout) {
      return stream_->next(timeout);
    }

   private:
    friend class ManagedApps;
    explicit AsyncIterator(std::shared_ptr<AsyncStream<CatalogResult>> stream) noexcept
        : stream_(std::move(stream)) {}
    std::shared_ptr<AsyncStream<CatalogResult>> stream_;
  };

  explicit ManagedApps(AsyncStream<CatalogResult> stream)
      : stream_(std::make_shared<AsyncStream<CatalogResult>>(std::move(stream))) {}

  [[nodiscard]] AsyncIterator makeAsyncIterator() const { return AsyncIterator(stream_); }
  /// Shorthands for `makeAsyncIterator().next(...)`.
  template <
      boost::asio::completion_token_for<AsyncStream<CatalogResult>::NextSignature> CompletionToken>
  auto next(CompletionToken&& token) {
    return stream_->next(std::forward<CompletionToken>(token));
  }
  std::optional<CatalogResult> next() { return stream_->next(); }
  std::optional<CatalogResult> next(std::chrono::steady_clock::duration timeout) {
    return stream_->next(timeout);
  }
  /// Blocking iteration over the results.
  auto begin() { return stream_->begin(); }
  auto end() const noexcept { return stream_->end(); }
  /// Ends the stream now (its listener leaves the hub).
  void cancel() { stream_->cancel(); }

 private:
  std::shared_ptr<AsyncStream<CatalogResult>> stream_;
};

}  // namespace corvane
