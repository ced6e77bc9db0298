#include <corvane/coding/CorvaneError.hpp>
#include <corvane/platform/Localization.hpp>

namespace corvane {
namespace {

class Category final : public std::error_category {
 public:
  [[nodiscard]] const char* name() const noexcept override { return "corvane"; }
  [[nodiscard]] std::string message(int value) const override {
    if (value < 1 || value > 4) return "unknown corvane error";
    return localizedDescription(static_cast<CorvaneError>(value));
  }
};

}  // namespace

const std::error_category& corvaneCategory() noexcept {
  static const Category category;
  return category;
}

std::error_code make_error_code(CorvaneError error) noexcept {
  return {static_cast<int>(error), corvaneCategory()};
}

std::string_view caseName(CorvaneError error) noexcept {
  switch (error) {
    case CorvaneError::unrecoverableError:
      return "unrecoverableError";
    case CorvaneError::networkError:
      return "networkError";
    case CorvaneError::deviceNotManaged:
      return "deviceNotManaged";
    case CorvaneError::unsupportedPlatform:
      return "unsupportedPlatform";
  }
  return "unknown";
}

std::string_view localizationKey(CorvaneError error) noexcept {
  switch (error) {
    case CorvaneError::unrecoverableError:
      return "error.unrecoverableError";
    case CorvaneError::networkError:
      return "error.networkError";
    case CorvaneError::deviceNotManaged:
      return "error.deviceNotManaged";
    case CorvaneError::unsupportedPlatform:
      return "error.unsupportedPlatform";
  }
  return "error.unknown";
}

std::string localizedDescription(CorvaneError error) {
  return platform::Localization::localizedString(localizationKey(error));
}

Error::Error(CorvaneError error, std::string cause, std::error_code origin)
    : std::system_error(make_error_code(error)),
      error_(error),
      origin_(origin),
      cause_(std::make_shared<const std::string>(std::move(cause))),
      what_(std::make_shared<const std::string>(
          cause_->empty() ? corvane::localizedDescription(error)
                          : corvane::localizedDescription(error) + " (" + *cause_ + ")")) {}

CorvaneError toCorvaneError(const std::exception_ptr& failure) noexcept {
  if (!failure) return CorvaneError::unrecoverableError;
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    return error.error();
  } catch (...) {
    return CorvaneError::unrecoverableError;
  }
}

}  // namespace corvane
