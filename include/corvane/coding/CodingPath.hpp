#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane::coding {

/// Where a decoder stands inside a document: a chain of keys and list indices.
/// Nodes live on the decoder's stack and point at their parent, so descending costs nothing;
/// the text form ("[0].app.installBehavior") is built only when an error is reported.
class CodingPath {
 public:
  /// The top of the document.
  constexpr CodingPath() noexcept = default;
  /// A key below `parent`. `key` must outlive this node.
  constexpr CodingPath(const CodingPath& parent, std::string_view key) noexcept
      : parent_(&parent), key_(key), kind_(Kind::key) {}
  /// A list index below `parent`.
  constexpr CodingPath(const CodingPath& parent, std::size_t index) noexcept
      : parent_(&parent), index_(index), kind_(Kind::index) {}

  CodingPath(const CodingPath&) = delete;
  CodingPath& operator=(const CodingPath&) = delete;
  ~CodingPath() = default;

  /// Keys joined by ".", indices as "[n]"; the top of the document is the empty string.
  [[nodiscard]] std::string toString() const;

 private:
  enum class Kind { root, key, index };
  const CodingPath* parent_ = nullptr;
  std::string_view key_;
  std::size_t index_ = 0;
  Kind kind_ = Kind::root;
};

}  // namespace corvane::coding
