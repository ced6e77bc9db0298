#pragma once

#include <stdexcept>
#include <string>

namespace cvnctl {

/// A mistake on the command line or in a file it names; cvnctl exits with status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message, std::string codingPath = {})
      : std::runtime_error(message), codingPath_(std::move(codingPath)) {}

  /// Where a document that does not decode went wrong ("installBehavior.installTiming"); empty
  /// for other mistakes.
  [[nodiscard]] const std::string& codingPath() const noexcept { return codingPath_; }

 private:
  std::string codingPath_;
};

}  // namespace cvnctl
