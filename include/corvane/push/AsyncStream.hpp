#pragma once

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/system_executor.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace corvane {

template <class T>
class AsyncStream;

namespace push::detail {
template <class T>
class StreamState;  // the state both ends share, in <corvane/push/detail/StreamState.hpp>
}  // namespace push::detail

/// How much of what a producer yields a stream keeps while its consumer is not waiting. A waiting
/// consumer always gets the next value handed over, whatever the policy (even a limit of 0).
class BufferingPolicy {
 public:
  enum class Kind { unbounded, bufferingNewest, bufferingOldest };

  /// Keeps every value until it is taken.
  [[nodiscard]] static constexpr BufferingPolicy unbounded() noexcept {
    return {Kind::unbounded, 0};
  }
  /// Keeps the newest `limit` values not yet taken: a value yielded into a full buffer is enqueued
  /// and pushes the oldest buffered one out.
  [[nodiscard]] static constexpr BufferingPolicy bufferingNewest(std::size_t limit) noexcept {
    return {Kind::bufferingNewest, limit};
  }
  /// Keeps the oldest `limit` values not yet taken: a value yielded into a full buffer is dropped.
  [[nodiscard]] static constexpr BufferingPolicy bufferingOldest(std::size_t limit) noexcept {
    return {Kind::bufferingOldest, limit};
  }

  [[nodiscard]] constexpr Kind kind() const noexcept { return kind_; }
  /// The most values kept; 0 for `unbounded`.
  [[nodiscard]] constexpr std::size_t limit() const noexcept { return limit_; }

  friend constexpr bool operator==(BufferingPolicy, BufferingPolicy) noexcept = default;

 private:
  constexpr BufferingPolicy(Kind kind, std::size_t limit) noexcept : kind_(kind), limit_(limit) {}

  Kind kind_;
  std::size_t limit_;
};

/// What became of one yielded value.
enum class YieldStatus {
  enqueued,   ///< handed to the waiting consumer or kept in the buffer
  dropped,    ///< the buffer was full (or has no room at all) and let it go
  terminated  ///< the stream has ended (finished or cancelled): nobody will ever take it
};

/// A single-consumer stream of values that one or more producers push into.
///
/// `make` returns both ends: the `AsyncStream` (the consuming end, move-only) and its
/// `Continuation` (the producing end, a copyable handle):
///
///     auto [stream, continuation] = AsyncStream<int>::make(BufferingPolicy::bufferingNewest(8));
///     continuation.onTermination([&hub, id] { hub.remove(id); });
///     continuation.yield(1);
///     continuation.finish();
///     for (int value : stream) use(value);                      // blocking
///     stream.next([](boost::system::error_code, std::optional<int> value) { ... });  // or any
///                                                               // Asio completion token
///
/// Ending. The stream ends, once, at the first of: the producer's `finish()`, the consumer's
/// `cancel()`, the destruction of the consuming end (or a move assignment onto it). Ending runs the
/// termination handler exactly once, on the thread that ended the stream, with no lock held; from
/// then on every `yield` reports `terminated`. After `finish()` the consumer still takes what is
/// buffered, then gets an empty optional; after a cancellation the buffer is discarded and the
/// consumer gets an empty optional at once. Dropping every `Continuation` does not end the stream:
/// a consumer then waits until it cancels.
///
/// Threads. Both ends may be used from any thread, and every member of either may run concurrently
/// with any other, except that moving, assigning, destroying and iterating the consuming end need
/// it to be otherwise unused (iteration keeps its current value in the object). A consumer's
/// handler never runs inside `yield`, `finish`, `cancel` or the destructor: it is always posted to
/// its executor.
///
/// Locking. Each stream has one short internal lock, held only to move list nodes and flags: no
/// handler, termination handler, or constructor, assignment or destructor of `T` runs under it.
/// So `yield` and `finish` may be called while holding a lock of one's own (a hub's lock), even one
/// that the consumer's handler takes. The termination handler runs on the ending thread, though:
/// if that thread holds a lock the handler takes, it deadlocks; end the stream outside such a lock.
///
/// `T` must be move-constructible. Values are moved, never copied.
template <class T>
class AsyncStream {
  static_assert(std::is_object_v<T> && !std::is_const_v<T> && std::is_move_constructible_v<T>,
                "AsyncStream<T> needs a non-const, move-constructible object type");
  using State = push::detail::StreamState<T>;

 public:
  using value_type = T;
  class Continuation;
  class Iterator;
  struct Pair;

  /// What `Continuation::yield` did with a value.
  struct YieldResult {
    YieldStatus status;
    /// The value the stream let go: for `dropped` and `terminated`, the yielded value itself; for
    /// `enqueued` into a full `bufferingNewest` buffer, the oldest buffered value that made room;
    /// otherwise empty.
    std::optional<T> discarded;

    friend bool operator==(const YieldResult&, const YieldResult&) = default;
  };

  /// Hands a completion to the executor that runs the handlers without one of their own.
  using Fallback = std::function<void(std::move_only_function<void()>)>;

  /// A new stream and its producing end. `fallback` runs the handlers of `next` that have no
  /// associated executor of their own (empty: Asio's system executor, its thread pool; the
  /// library's own streams give the connection's delivery executor). Throws `std::bad_alloc` only.
  [[nodiscard]] static Pair make(BufferingPolicy policy = BufferingPolicy::unbounded(),
                                 Fallback fallback = {});

  /// Moves the consuming end. The source is left empty (its `next` completes at once with an empty
  /// optional, its `cancel` does nothing) and its iterators become invalid.
  AsyncStream(AsyncStream&& other) noexcept : state_(std::move(other.state_)) {}
  /// Ends the stream this object held, as the destructor does, and takes over `other`'s.
  AsyncStream& operator=(AsyncStream&& other) noexcept {
    if (this != &other) {
      auto previous = std::exchange(state_, std::move(other.state_));
      current_.reset();
      if (previous) previous->cancel();
    }
    return *this;
  }
  AsyncStream(const AsyncStream&) = delete;
  AsyncStream& operator=(const AsyncStream&) = delete;
  /// Ends the stream as `cancel()` does: the termination handler, if it has not run yet, runs on
  /// the destroying thread. A pending `next` completes with an empty optional. The handlers must
  /// not throw here (the program terminates).
  ~AsyncStream() {
    if (state_) state_->cancel();
  }

  /// The completion signature of `next`.
  using NextSignature = void(boost::system::error_code, std::optional<T>);

  /// Waits for the next value, delivered through any Asio completion token (a callback,
  /// `use_future`, `use_awaitable`, `deferred`, ...).
  ///
  /// Handler: `void(boost::system::error_code error, std::optional<T> value)`. Without error:
  /// the next value, or an empty optional once the stream has finished and its buffer is drained,
  /// or was cancelled (the end of the stream). With an error, `value` is empty and nothing was
  /// taken from the stream:
  /// - `boost::asio::error::operation_aborted`: this wait was cancelled through the handler's
  ///   cancellation slot;
  /// - `boost::asio::error::already_started`: another `next` (this one or the blocking one) was
  ///   pending; that one is left alone (a usage error, distinct from the end of the stream).
  /// With `use_awaitable` or `use_future` an error is thrown as `boost::system::system_error`.
  ///
  /// Executor: the handler runs through its associated executor (a coroutine resumes on its
  /// own); a handler without one runs on the stream's executor (see `make`). It is always posted:
  /// never run inside `next`, nor inside the producer's `yield`/`finish` or the consumer's
  /// `cancel`. While the operation is pending it counts as outstanding work on that executor.
  ///
  /// Lifetime: the operation keeps the stream's shared state alive, so it may outlive this object
  /// (it then completes with the end of the stream); nothing else is copied.
  ///
  /// Cancellation: terminal, partial and total, through the handler's associated cancellation
  /// slot (`bind_cancellation_slot`, a coroutine's `||`, a timer-driven signal). The wait ends
  /// with `operation_aborted` and takes nothing: a value yielded afterwards goes to the next
  /// `next`. Emit the cancellation on the handler's executor. `cancel()` instead ends the stream.
  ///
  /// Throws `std::bad_alloc` only, from the initiation.
  template <boost::asio::completion_token_for<NextSignature> CompletionToken>
  auto next(CompletionToken&& token) {
    return boost::asio::async_initiate<CompletionToken, NextSignature>(
        [](auto handler, const std::shared_ptr<State>& state) {
          State::start(state, std::move(handler));
        },
        token, state_);
  }

  /// Blocks the calling thread until the next value is there (or the stream has ended and its
  /// buffer is drained: empty optional). Must not be called on a thread the producer needs in
  /// order to yield. Throws `boost::system::system_error` (`already_started`) while another `next`
  /// is pending, and what moving a `T` throws.
  [[nodiscard]] std::optional<T> next() {
    return state_ ? state_->wait(std::nullopt) : std::nullopt;
  }
  /// The same, waiting `timeout` at most: past it throws `boost::system::system_error`
  /// (`boost::asio::error::timed_out`), and nothing was taken from the stream.
  [[nodiscard]] std::optional<T> next(std::chrono::steady_clock::duration timeout) {
    return state_ ? state_->wait(std::chrono::steady_clock::now() + timeout) : std::nullopt;
  }

  /// Blocking iteration: each step waits as `next()` does; the range ends when `next()` gives an
  /// empty optional. A single-pass input range: calling `begin()` again continues where the last
  /// iteration stopped. The current value lives in this object (valid until the next step).
  [[nodiscard]] Iterator begin() {
    current_ = next();
    return Iterator(current_ ? this : nullptr);
  }
  [[nodiscard]] std::default_sentinel_t end() const noexcept { return {}; }

  /// Ends the stream from the consuming side: the buffered values are discarded, a pending `next`
  /// completes with an empty optional (posted), and the termination handler, if it has not run
  /// yet, runs on the calling thread before this returns. Later calls do nothing more. Throws what
  /// the termination handler throws, or `std::bad_alloc` from posting the pending completion.
  void cancel() {
    if (state_) state_->cancel();
  }

 private:
  explicit AsyncStream(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
  std::optional<T> current_;  // the iteration slot
};

/// The producing end: a cheap, copyable handle to the stream's shared state. Every member may be
/// called from any thread, on the same object too; none runs a consumer's handler inline. A
/// moved-from handle acts on an ended stream.
template <class T>
class AsyncStream<T>::Continuation {
 public:
  /// Hands `value` to the waiting consumer (posting its handler) or buffers it as the policy says.
  /// Throws `std::bad_alloc`, what moving a `T` throws, or what the waiting handler's executor
  /// throws when posting to it; the value is lost then.
  YieldResult yield(T value) const {
    if (!state_) return {YieldStatus::terminated, std::optional<T>(std::move(value))};
    return state_->yield(std::move(value));
  }

  /// Ends the stream from the producing side: the consumer takes what is buffered, then gets an
  /// empty optional. If the stream had not ended yet, the termination handler runs on the calling
  /// thread before this returns; otherwise nothing happens. Throws what the termination handler
  /// throws, or `std::bad_alloc` from posting the pending completion.
  void finish() const {
    if (state_) state_->finish();
  }

  /// Sets the handler to run when the stream ends, replacing (and destroying, unrun) any earlier
  /// one. If the stream has already ended, `handler` runs at once on the calling thread instead.
  /// The handler must not throw when the stream ends by destruction or move assignment. Lifetime:
  /// the stream keeps the handler until it ends, then releases it after it ran, so a handler may
  /// capture a `Continuation` without leaking.
  void onTermination(std::function<void()> handler) const {
    if (!state_) {
      if (handler) handler();
      return;
    }
    state_->setTerminationHandler(std::move(handler));
  }

  /// Whether the stream has ended; once true, it stays true.
  [[nodiscard]] bool isTerminated() const { return !state_ || state_->isTerminated(); }

 private:
  friend class AsyncStream;
  explicit Continuation(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

/// The two ends of a new stream; use with structured bindings: `auto [stream, continuation]`.
template <class T>
struct AsyncStream<T>::Pair {
  AsyncStream stream;
  Continuation continuation;
};

/// The blocking input iterator of `AsyncStream`; compare it with `std::default_sentinel`.
template <class T>
class AsyncStream<T>::Iterator {
 public:
  using iterator_concept = std::input_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = T;
  using difference_type = std::ptrdiff_t;
  using reference = T&;

  Iterator() = default;

  [[nodiscard]] T& operator*() const { return *stream_->current_; }
  [[nodiscard]] T* operator->() const { return std::addressof(*stream_->current_); }
  /// Waits for the next value as `AsyncStream::next()` does.
  Iterator& operator++() {
    stream_->current_ = stream_->next();
    if (!stream_->current_) stream_ = nullptr;
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) noexcept {
    return iterator.stream_ == nullptr;
  }

 private:
  friend class AsyncStream;
  explicit Iterator(AsyncStream* stream) noexcept : stream_(stream) {}

  AsyncStream* stream_ = nullptr;
};

template <class T>
auto AsyncStream<T>::make(BufferingPolicy policy, Fallback fallback) -> Pair {
  auto state = std::make_shared<State>(policy, std::move(fallback));
  return Pair{AsyncStream(state), Continuation(std::move(state))};
}

}  // namespace corvane

// The shared state's definition, needed wherever the ends' members are instantiated.
#include <corvane/push/detail/StreamState.hpp>  // IWYU pragma: export
