#pragma once

#include <boost/uuid/uuid.hpp>

#include <cstdint>

namespace corvane::platform {

/// The system's random source.
class Random {
 public:
  /// A new random (version 4) UUID. Thread-safe.
  [[nodiscard]] static boost::uuids::uuid uuid();
  /// 64 random bits from the kernel. Thread-safe.
  [[nodiscard]] static std::uint64_t bits64() noexcept;
};

}  // namespace corvane::platform
