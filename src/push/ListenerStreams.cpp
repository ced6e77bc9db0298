#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ServiceConnection.hpp>

#include <boost/asio/post.hpp>

#include <exception>

namespace corvane {

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
