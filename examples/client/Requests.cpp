// client-requests: one request to the daemon in each of the library's four forms, and what a
// failure looks like. docs/client-guide.md quotes it.
//
//   client-requests            asks the daemon that $CORVANE_RUNTIME_DIR (or /run/corvane) names
//
// Exit status: 0 when every request succeeded, 1 when one failed (the failure is printed).

#include <corvane/Corvane.hpp>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>

#include <chrono>
#include <clocale>
#include <exception>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace {

void printStatuses(const char* form, const std::vector<corvane::ManagedAppStatus>& statuses) {
  std::cout << form << ": " << statuses.size() << " status(es)\n";
  for (const auto& status : statuses) {
    std::cout << "  " << status.declarationIdentifier << " (" << status.bundleID
              << "): " << corvane::rawValue(status.state) << '\n';
  }
}

// [synchronous]
std::vector<std::string> synchronousForm() {
  // Blocks this thread until the reply is in; a failure is thrown as corvane::Error.
  std::vector<std::string> keys = corvane::DDMDeclarationKeysRequest{}.performSynchronously();
  std::cout << "synchronous: " << keys.size() << " declaration key(s)\n";
  for (const auto& key : keys) std::cout << "  " << key << '\n';
  return keys;
}
// [synchronous]

// [callback]
void callbackForm() {
  boost::asio::io_context io;
  // The handler runs through its associated executor: bound to `io`, it runs inside io.run() on
  // this thread. Without bind_executor it would run on the connection's delivery executor.
  corvane::DDMDeclarationStatusRequest{}.perform(
      boost::asio::bind_executor(io, [](const std::exception_ptr& failure,
                                        const std::vector<corvane::ManagedAppStatus>& statuses) {
        // Thrown here, the failure leaves through io.run() below.
        if (failure) std::rethrow_exception(failure);
        printStatuses("callback", statuses);
      }));
  io.run();  // returns once the handler has run: the pending request counts as work
}
// [callback]

// [future]
void futureForm() {
  // The completion's exception_ptr becomes the future's exception: get() throws it.
  std::future<std::vector<corvane::ManagedAppStatus>> statuses =
      corvane::DDMDeclarationStatusRequest{}.perform(boost::asio::use_future);
  printStatuses("future", statuses.get());
}
// [future]

// [coroutine]
boost::asio::awaitable<void> statusOfDeclaration(std::optional<std::string> key) {
  // The request is a named variable: g++ 12 mishandles a temporary with a destructor that lives
  // across a co_await (it destroys it twice).
  const corvane::DDMDeclarationStatusRequest request{std::move(key)};
  // A failure is thrown at the co_await; the coroutine resumes on its own executor.
  const auto statuses = co_await request.perform(boost::asio::use_awaitable);
  printStatuses("coroutine", statuses);
}

void coroutineForm(std::optional<std::string> key) {
  boost::asio::io_context io;
  std::exception_ptr failure;
  boost::asio::co_spawn(io, statusOfDeclaration(std::move(key)),
                        [&failure](std::exception_ptr e) { failure = std::move(e); });
  io.run();
  if (failure) std::rethrow_exception(failure);
}
// [coroutine]

// [bounded]
boost::asio::awaitable<void> keysWithin(std::chrono::seconds limit) {
  using namespace boost::asio::experimental::awaitable_operators;
  const corvane::DDMDeclarationKeysRequest request;
  boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor, limit);
  // Whichever finishes first cancels the other: a daemon that never answers costs `limit`.
  auto first = co_await (request.perform(boost::asio::use_awaitable)
                         || timer.async_wait(boost::asio::use_awaitable));
  if (first.index() == 1) {
    std::cout << "bounded: no answer within " << limit.count() << " s\n";
    co_return;
  }
  std::cout << "bounded: " << std::get<0>(first).size() << " declaration key(s)\n";
}

void boundedForms() {
  boost::asio::io_context io;
  boost::asio::co_spawn(io, keysWithin(std::chrono::seconds(5)), boost::asio::detached);
  io.run();
  // The blocking form takes the time it may wait; past it corvane::Error is thrown, whose
  // origin() is corvane::ipc::ConnectionError::timedOut.
  const auto statuses =
      corvane::DDMDeclarationStatusRequest{}.performSynchronously(std::chrono::seconds(5));
  printStatuses("bounded", statuses);
}
// [bounded]

}  // namespace

// [errors]
int main() {
  // Localized error descriptions follow the user's locale (LANGUAGE, LC_MESSAGES).
  std::setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe): no other thread yet
  try {
    const auto keys = synchronousForm();
    callbackForm();
    futureForm();
    // The status of the first declaration only (of every one when there is none).
    coroutineForm(keys.empty() ? std::nullopt : std::optional(keys.front()));
    boundedForms();
    return 0;
  } catch (const corvane::Error& error) {
    // error.error() is the kind; what() is its localized description followed by the cause: the
    // reason the daemon gave ("unknown declaration D-x") or what failed here ("cannot connect to
    // ...").
    switch (error.error()) {
      case corvane::CorvaneError::unrecoverableError:
        std::cerr << "client-requests: the request failed: " << error.what() << '\n';
        break;
      case corvane::CorvaneError::networkError:
      case corvane::CorvaneError::deviceNotManaged:
      case corvane::CorvaneError::unsupportedPlatform:
        // Only the daemon reports these kinds, with its reason when it gave one.
        std::cerr << "client-requests: the daemon answered " << corvane::caseName(error.error())
                  << ": " << error.what() << '\n';
        break;
    }
    return 1;
  }
}
// [errors]
