#pragma once

#include <corvane/coding/RawValue.hpp>
#include <corvane/coding/ServiceSignature.hpp>
#include <corvane/coding/StoredCoding.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/requests/StoreAppIdentifier.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <boost/uuid/uuid.hpp>

#include <cstdint>
#include <optional>
#include <utility>

namespace corvane {

/// Asks the daemon to act on a volume-purchased store app for an account. Each request carries
/// a fresh random `id`; its fields are fixed once constructed.
/// Coded as {"id", "accountIdentifier", "appIdentifier", "requestType", "evid"}, the second and
/// last only when present.
class VPPInstallRequest {
 public:
  /// What to do with the app. Coded as its bare integer raw value 1, 2 or 3.
  enum class RequestType : std::int64_t {
    install = 1,    ///< install the app
    update = 2,     ///< update the installed app
    uninstall = 3,  ///< remove the app
  };
  BOOST_DESCRIBE_NESTED_ENUM(RequestType, install, update, uninstall)

  /// The request type of a raw value: 1, 2, 3; empty for any other integer.
  [[nodiscard]] static constexpr std::optional<RequestType> requestTypeFromRawValue(
      std::int64_t rawValue) noexcept {
    return coding::fromIntegerValue<RequestType>(rawValue);
  }
  /// The raw value of a request type: 1, 2 or 3.
  [[nodiscard]] static constexpr std::int64_t rawValue(RequestType type) noexcept {
    return static_cast<std::int64_t>(type);
  }

  /// A request with a new random `id`. Throws what the system's random source throws.
  VPPInstallRequest(StoreAppIdentifier appIdentifier, RequestType requestType,
                    std::optional<std::uint64_t> accountIdentifier = std::nullopt,
                    std::optional<std::int64_t> evid = std::nullopt);

  [[nodiscard]] const boost::uuids::uuid& id() const noexcept { return stored_.id; }
  [[nodiscard]] std::optional<std::uint64_t> accountIdentifier() const noexcept {
    return stored_.accountIdentifier;
  }
  [[nodiscard]] const StoreAppIdentifier& appIdentifier() const noexcept {
    return stored_.appIdentifier;
  }
  [[nodiscard]] RequestType requestType() const noexcept { return stored_.requestType; }
  [[nodiscard]] std::optional<std::int64_t> evid() const noexcept { return stored_.evid; }

  /// Sends "handleVPPInstallRequest:reply:" with this record. Completion:
  /// `void(std::exception_ptr)` through any Asio completion token; see
  /// `ServiceConnection::withAsyncService` for the errors and where the handler runs. Defined in
  /// <corvane/service/RequestOperations.hpp>, which callers include.
  template <ServiceToken<None> CompletionToken>
  auto perform(CompletionToken&& token) const;

 private:
  friend struct coding::StoredCoding<VPPInstallRequest>;

  struct Stored {
    boost::uuids::uuid id{};
    std::optional<std::uint64_t> accountIdentifier;
    StoreAppIdentifier appIdentifier = StoreAppIdentifier::itemID(0);
    RequestType requestType = RequestType::install;
    std::optional<std::int64_t> evid;
    BOOST_DESCRIBE_CLASS(Stored, (), (id, accountIdentifier, appIdentifier, requestType, evid), (),
                         ())
  };

  explicit VPPInstallRequest(Stored stored) noexcept : stored_(std::move(stored)) {}

  Stored stored_;
};

namespace coding {
template <>
inline constexpr EnumCoding enumCoding<VPPInstallRequest::RequestType> =
    EnumCoding::integerRawValue;

template <>
struct Coding<VPPInstallRequest> : StoredCoding<VPPInstallRequest> {};
}  // namespace coding

}  // namespace corvane
