#pragma once

#include "Output.hpp"

#include <boost/json/value.hpp>

#include <cstdio>

namespace cvnctl {

/// The library's coded form of each result, one JSON document per line on standard output
/// (a request without a value answers `null`); a failure is one JSON object on standard error:
/// {"error": kind, "description": what it is, "reason": what went wrong underneath or the
/// daemon's reason, "exit": the exit status} (and "path" for a declaration that does not decode).
/// Notes are not written. In a watch, a result the daemon could not make is a line of the
/// stream, the same object without "exit", on standard output.
class JsonOutput final : public Output {
 public:
  JsonOutput(std::FILE* out, std::FILE* err) noexcept : out_(out), err_(err) {}

  void keys(const std::vector<std::string>& keys) override;
  void statuses(const std::vector<corvane::ManagedAppStatus>& statuses) override;
  void catalog(const std::vector<corvane::ManagedApp>& apps) override;
  void done(std::string_view summary) override;
  void announce(std::string_view summary) override;
  void state(const std::string& bundleID, const corvane::AppState& state, bool live) override;
  void progress(const corvane::AppProgress& progress) override;
  void settled(const std::vector<corvane::ManagedAppStatus>& statuses) override;
  void note(std::string_view text) override;
  void failure(const Failure& failure) override;
  /// {"error", "description", "reason"} as one line of standard output, among the results.
  void failedResult(const Failure& failure) override;

 private:
  void write(const boost::json::value& document);

  std::FILE* out_;
  std::FILE* err_;
};

}  // namespace cvnctl
