#pragma once

#include <corvane/requests/EnterpriseApp.hpp>

#include <utility>

namespace corvane {

/// Wraps the enterprise app to install from its manifest. Not coded: the operation sends the
/// `EnterpriseApp` itself.
class InstallEnterpriseManifestRequest {
 public:
  explicit InstallEnterpriseManifestRequest(EnterpriseApp app) : app_(std::move(app)) {}

  [[nodiscard]] const EnterpriseApp& app() const noexcept { return app_; }

 private:
  EnterpriseApp app_;
};

}  // namespace corvane
