#include <corvane/push/ListenerStreams.hpp>

namespace corvane {

AsyncStream<CatalogResult> catalogStream() {
  auto [stream, continuation] =
      AsyncStream<CatalogResult>::make(BufferingPolicy::bufferingNewest(1));
  auto listener = std::make_shared<TetherClient::CatalogListener>(continuation);
  TetherClient::shared().addCatalogListener(listener);
  continuation.onTermination(
      [listener] { TetherClient::shared().removeCatalogListener(listener); });
  return std::move(stream);
}

AsyncStream<AppProgress> progressStream() {
  auto [stream, continuation] = AsyncStream<AppProgress>::make(BufferingPolicy::unbounded());
  auto listener = std::make_shared<TetherClient::ProgressListener>(continuation);
  continuation.onTermination(
      [listener] { TetherClient::shared().removeProgressListener(listener); });
  TetherClient::shared().addProgressListener(listener);
  return std::move(stream);
}

AsyncStream<AppState> stateStream(const ManagedApp& app) {
  auto [stream, continuation] = AsyncStream<AppState>::make(BufferingPolicy::unbounded());
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
