#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/WireTypes.hpp>
#include <corvane/requests/StoreAppIdentifier.hpp>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <boost/url/url.hpp>

#include <string_view>
#include <utility>
#include <variant>

namespace corvane {

/// When the app is installed. Coded case-keyed: {"immediately": {}} or {"onDemand": {}}.
enum class InstallTimingEnum { immediately, onDemand };
BOOST_DESCRIBE_ENUM(InstallTimingEnum, immediately, onDemand)

/// To whom a volume-purchase licence is assigned. Coded case-keyed: {"user": {}} or
/// {"device": {}}.
enum class LicenseEnum { user, device };
BOOST_DESCRIBE_ENUM(LicenseEnum, user, device)

/// How the app is obtained: bought through the volume-purchase programme, or installed from an
/// enterprise manifest. Coded {"volumePurchaseProgram": {"_0": identifier, "license": licence}}
/// or {"manifest": {"_0": "https://..."}}.
class PurchaseMethodEnum {
 public:
  struct VolumePurchaseProgram {
    static constexpr std::string_view caseName = "volumePurchaseProgram";
    StoreAppIdentifier _0 = StoreAppIdentifier::itemID(0);
    LicenseEnum license = LicenseEnum::user;
    BOOST_DESCRIBE_CLASS(VolumePurchaseProgram, (), (_0, license), (), ())
  };
  struct Manifest {
    static constexpr std::string_view caseName = "manifest";
    boost::urls::url _0;  ///< the enterprise app's manifest
    BOOST_DESCRIBE_CLASS(Manifest, (), (_0), (), ())
  };
  using Cases = std::variant<VolumePurchaseProgram, Manifest>;

  explicit PurchaseMethodEnum(Cases cases) noexcept : cases_(std::move(cases)) {}
  /// Bought for `identifier`, licensed to the user unless told otherwise.
  [[nodiscard]] static PurchaseMethodEnum volumePurchaseProgram(
      StoreAppIdentifier identifier, LicenseEnum license = LicenseEnum::user) {
    return PurchaseMethodEnum(Cases(VolumePurchaseProgram{std::move(identifier), license}));
  }
  /// Installed from the enterprise manifest at `url`.
  [[nodiscard]] static PurchaseMethodEnum manifest(boost::urls::url url) {
    return PurchaseMethodEnum(Cases(Manifest{std::move(url)}));
  }

  [[nodiscard]] const Cases& cases() const noexcept { return cases_; }

 private:
  Cases cases_;
};

/// How a declared app is installed.
struct InstallBehavior {
  InstallTimingEnum installTiming = InstallTimingEnum::immediately;
  bool isAccountPromptAllowed = false;
  PurchaseMethodEnum purchaseMethod =
      PurchaseMethodEnum::volumePurchaseProgram(StoreAppIdentifier::itemID(0));
};
BOOST_DESCRIBE_STRUCT(InstallBehavior, (), (installTiming, isAccountPromptAllowed, purchaseMethod))

/// Wrappers of one enumeration value each; they are not coded.
struct InstallTiming {
  InstallTimingEnum rawValue;
};
struct PurchaseMethod {
  PurchaseMethodEnum rawValue;
};
struct License {
  LicenseEnum rawValue;
};

}  // namespace corvane
