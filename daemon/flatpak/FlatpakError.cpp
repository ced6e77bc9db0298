#include "FlatpakError.hpp"

#include <fmt/format.h>

#include <flatpak.h>
#include <gio/gio.h>

namespace corvane::flatpak {

FlatpakError::FlatpakError(std::string_view context, GQuark domain, int code, std::string message)
    : std::runtime_error(fmt::format("{}: {}", context, message)),
      domain_(domain),
      code_(code),
      message_(std::move(message)) {}

FlatpakError::FlatpakError(std::string_view context, const GError& error)
    : FlatpakError(context, error.domain, error.code, toMessage(error)) {}

std::string FlatpakError::toMessage(const GError& error) {
  return error.message == nullptr ? std::string("unknown error") : std::string(error.message);
}

bool FlatpakError::cancelled() const noexcept {
  return matches(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void ErrorSlot::raise(std::string_view context) const {
  if (error_ == nullptr)
    throw FlatpakError(context, G_IO_ERROR, G_IO_ERROR_FAILED, "failed without saying why");
  throw FlatpakError(context, *error_);
}

}  // namespace corvane::flatpak
