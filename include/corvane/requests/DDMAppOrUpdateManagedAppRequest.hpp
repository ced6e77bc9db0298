#pragma once

#include <corvane/coding/ServiceSignature.hpp>
#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <boost/describe/class.hpp>

#include <utility>

namespace corvane {

/// Asks the daemon to add a managed app, or update it, from one declaration.
/// Coded as {"app": declaration}.
struct DDMAppOrUpdateManagedAppRequest {
  ManagedAppDeclaration app;

  explicit DDMAppOrUpdateManagedAppRequest(ManagedAppDeclaration declaration)
      : app(std::move(declaration)) {}

 private:
  friend struct coding::Access;
  DDMAppOrUpdateManagedAppRequest() : app(coding::Access::make<ManagedAppDeclaration>()) {}

 public:
  /// Sends "addOrUpdateManagedApp:reply:" with this record. Completion: `void(std::exception_ptr)`
  /// through any Asio completion token; see `ServiceConnection::withAsyncService` for the errors
  /// and where the handler runs. Defined in <corvane/service/RequestOperations.hpp>, which callers
  /// include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;
  /// The same, blocking the calling thread until the reply has arrived. Throws
  /// `corvane::Error` (or the encoder's `CodingError`) where `perform` would deliver it.
  void performSynchronously() const;
  /// The same, waiting `timeout` at most. Past it, throws `corvane::Error` (unrecoverableError)
  /// whose `origin()` is `ipc::ConnectionError::timedOut`; the daemon may still carry the request
  /// out, and its late reply is dropped.
  void performSynchronously(std::chrono::steady_clock::duration timeout) const;

  BOOST_DESCRIBE_CLASS(DDMAppOrUpdateManagedAppRequest, (), (app), (), ())
};

}  // namespace corvane
