#pragma once

// The state behind `AsyncStream<T>`: its buffer, its pending wait and its termination, under one
// mutex. Not for use on its own; `AsyncStream` and its `Continuation` are the interface.

#include <corvane/push/AsyncStream.hpp>

namespace corvane::push::detail {

/// The state the two ends of an `AsyncStream<T>` share. Values travel in single-element list
/// nodes made and emptied outside the lock, so only node splicing and flag changes happen under it.
template <class T>
class StreamState {
 public:
  using YieldResult = typename AsyncStream<T>::YieldResult;
  using Fallback = typename AsyncStream<T>::Fallback;

  StreamState(BufferingPolicy policy, Fallback fallback) noexcept
      : policy_(policy), fallback_(std::move(fallback)) {}

  /// Starts a `next` for `handler` on `state` (empty: a moved-from stream, which is ended).
  template <class Handler>
  static void start(const std::shared_ptr<StreamState>& state, Handler handler) {
    auto pending = std::make_unique<PendingFor<Handler>>(
        std::move(handler), state != nullptr ? state->fallback_ : Fallback());
    std::list<T> taken;
    boost::system::error_code error;
    if (state != nullptr) {
      const std::lock_guard lock(state->mutex_);
      if (!state->buffer_.empty()) {
        taken.splice(taken.end(), state->buffer_, state->buffer_.begin());
      } else if (state->isWaited()) {
        error = boost::asio::error::already_started;
      } else if (!state->terminated_) {
        pending->watchCancellation(state, ++state->waits_);
        state->pending_ = std::move(pending);
        state->pendingWait_ = state->waits_;
        return;
      }
    }
    pending->complete(error, valueOf(taken));
  }

  std::optional<T> wait(std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::list<T> taken;
    {
      std::unique_lock lock(mutex_);
      if (!buffer_.empty()) {
        taken.splice(taken.end(), buffer_, buffer_.begin());
      } else if (isWaited()) {
        throw boost::system::system_error(boost::asio::error::already_started);
      } else if (!terminated_) {
        Blocked blocked;
        blocked_ = &blocked;
        // Whoever sets `done` also clears `blocked_`, under the lock.
        const auto handedOver = [&blocked] { return blocked.done; };
        if (!deadline) {
          handedOver_.wait(lock, handedOver);
        } else if (!handedOver_.wait_until(lock, *deadline, handedOver)) {
          blocked_ = nullptr;  // nothing was handed over: the stream keeps what comes next
          throw boost::system::system_error(boost::asio::error::timed_out);
        }
        taken.splice(taken.end(), blocked.value);
      }
    }
    return valueOf(taken);
  }

  YieldResult yield(T value) {
    std::list<T> incoming;
    incoming.push_back(std::move(value));
    std::list<T> evicted;
    std::unique_ptr<Pending> pending;
    bool wake = false;
    YieldStatus status = YieldStatus::enqueued;
    {
      const std::lock_guard lock(mutex_);
      if (terminated_) {
        status = YieldStatus::terminated;
      } else if (pending_) {
        pending = std::move(pending_);
      } else if (blocked_ != nullptr) {
        blocked_->value.splice(blocked_->value.end(), incoming);
        wake = release();
      } else if (policy_.kind() == BufferingPolicy::Kind::unbounded
                 || buffer_.size() < policy_.limit()) {
        buffer_.splice(buffer_.end(), incoming);
      } else if (policy_.kind() == BufferingPolicy::Kind::bufferingNewest && policy_.limit() > 0) {
        evicted.splice(evicted.end(), buffer_, buffer_.begin());
        buffer_.splice(buffer_.end(), incoming);
      } else {
        status = YieldStatus::dropped;
      }
    }
    if (wake) handedOver_.notify_all();
    if (pending) {
      pending->complete({}, valueOf(incoming));
      return {status, std::nullopt};
    }
    return {status, valueOf(status == YieldStatus::enqueued ? evicted : incoming)};
  }

  void finish() { end(false); }
  void cancel() { end(true); }

  void setTerminationHandler(std::function<void()> handler) {
    bool ended = false;
    {
      const std::lock_guard lock(mutex_);
      ended = terminated_;
      if (!ended) std::swap(onTermination_, handler);
    }
    // Either the replaced handler, destroyed here outside the lock, or the new one, run at once.
    if (ended && handler) handler();
  }

  bool isTerminated() {
    const std::lock_guard lock(mutex_);
    return terminated_;
  }

 private:
  /// A pending asynchronous `next`, its handler's type erased.
  class Pending {
   public:
    Pending() = default;
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    virtual ~Pending() = default;
    /// Posts the handler with `error` and `value` to its executor. Called once, with no lock held.
    virtual void complete(boost::system::error_code error, std::optional<T> value) = 0;
  };

  /// Ends the pending wait numbered `wait`, if it still is the pending one, with
  /// `operation_aborted`; the stream keeps its values.
  void abandon(std::uint64_t wait) {
    std::unique_ptr<Pending> pending;
    {
      const std::lock_guard lock(mutex_);
      if (pendingWait_ != wait || !pending_) return;
      pending = std::move(pending_);
    }
    pending->complete(boost::asio::error::operation_aborted, std::nullopt);
  }

  /// Stands for "no executor of its own" when asking for a handler's associated executor.
  struct NoExecutor {};

  template <class Handler>
  class PendingFor final : public Pending {
    static constexpr bool ownExecutor =
        !std::is_same_v<boost::asio::associated_executor_t<Handler, NoExecutor>, NoExecutor>;

   public:
    PendingFor(Handler handler, Fallback fallback)
        : handler_(std::move(handler)), work_(workFor(handler_)), fallback_(std::move(fallback)) {}

    /// Lets the handler's cancellation slot, if it has one, end wait number `wait`.
    void watchCancellation(const std::shared_ptr<StreamState>& state, std::uint64_t wait) {
      auto slot = boost::asio::get_associated_cancellation_slot(handler_);
      if (!slot.is_connected()) return;
      slot.template emplace<Canceller>(std::weak_ptr<StreamState>(state), wait);
    }

    void complete(boost::system::error_code error, std::optional<T> value) override {
      if constexpr (ownExecutor) {
        const auto executor = work_;
        boost::asio::post(executor, runner(error, std::move(value)));
      } else if (fallback_) {
        fallback_(runner(error, std::move(value)));
      } else {
        boost::asio::post(boost::asio::system_executor(), runner(error, std::move(value)));
      }
    }

   private:
    // The handler's own executor, counting the wait as work on it; nothing without one.
    static auto workFor(Handler& handler) {
      if constexpr (ownExecutor) {
        return boost::asio::prefer(boost::asio::get_associated_executor(handler),
                                   boost::asio::execution::outstanding_work.tracked);
      } else {
        return NoExecutor{};
      }
    }
    using Work = decltype(workFor(std::declval<Handler&>()));

    // Runs the handler; the work stays counted until it has.
    auto runner(boost::system::error_code error, std::optional<T> value) {
      return [handler = std::move(handler_), work = std::move(work_), error,
              value = std::move(value)]() mutable {
        auto slot = boost::asio::get_associated_cancellation_slot(handler);
        if (slot.is_connected()) slot.clear();
        std::move(handler)(error, std::move(value));
      };
    }

    Handler handler_;
    Work work_;
    Fallback fallback_;
  };

  /// What a pending wait leaves in its handler's cancellation slot: every kind of cancellation
  /// ends the wait, since a wait that ends takes nothing.
  struct Canceller {
    Canceller(std::weak_ptr<StreamState> stream, std::uint64_t number) noexcept
        : state(std::move(stream)), wait(number) {}
    void operator()(boost::asio::cancellation_type_t type) const {
      if (type == boost::asio::cancellation_type::none) return;
      if (const auto stream = state.lock()) stream->abandon(wait);
    }
    std::weak_ptr<StreamState> state;
    std::uint64_t wait;
  };

  /// A consumer blocked in `wait`, on its own stack.
  struct Blocked {
    std::list<T> value;
    bool done = false;
  };

  static std::optional<T> valueOf(std::list<T>& node) {
    if (node.empty()) return std::nullopt;
    return std::optional<T>(std::move(node.front()));
  }

  bool isWaited() const noexcept { return pending_ != nullptr || blocked_ != nullptr; }

  /// Lets the blocked consumer go; true if there was one. Under the lock.
  bool release() noexcept {
    if (blocked_ == nullptr) return false;
    blocked_->done = true;
    blocked_ = nullptr;
    return true;
  }

  void end(bool discard) {
    std::list<T> discarded;
    std::unique_ptr<Pending> pending;
    std::function<void()> handler;
    bool wake = false;
    {
      const std::lock_guard lock(mutex_);
      if (discard) discarded.splice(discarded.end(), buffer_);
      if (!terminated_) {
        terminated_ = true;
        handler = std::exchange(onTermination_, nullptr);
        // A waiting consumer implies an empty buffer: it is owed the end of the stream now.
        pending = std::move(pending_);
        wake = release();
      }
    }
    if (wake) handedOver_.notify_all();
    if (pending) pending->complete({}, std::nullopt);
    if (handler) handler();
  }

  std::mutex mutex_;
  std::condition_variable handedOver_;
  const BufferingPolicy policy_;
  const Fallback fallback_;  // runs the handlers without an executor of their own
  std::list<T> buffer_;
  std::unique_ptr<Pending> pending_;
  std::uint64_t waits_ = 0;        // asynchronous waits started, to number them
  std::uint64_t pendingWait_ = 0;  // the number of `pending_`
  Blocked* blocked_ = nullptr;
  bool terminated_ = false;
  std::function<void()> onTermination_;
};

}  // namespace corvane::push::detail
