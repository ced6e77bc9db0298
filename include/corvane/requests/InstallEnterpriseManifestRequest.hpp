#pragma once

#include <corvane/coding/ServiceSignature.hpp>
#include <corvane/requests/EnterpriseApp.hpp>

#include <utility>

namespace corvane {

/// Wraps the enterprise app to install from its manifest. Not coded: the operation sends the
/// `EnterpriseApp` itself.
class InstallEnterpriseManifestRequest {
 public:
  explicit InstallEnterpriseManifestRequest(EnterpriseApp app) : app_(std::move(app)) {}

  [[nodiscard]] const EnterpriseApp& app() const noexcept { return app_; }

  /// Sends "installEnterpriseManifest:reply:" with the wrapped `EnterpriseApp`. Completion:
  /// `void(std::exception_ptr)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;

 private:
  EnterpriseApp app_;
};

}  // namespace corvane
