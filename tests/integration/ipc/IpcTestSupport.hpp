#pragma once

#include <corvane/ipc/Connection.hpp>
#include <corvane/ipc/Listener.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace corvane::ipc::testing {

inline constexpr auto bound = std::chrono::seconds(10);

/// A counter that tests wait on, instead of sleeping.
class Counter {
 public:
  void add(int n = 1) {
    // Notified under the lock: a waiter may destroy the counter as soon as it sees the value.
    const std::lock_guard count(mutex_);
    value_ += n;
    changed_.notify_all();
  }
  [[nodiscard]] int value() const {
    const std::lock_guard count(mutex_);
    return value_;
  }
  /// Waits (bounded) until the count reaches `target`; true if it did.
  bool waitFor(int target) const {
    std::unique_lock count(mutex_);
    return changed_.wait_for(count, bound, [&] { return value_ >= target; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int value_ = 0;
};

/// A private runtime directory, removed afterwards.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvane-ipc-XXXXXX").native();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline Bytes text(std::string_view s) {
  return Bytes(s);
}

}  // namespace corvane::ipc::testing
