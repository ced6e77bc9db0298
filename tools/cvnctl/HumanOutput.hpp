#pragma once

#include "Output.hpp"
#include "ProgressDisplay.hpp"

#include <cstdio>

namespace cvnctl {

/// Text for a person: tables and sentences on standard output, progress drawn by a
/// `ProgressDisplay`, failures on standard error prefixed "cvnctl: ".
class HumanOutput final : public Output {
 public:
  HumanOutput(std::FILE* out, std::FILE* err, ProgressDisplay::Mode mode) noexcept
      : out_(out), err_(err), display_(out, mode) {}

  void keys(const std::vector<std::string>& keys) override;
  void statuses(const std::vector<corvane::ManagedAppStatus>& statuses) override;
  void catalog(const std::vector<corvane::ManagedApp>& apps) override;
  void done(std::string_view summary) override;
  void announce(std::string_view summary) override;
  void state(const std::string& bundleID, const corvane::AppState& state, bool live) override;
  void progress(const corvane::AppProgress& progress) override;
  void resized() override { display_.resized(); }
  void settled(const std::vector<corvane::ManagedAppStatus>& statuses) override;
  void note(std::string_view text) override;
  void failure(const Failure& failure) override;
  /// Written as a failure is (standard error), before the next result.
  void failedResult(const Failure& failure) override { this->failure(failure); }

  /// "Managed", "Failed (couldNotVerifyAppID)", "Downloading", ...: a status's state for a person.
  [[nodiscard]] static std::string statusText(const corvane::ManagedAppStatus& status);

 private:
  std::FILE* out_;
  std::FILE* err_;
  ProgressDisplay display_;
  int catalogs_ = 0;
};

}  // namespace cvnctl
