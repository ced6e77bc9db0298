#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

namespace corvane::sim {

/// How much a manifest may be and how long its download may take.
struct FetchLimits {
  std::size_t maxBytes = std::size_t{1} << 20;
  std::chrono::milliseconds connectTimeout{10'000};
  std::chrono::milliseconds timeout{30'000};
};

/// What a manifest's download came to: its text, or why there is none.
struct FetchedManifest {
  std::string contents;
  /// Empty when the manifest was fetched; otherwise a sentence for the caller, naming the URL.
  std::string failure;
};

/// Downloads the manifest at `url` (file, http or https; redirects only to http or https) with
/// libcurl. Blocking: call it on a worker. Gives up, failed, once `cancel` is raised (checked at
/// least once a second). A server that answers with an HTTP error status, a body larger than
/// `limits.maxBytes` and a download that takes longer than the timeout are failures.
[[nodiscard]] FetchedManifest fetchManifest(const std::string& url, const FetchLimits& limits,
                                            const std::atomic<bool>& cancel);

}  // namespace corvane::sim
