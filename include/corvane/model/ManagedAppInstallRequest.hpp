#pragma once

#include <corvane/coding/StoredCoding.hpp>

#include <boost/describe/class.hpp>

#include <optional>
#include <string>
#include <utility>

namespace corvane {

/// The argument of the install operation: the declaration whose app is to be installed, the
/// catalogue entry's purchase parameters, and whether a user asked for it. The first two are
/// fixed by the constructor; `userInitiated` starts true and may be changed.
class ManagedAppInstallRequest {
 public:
  // By reference: GCC 12 reports moving a disengaged std::optional<std::string> temporary as a
  // maybe-uninitialized read.
  ManagedAppInstallRequest(const std::optional<std::string>& declarationIdentifier,
                           const std::optional<std::string>& buyParams)
      : stored_{declarationIdentifier, buyParams, true} {}

  [[nodiscard]] const std::optional<std::string>& declarationIdentifier() const noexcept {
    return stored_.declarationIdentifier;
  }
  [[nodiscard]] const std::optional<std::string>& buyParams() const noexcept {
    return stored_.buyParams;
  }
  [[nodiscard]] bool userInitiated() const noexcept { return stored_.userInitiated; }
  void setUserInitiated(bool value) noexcept { stored_.userInitiated = value; }

 private:
  friend struct coding::StoredCoding<ManagedAppInstallRequest>;

  struct Stored {
    std::optional<std::string> declarationIdentifier;
    std::optional<std::string> buyParams;
    bool userInitiated = true;
    BOOST_DESCRIBE_CLASS(Stored, (), (declarationIdentifier, buyParams, userInitiated), (), ())
  };

  explicit ManagedAppInstallRequest(Stored stored) noexcept : stored_(std::move(stored)) {}

  Stored stored_;
};

namespace coding {
/// Coded as {"declarationIdentifier", "buyParams", "userInitiated"}, the first two only when
/// present.
template <>
struct Coding<ManagedAppInstallRequest> : StoredCoding<ManagedAppInstallRequest> {};
}  // namespace coding

}  // namespace corvane
