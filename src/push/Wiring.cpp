// Where the process-wide objects meet: the service connection exports the push hub, and the
// observation operations that lower layers declare (`ManagedAppLibrary::managedApps` and
// `progressUpdates`, `ManagedApp::stateUpdates`) open the hub's streams. The push layer is the
// only one that knows both the connection and the hub, so this is the one place they are wired.

#include <corvane/push/ListenerStreams.hpp>
#include <corvane/push/TetherClient.hpp>
#include <corvane/service/ServiceConnection.hpp>

#include <boost/asio/post.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <exception>

namespace corvane {

// The hub's client identifier is the resume token, so that the daemon gives the hub back its
// registrations when the connection comes back after a loss.
ServiceConnection::ServiceConnection(const std::filesystem::path& runtimeDirectory)
    : ServiceConnection(runtimeDirectory, TetherClient::sharedPointer(),
                        boost::uuids::to_string(TetherClient::shared().clientID())) {}

namespace {

/// Where a stream's handlers without an executor of their own run: the connection's delivery
/// executor, as for the calls; Asio's system executor while there is no connection to be had.
template <class T>
typename AsyncStream<T>::Fallback streamExecutor() {
  std::exception_ptr failure;
  ServiceConnection* connection = service::detail::sharedConnection(failure, false);
  if (connection == nullptr) return {};
  return [executor = connection->executor()](std::move_only_function<void()> run) {
    boost::asio::post(executor, std::move(run));
  };
}

}  // namespace

AsyncStream<CatalogResult> catalogStream() {
  auto [stream, continuation] = AsyncStream<CatalogResult>::make(
      BufferingPolicy::bufferingNewest(1), streamExecutor<CatalogResult>());
  auto listener = std::make_shared<TetherClient::CatalogListener>(continuation);
  TetherClient::shared().addCatalogListener(listener);
  continuation.onTermination(
      [listener] { TetherClient::shared().removeCatalogListener(listener); });
  return std::move(stream);
}

AsyncStream<AppProgress> progressStream() {
  auto [stream, continuation] =
      AsyncStream<AppProgress>::make(BufferingPolicy::unbounded(), streamExecutor<AppProgress>());
  auto listener = std::make_shared<TetherClient::ProgressListener>(continuation);
  continuation.onTermination(
      [listener] { TetherClient::shared().removeProgressListener(listener); });
  TetherClient::shared().addProgressListener(listener);
  return std::move(stream);
}

AsyncStream<AppState> stateStream(const ManagedApp& app) {
  auto [stream, continuation] =
      AsyncStream<AppState>::make(BufferingPolicy::unbounded(), streamExecutor<AppState>());
  auto listener = std::make_shared<TetherClient::StateListener>(continuation);
  continuation.onTermination(
      [listener, app] { TetherClient::shared().removeStateListener(listener, app); });
  TetherClient::shared().addStateListener(listener, app);
  return std::move(stream);
}

ManagedAppLibrary::ManagedApps ManagedAppLibrary::managedApps() const {
  return ManagedApps(catalogStream());
}

AsyncStream<AppProgress> ManagedAppLibrary::progressUpdates() const {
  return progressStream();
}

AsyncStream<AppState> ManagedApp::stateUpdates() const {
  return stateStream(*this);
}

}  // namespace corvane
