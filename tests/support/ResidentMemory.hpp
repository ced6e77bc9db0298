#pragma once

// What a process holds, read from /proc, for the tests that bound a service's memory.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/types.h>

namespace corvane::testing {

/// Whether resident sizes say anything: the sanitizers' allocators keep freed memory (quarantine,
/// shadow), so bounds on them would measure the sanitizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool residentSizeIsMeaningful = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool residentSizeIsMeaningful = false;
#else
inline constexpr bool residentSizeIsMeaningful = true;
#endif
#else
inline constexpr bool residentSizeIsMeaningful = true;
#endif

/// VmRSS of `pid` in bytes (0 if it cannot be read).
inline std::size_t residentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmRSS:")) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

/// Descriptors `pid` has open.
inline std::size_t openDescriptors(pid_t pid) {
  std::error_code error;
  std::size_t count = 0;
  for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error), end;
       !error && it != end; it.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace corvane::testing
