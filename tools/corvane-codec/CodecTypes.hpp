#pragma once

// The types corvane-codec knows, each a name (as in the code, nested types with a dot, lists as
// "[Element]") and one templated handler.

#include <boost/json/value.hpp>

#include <span>
#include <string>
#include <string_view>

namespace corvane::codec {

/// What to write for a decoded value.
enum class Mode { reencode, text };

struct TypeEntry {
  std::string_view name;
  /// Whether the type has a text form (`--text`).
  bool hasText;
  /// Decodes `document` as the type and returns the output for `mode` (the re-encoded document
  /// with a final newline, or the text form with one). Throws CodingError.
  std::string (*handle)(const boost::json::value& document, Mode mode);
};

/// Every coded type, in a stable order.
[[nodiscard]] std::span<const TypeEntry> codecTypes() noexcept;
/// The entry named `name`; nullptr for an unknown name.
[[nodiscard]] const TypeEntry* findCodecType(std::string_view name) noexcept;

}  // namespace corvane::codec
