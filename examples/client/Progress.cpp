// client-progress: adds a declaration, waits for its app in the catalogue, installs it and
// follows the installation through the global progress stream and the app's own state stream.
// docs/client-guide.md quotes it.
//
//   client-progress DECLARATION.json    e.g. examples/declarations/maps-on-demand.json
//
// Exit status: 0 once the app is managed, 1 on a failure (printed), 2 for a usage error.

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>

#include <clocale>
#include <exception>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace {

corvane::ManagedAppDeclaration readDeclaration(const char* path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(std::string("cannot read ") + path);
  std::ostringstream text;
  text << file.rdbuf();
  // Throws corvane::CodingError, with the path of the member that does not decode.
  return corvane::coding::decode<corvane::ManagedAppDeclaration>(
      corvane::coding::parseDocument(text.str()));
}

// Both the main thread and the io_context thread print.
std::mutex outputMutex;
void printLine(const std::string& line) {
  const std::scoped_lock lock(outputMutex);
  std::cout << line << '\n' << std::flush;
}

bool isManaged(const corvane::AppState& state) {
  return std::holds_alternative<corvane::AppState::Managed>(state.cases());
}

// [catalogue]
/// The catalogue entry of `declarationIdentifier`, once the daemon publishes one.
corvane::ManagedApp waitForCatalogEntry(corvane::ManagedAppLibrary::ManagedApps& catalog,
                                        const std::string& declarationIdentifier) {
  // Each result is the whole catalogue, or the error that kept the daemon from making it; the
  // stream keeps only the newest one not yet taken.
  while (std::optional<corvane::CatalogResult> result = catalog.next()) {
    if (const auto* error = std::get_if<corvane::CorvaneError>(&*result)) {
      throw corvane::Error(*error);
    }
    for (const corvane::ManagedApp& app : std::get<std::vector<corvane::ManagedApp>>(*result)) {
      if (app.declarationIdentifier() == declarationIdentifier) return app;
    }
  }
  throw std::runtime_error("the catalogue stream ended");
}
// [catalogue]

// [progress]
/// Prints every app's progress until `bundleID` is managed. Values arrive on the connection's
/// delivery executor; the coroutine resumes on its own (the io_context's) thread.
boost::asio::awaitable<void> followProgress(corvane::AsyncStream<corvane::AppProgress>& progress,
                                            std::string bundleID) {
  while (std::optional<corvane::AppProgress> value =
             co_await progress.next(boost::asio::use_awaitable)) {
    printLine("progress: " + value->bundleID + ": " + value->state.description());
    if (value->bundleID == bundleID && isManaged(value->state)) co_return;
  }
}
// [progress]

int run(const char* declarationPath) {
  const corvane::ManagedAppDeclaration declaration = readDeclaration(declarationPath);
  const corvane::ManagedAppLibrary& library = corvane::ManagedAppLibrary::shared();

  // [install]
  // Open the streams before changing anything, so that no pushed value is missed.
  corvane::ManagedAppLibrary::ManagedApps catalog = library.managedApps();
  corvane::AsyncStream<corvane::AppProgress> progress = library.progressUpdates();

  corvane::DDMAppOrUpdateManagedAppRequest{declaration}.performSynchronously();
  const corvane::ManagedApp app = waitForCatalogEntry(catalog, declaration.declarationIdentifier);
  std::cout << "catalogue: " << app.declarationIdentifier() << " is " << app.bundleID() << '\n';

  // The app's own states, starting with the one the library has cached, if any.
  corvane::AsyncStream<corvane::AppState> states = app.stateUpdates();
  library.install(app, boost::asio::use_future).get();  // throws corvane::Error on failure

  // Global progress on an io_context thread, this app's states here, blocking.
  boost::asio::io_context io;
  boost::asio::co_spawn(io, followProgress(progress, app.bundleID()), boost::asio::detached);
  std::thread progressThread([&io] { io.run(); });
  for (std::optional<corvane::AppState> state = states.next(); state; state = states.next()) {
    printLine("state: " + state->description());
    if (isManaged(*state)) break;
  }
  progressThread.join();  // followProgress has seen the app managed too
  // [install]

  const auto statuses =
      corvane::DDMDeclarationStatusRequest{declaration.declarationKey}.performSynchronously();
  for (const auto& status : statuses) {
    std::cout << "status: " << status.declarationIdentifier << ": "
              << corvane::rawValue(status.state) << '\n';
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe): no other thread yet
  if (argc != 2) {
    std::cerr << "usage: client-progress DECLARATION.json\n";
    return 2;
  }
  try {
    return run(argv[1]);
  } catch (const corvane::CodingError& error) {
    std::cerr << "client-progress: " << argv[1] << " is not a declaration: " << error.what()
              << '\n';
    return 2;
  } catch (const std::exception& error) {
    // corvane::Error included: its what() is the localized description and the cause.
    std::cerr << "client-progress: " << error.what() << '\n';
    return 1;
  }
}
