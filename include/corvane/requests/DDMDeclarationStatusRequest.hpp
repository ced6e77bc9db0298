#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/ServiceSignature.hpp>

#include <boost/describe/class.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct ManagedAppStatus;

/// Asks for the status of one declaration, or of all when `declarationKey` is absent.
/// Coded as {"declarationKey": "..."} or, without a key, {}.
struct DDMDeclarationStatusRequest {
  std::optional<std::string> declarationKey;

  /// Sends "getDeclarationStatus:reply:" with this record. Completion: `void(std::exception_ptr,
  /// std::vector<ManagedAppStatus>)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<std::vector<ManagedAppStatus>> CompletionToken>
  auto perform(CompletionToken&& token) const;
  /// The same, blocking the calling thread until the reply has arrived. Throws
  /// `corvane::Error` (or the encoder's `CodingError`) where `perform` would deliver it.
  [[nodiscard]] std::vector<ManagedAppStatus> performSynchronously() const;
  /// The same, waiting `timeout` at most. Past it, throws `corvane::Error` (unrecoverableError)
  /// whose `origin()` is `ipc::ConnectionError::timedOut`; the daemon may still carry the request
  /// out, and its late reply is dropped.
  [[nodiscard]] std::vector<ManagedAppStatus> performSynchronously(
      std::chrono::steady_clock::duration timeout) const;
};
BOOST_DESCRIBE_STRUCT(DDMDeclarationStatusRequest, (), (declarationKey))

}  // namespace corvane
