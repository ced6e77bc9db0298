#include <corvane/platform/Random.hpp>
#include <corvane/requests/VPPInstallRequest.hpp>

namespace corvane {

VPPInstallRequest::VPPInstallRequest(StoreAppIdentifier appIdentifier, RequestType requestType,
                                     std::optional<std::uint64_t> accountIdentifier,
                                     std::optional<std::int64_t> evid)
    : stored_{platform::Random::uuid(), accountIdentifier, std::move(appIdentifier), requestType,
              evid} {}

}  // namespace corvane
