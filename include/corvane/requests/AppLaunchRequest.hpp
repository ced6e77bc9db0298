#pragma once

#include <corvane/coding/ServiceSignature.hpp>

#include <string>

namespace corvane {

/// Names the app to launch by its bundle identifier. Not coded: the launch operation sends the
/// identifier alone.
struct AppLaunchRequest {
  std::string bundleID;

  /// Sends "handleLaunchAppRequest:reply:" with the bundle identifier alone. Completion:
  /// `void(std::exception_ptr)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;
};

}  // namespace corvane
