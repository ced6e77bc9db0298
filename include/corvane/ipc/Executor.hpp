#pragma once

#include <boost/asio/execution/blocking.hpp>
#include <boost/asio/execution/context.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/execution/relationship.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/strand.hpp>

#include <functional>
#include <memory>
#include <utility>

namespace corvane::ipc {

namespace detail {
class Runtime;
}

/// An Asio executor over the worker threads of a `Connection` or a `Listener`.
///
/// `execute` runs a function on one of the workers: at once, on the calling thread, when the
/// caller is one of those workers and the executor may block (`blocking.possibly`, the
/// default); otherwise soon, after the caller's current work (`blocking.never`, which
/// `asio::post` asks for). Once the connection or listener is destroyed, functions run on the
/// thread that submits them, so that work owed to a caller still runs exactly once.
/// Copies are cheap and keep the threads' context alive, not the threads.
class Executor {
 public:
  explicit Executor(std::shared_ptr<detail::Runtime> runtime, bool neverBlocks = false) noexcept
      : runtime_(std::move(runtime)), neverBlocks_(neverBlocks) {}

  template <class Function>
  void execute(Function&& function) const {
    submit(std::move_only_function<void()>(std::forward<Function>(function)));
  }

  [[nodiscard]] boost::asio::execution_context& query(
      boost::asio::execution::context_t /*unused*/) const noexcept;
  [[nodiscard]] boost::asio::execution::blocking_t query(
      boost::asio::execution::blocking_t /*unused*/) const noexcept {
    return neverBlocks_
               ? boost::asio::execution::blocking_t(boost::asio::execution::blocking.never)
               : boost::asio::execution::blocking_t(boost::asio::execution::blocking.possibly);
  }
  /// The workers run until their owner is destroyed, whatever work is outstanding.
  [[nodiscard]] static constexpr boost::asio::execution::outstanding_work_t query(
      boost::asio::execution::outstanding_work_t /*unused*/) noexcept {
    return boost::asio::execution::outstanding_work.tracked;
  }
  [[nodiscard]] static constexpr boost::asio::execution::relationship_t query(
      boost::asio::execution::relationship_t /*unused*/) noexcept {
    return boost::asio::execution::relationship.fork;
  }
  [[nodiscard]] Executor require(
      boost::asio::execution::blocking_t::never_t /*unused*/) const noexcept {
    return Executor(runtime_, true);
  }
  [[nodiscard]] Executor require(
      boost::asio::execution::blocking_t::possibly_t /*unused*/) const noexcept {
    return Executor(runtime_, false);
  }

  /// Whether the calling thread is one of the workers.
  [[nodiscard]] bool runningInThisThread() const noexcept;

  friend bool operator==(const Executor& a, const Executor& b) noexcept {
    return a.runtime_ == b.runtime_ && a.neverBlocks_ == b.neverBlocks_;
  }
  friend bool operator!=(const Executor& a, const Executor& b) noexcept { return !(a == b); }

 private:
  void submit(std::move_only_function<void()> function) const;

  std::shared_ptr<detail::Runtime> runtime_;
  bool neverBlocks_ = false;
};

/// Where a connection's callbacks run: one at a time, in the order their causes arrived, on the
/// workers of its `Connection` or `Listener`. Each client connection of a listener has one of
/// its own, so a handler that waits on one client never delays another.
using DeliveryExecutor = boost::asio::strand<Executor>;

}  // namespace corvane::ipc
