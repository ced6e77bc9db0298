#pragma once

#include <glib.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane::flatpak {

/// A failure reported by libflatpak (or GLib underneath): the GError's domain, code and message,
/// and what the layer was doing. what() is "CONTEXT: MESSAGE".
class FlatpakError : public std::runtime_error {
 public:
  FlatpakError(std::string_view context, GQuark domain, int code, std::string message);
  /// Copies `error` (which the caller still owns).
  FlatpakError(std::string_view context, const GError& error);

  [[nodiscard]] GQuark domain() const noexcept { return domain_; }
  /// The domain's name, e.g. "flatpak-error-quark", "g-io-error-quark".
  [[nodiscard]] std::string domainName() const { return g_quark_to_string(domain_); }
  [[nodiscard]] int code() const noexcept { return code_; }
  /// The GError's own message, without the context.
  [[nodiscard]] const std::string& message() const noexcept { return message_; }
  /// Whether the operation stopped because it was cancelled.
  [[nodiscard]] bool cancelled() const noexcept;
  [[nodiscard]] bool matches(GQuark domain, int code) const noexcept {
    return domain_ == domain && code_ == code;
  }

 private:
  static std::string toMessage(const GError& error);

  GQuark domain_;
  int code_;
  std::string message_;
};

/// The GError** out-parameter of one call, freed with the slot: never leaks a GError.
///
///   ErrorSlot error;
///   if (!flatpak_installation_add_remote(..., error.out())) error.raise("add remote x");
class ErrorSlot {
 public:
  ErrorSlot() = default;
  ErrorSlot(const ErrorSlot&) = delete;
  ErrorSlot& operator=(const ErrorSlot&) = delete;
  ~ErrorSlot() { g_clear_error(&error_); }

  [[nodiscard]] GError** out() noexcept { return &error_; }
  [[nodiscard]] const GError* get() const noexcept { return error_; }
  explicit operator bool() const noexcept { return error_ != nullptr; }
  /// Throws FlatpakError from the error (one that says nothing more than `context` failed when
  /// the call set none).
  [[noreturn]] void raise(std::string_view context) const;

 private:
  GError* error_ = nullptr;
};

}  // namespace corvane::flatpak
