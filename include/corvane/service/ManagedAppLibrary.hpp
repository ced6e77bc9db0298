#pragma once

#include <corvane/model/ManagedApp.hpp>
#include <corvane/model/ManagedAppInstallRequest.hpp>
#include <corvane/requests/ManagedAppCancelRequest.hpp>
#include <corvane/service/ServiceConnection.hpp>

#include <memory>
#include <tuple>

namespace corvane {

template <class T>
class AsyncStream;
struct AppProgress;

/// The public object through which a caller asks the daemon to install or cancel catalogue apps.
/// It holds no state: every instance uses the process's one `ServiceConnection`, so instances
/// behave alike. Usable from any thread at once; takes no lock.
class ManagedAppLibrary {
 public:
  /// The process-wide instance, made on first use. Thread-safe; never throws.
  [[nodiscard]] static ManagedAppLibrary& shared() noexcept;

  ManagedAppLibrary() = default;

  /// An asynchronous sequence of catalogues; defined in <corvane/push/ListenerStreams.hpp>.
  class ManagedApps;

  /// The catalogue as the daemon pushes it: starts with the cached catalogue if there is one, and
  /// keeps only the newest undelivered result. Registers for catalogue messages unless already
  /// registered; ending the sequence may withdraw that (a synchronous call). Defined with the
  /// push layer; include <corvane/push/ListenerStreams.hpp>.
  [[nodiscard]] ManagedApps managedApps() const;
  /// Global progress of every app, every value kept. Ending the stream removes its listener and,
  /// for the last one, withdraws the registration (a synchronous call under the hub's lock).
  [[nodiscard]] AsyncStream<AppProgress> progressUpdates() const;

  /// Asks the daemon to install whatever an install without an app covers (its decision):
  /// "installManagedApp:reply:" with no declaration identifier or purchase parameters, user
  /// initiated. Completion: `void(std::exception_ptr)` through any Asio completion token, as
  /// `ServiceConnection::withAsyncService` describes.
  template <ServiceToken<None> CompletionToken>
  auto install(CompletionToken&& token) const {
    return sendInstall(ManagedAppInstallRequest(std::nullopt, std::nullopt),
                       std::forward<CompletionToken>(token));
  }

  /// Asks the daemon to install a catalogue app: its declaration identifier and purchase
  /// parameters, user initiated. Completion as for `install(token)`.
  template <ServiceToken<None> CompletionToken>
  auto install(const ManagedApp& app, CompletionToken&& token) const {
    return sendInstall(ManagedAppInstallRequest(app.declarationIdentifier(), app.buyParams()),
                       std::forward<CompletionToken>(token));
  }

  /// Asks the daemon to cancel the installation of a catalogue app ("cancelManagedApp:reply:"
  /// with its declaration identifier). Completion as for `install(token)`.
  template <ServiceToken<None> CompletionToken>
  auto cancel(const ManagedApp& app, CompletionToken&& token) const {
    return ServiceConnection::withAsyncService<None>(
        std::tuple(ManagedAppCancelRequest{app.declarationIdentifier()}),
        service::detail::Call<ServiceProtocol::Selectors::cancelManagedApp>{},
        std::forward<CompletionToken>(token));
  }

 private:
  template <ServiceToken<None> CompletionToken>
  auto sendInstall(ManagedAppInstallRequest request, CompletionToken&& token) const {
    request.setUserInitiated(true);
    return ServiceConnection::withAsyncService<None>(
        std::tuple(std::move(request)),
        service::detail::Call<ServiceProtocol::Selectors::installManagedApp>{},
        std::forward<CompletionToken>(token));
  }
};

}  // namespace corvane
