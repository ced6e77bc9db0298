#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane {

/// Thrown when a value cannot be encoded into, or decoded from, a buffer.
/// It says what went wrong (`kind`), where (`codingPath`, for example "[0].app.installBehavior")
/// and a human-readable `description`.
class CodingError : public std::runtime_error {
 public:
  enum class Kind {
    keyNotFound,    ///< a required key is missing from a keyed container
    valueNotFound,  ///< a value is null where one is required, or a list is too short
    typeMismatch,   ///< a value has the wrong JSON kind, or an enumeration has not one case key
    dataCorrupted,  ///< not a document, or a raw value/number that names no valid value
    invalidValue,   ///< encoding: the value cannot be represented (a non-finite number)
  };

  CodingError(Kind kind, std::string codingPath, std::string description);

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] const std::string& codingPath() const noexcept { return path_; }
  [[nodiscard]] const std::string& description() const noexcept { return description_; }

 private:
  Kind kind_;
  std::string path_;
  std::string description_;
};

/// The name of a kind as written in diagnostics and tools ("keyNotFound", ...).
[[nodiscard]] std::string_view toString(CodingError::Kind kind) noexcept;

}  // namespace corvane
