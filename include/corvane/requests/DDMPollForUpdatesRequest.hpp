#pragma once

#include <corvane/coding/ServiceSignature.hpp>
namespace corvane {

/// Asks the daemon to poll the store for catalogue updates. No fields; not coded.
struct DDMPollForUpdatesRequest {
  /// Sends "pollForMediaAPIUpdatesWithReply:", without an argument. Completion:
  /// `void(std::exception_ptr)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;
};

}  // namespace corvane
