#pragma once

#include <corvane/coding/ServiceSignature.hpp>

#include <string>

namespace corvane {

/// Names the managed app to remove by its declaration identifier. Not coded: the remove
/// operation sends the identifier alone.
struct DDMRemoveManagedAppRequest {
  std::string declarationIdentifier;

  /// Sends "removeManagedAppWithDeclarationIdentifier:reply:" with the identifier alone.
  /// Completion: `void(std::exception_ptr)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;
  /// The same, blocking the calling thread until the reply has arrived. Throws
  /// `corvane::Error` (or the encoder's `CodingError`) where `perform` would deliver it.
  void performSynchronously() const;
  /// The same, waiting `timeout` at most. Past it, throws `corvane::Error` (unrecoverableError)
  /// whose `origin()` is `ipc::ConnectionError::timedOut`; the daemon may still carry the request
  /// out, and its late reply is dropped.
  void performSynchronously(std::chrono::steady_clock::duration timeout) const;
};

}  // namespace corvane
