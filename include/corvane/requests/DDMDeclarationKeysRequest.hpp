#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/ServiceSignature.hpp>

#include <chrono>
#include <string>
#include <vector>

namespace corvane {

/// Asks for the current declaration keys. It has no fields.
struct DDMDeclarationKeysRequest {
  /// Sends "currentDeclarationKeysWithReply:", without an argument. Completion:
  /// `void(std::exception_ptr, std::vector<std::string>)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<std::vector<std::string>> CompletionToken>
  auto perform(CompletionToken&& token) const;
  /// The same, blocking the calling thread until the reply has arrived. Throws
  /// `corvane::Error` (or the encoder's `CodingError`) where `perform` would deliver it.
  [[nodiscard]] std::vector<std::string> performSynchronously() const;
  /// The same, waiting `timeout` at most. Past it, throws `corvane::Error` (unrecoverableError)
  /// whose `origin()` is `ipc::ConnectionError::timedOut`; the daemon may still carry the request
  /// out, and its late reply is dropped.
  [[nodiscard]] std::vector<std::string> performSynchronously(
      std::chrono::steady_clock::duration timeout) const;
};

namespace coding {
/// Encodes as an empty object; decoding reads nothing and never fails, whatever the input.
template <>
struct Coding<DDMDeclarationKeysRequest> {
  static void encode(DDMDeclarationKeysRequest /*value*/, boost::json::value& out) {
    out.emplace_object();
  }
  static DDMDeclarationKeysRequest decode(const boost::json::value& /*in*/,
                                          const CodingPath& /*path*/) noexcept {
    return {};
  }
};
}  // namespace coding

}  // namespace corvane
