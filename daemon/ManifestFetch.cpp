#include "ManifestFetch.hpp"

#include <fmt/format.h>

#include <array>
#include <curl/curl.h>
#include <memory>

namespace corvane::sim {

namespace {

struct Download {
  std::string body;
  std::size_t maxBytes = 0;
  bool tooLarge = false;
  const std::atomic<bool>* cancel = nullptr;
};

std::size_t keep(char* data, std::size_t size, std::size_t count, void* user) {
  auto& download = *static_cast<Download*>(user);
  const std::size_t bytes = size * count;
  if (download.body.size() + bytes > download.maxBytes) {
    download.tooLarge = true;
    return 0;  // ends the transfer with CURLE_WRITE_ERROR
  }
  download.body.append(data, bytes);
  return bytes;
}

int carryOn(void* user, curl_off_t /*dltotal*/, curl_off_t /*dlnow*/, curl_off_t /*ultotal*/,
            curl_off_t /*ulnow*/) {
  return static_cast<Download*>(user)->cancel->load() ? 1 : 0;
}

std::string sizeOf(std::size_t bytes) {
  if (bytes % (std::size_t{1} << 20) == 0) return fmt::format("{} MiB", bytes >> 20);
  return fmt::format("{} bytes", bytes);
}

}  // namespace

FetchedManifest fetchManifest(const std::string& url, const FetchLimits& limits,
                              const std::atomic<bool>& cancel) {
  // Once per process, on the first fetch: libcurl's global state is made thread-safely since
  // 7.84, and only the fetching worker uses it.
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  FetchedManifest fetched;
  const auto fail = [&](const std::string& why) {
    fetched.contents.clear();
    fetched.failure = fmt::format("the manifest {} cannot be fetched: {}", url, why);
    return fetched;
  };
  if (initialised != CURLE_OK) return fail(curl_easy_strerror(initialised));
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                 &curl_easy_cleanup);
  if (!curl) return fail("libcurl cannot start a transfer");
  Download download;
  download.maxBytes = limits.maxBytes;
  download.cancel = &cancel;
  std::array<char, CURL_ERROR_SIZE> error{};
  CURL* handle = curl.get();
  // NOLINTBEGIN(cppcoreguidelines-pro-type-vararg)
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "file,http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);  // a daemon with threads: no SIGALRM
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(limits.connectTimeout.count()));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.timeout.count()));
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &keep);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &download);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &carryOn);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &download);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error.data());
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "corvaned");
  const CURLcode result = curl_easy_perform(handle);
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  // NOLINTEND(cppcoreguidelines-pro-type-vararg)
  if (download.tooLarge || result == CURLE_FILESIZE_EXCEEDED)
    return fail(fmt::format("it is larger than {}", sizeOf(limits.maxBytes)));
  if (result == CURLE_ABORTED_BY_CALLBACK) return fail("the daemon is stopping");
  if (result != CURLE_OK) return fail(error[0] != '\0' ? error.data() : curl_easy_strerror(result));
  if (status >= 400) return fail(fmt::format("the server answered HTTP {}", status));
  fetched.contents = std::move(download.body);
  return fetched;
}

}  // namespace corvane::sim
