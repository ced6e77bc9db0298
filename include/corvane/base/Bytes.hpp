#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane {

/// An owned, contiguous byte buffer: the only thing that crosses the connection to the daemon.
/// Buffers are moved from producer to consumer; copying is explicit through `clone()`.
class Bytes {
 public:
  Bytes() = default;
  /// Takes the bytes of a text (for instance a serialised JSON document) by copy.
  explicit Bytes(std::string_view text)
      : data_(reinterpret_cast<const std::byte*>(text.data()),  // NOLINT: byte view of text
              reinterpret_cast<const std::byte*>(text.data()) + text.size()) {}
  explicit Bytes(std::span<const std::byte> bytes) : data_(bytes.begin(), bytes.end()) {}
  explicit Bytes(std::vector<std::byte> bytes) noexcept : data_(std::move(bytes)) {}

  Bytes(Bytes&&) noexcept = default;
  Bytes& operator=(Bytes&&) noexcept = default;
  ~Bytes() = default;

  /// An independent copy; buffers are never shared implicitly.
  [[nodiscard]] Bytes clone() const { return Bytes(std::span<const std::byte>(data_)); }

  [[nodiscard]] const std::byte* data() const noexcept { return data_.data(); }
  [[nodiscard]] std::size_t size() const noexcept { return data_.size(); }
  [[nodiscard]] bool empty() const noexcept { return data_.empty(); }
  [[nodiscard]] std::span<const std::byte> span() const noexcept { return data_; }
  /// The bytes seen as text (no validation: the buffer may hold anything).
  [[nodiscard]] std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(data_.data()), data_.size()};  // NOLINT: byte view
  }
  [[nodiscard]] std::vector<std::byte> release() && noexcept { return std::move(data_); }

  friend bool operator==(const Bytes& a, const Bytes& b) noexcept { return a.data_ == b.data_; }

 private:
  Bytes(const Bytes&) = default;
  Bytes& operator=(const Bytes&) = default;

  std::vector<std::byte> data_;
};

}  // namespace corvane
