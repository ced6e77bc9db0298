#pragma once

// Where results go: HumanOutput writes text for a person, JsonOutput the library's coded form.

#include "Failure.hpp"

#include <corvane/model/AppState.hpp>
#include <corvane/model/ManagedApp.hpp>
#include <corvane/model/ManagedAppStatus.hpp>
#include <corvane/push/AppProgress.hpp>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace cvnctl {

class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  virtual ~Output() = default;

  virtual void keys(const std::vector<std::string>& keys) = 0;
  virtual void statuses(const std::vector<corvane::ManagedAppStatus>& statuses) = 0;
  virtual void catalog(const std::vector<corvane::ManagedApp>& apps) = 0;
  /// A request without a value succeeded; `summary` says what was done.
  virtual void done(std::string_view summary) = 0;
  /// What a request followed by a --wait did, before its progress: on the stream `done` writes
  /// to for a person; not written as JSON, where the wait's documents are the result.
  virtual void announce(std::string_view summary) = 0;
  /// One state of `bundleID`: `live` while a watch follows it, else the answer of a one-shot.
  virtual void state(const std::string& bundleID, const corvane::AppState& state, bool live) = 0;
  /// One pushed progress value.
  virtual void progress(const corvane::AppProgress& progress) = 0;
  /// The apps a --wait followed have settled; `statuses` are their final statuses.
  virtual void settled(const std::vector<corvane::ManagedAppStatus>& statuses) = 0;
  /// Something a person may want to know that is not a result (human output only, on stderr).
  virtual void note(std::string_view text) = 0;
  /// The failure that ends the command.
  virtual void failure(const Failure& failure) = 0;
  /// A result of a watch that the daemon could not make (a catalogue it could not build): one
  /// element of the stream, which goes on, since a later result may succeed.
  virtual void failedResult(const Failure& failure) = 0;
  /// The terminal changed its size: a live display draws itself again.
  virtual void resized() {}
};

/// Output for `json`, else for a person; progress is drawn live when standard output is a
/// terminal.
[[nodiscard]] std::unique_ptr<Output> makeOutput(bool json);

}  // namespace cvnctl
