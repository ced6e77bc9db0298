#pragma once

#include <cerrno>
#include <filesystem>
#include <stdlib.h>
#include <string>
#include <system_error>

namespace corvane::testing {

/// A fresh directory under the temporary directory, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvane-e2e-XXXXXX").native();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    path_ = pattern;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace corvane::testing
