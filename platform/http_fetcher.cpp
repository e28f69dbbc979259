#include "platform/http_fetcher.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

#include "platform/system_log.h"

namespace zonara {
namespace {

struct Body {
  std::string bytes;
  size_t limit = 0;
  bool tooLarge = false;
};

size_t append(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<Body*>(user);
  const size_t n = size * count;
  if (n > body->limit - body->bytes.size()) {
    body->tooLarge = true;
    return 0;  // anything but `n` ends the transfer
  }
  body->bytes.append(data, n);
  return n;
}

// Non-zero ends the transfer.
int abortWhenAsked(void* aborted, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<std::atomic<bool>*>(aborted)->load() ? 1 : 0;
}

struct CurlDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};

}  // namespace

std::optional<std::string> CurlHttpFetcher::fetch(const std::string& url, std::chrono::milliseconds timeout) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  if (aborted_) return std::nullopt;
  std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
  if (!curl) {
    SystemLogAt(LogPriority::Error, "request to %s failed: no HTTP handle", url.c_str());
    return std::nullopt;
  }
  Body body;
  body.limit = maxBodyBytes_;
  char error[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error);
  // An announced length over the limit is refused before any body arrives.
  curl_easy_setopt(curl.get(), CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBodyBytes_));
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  // Certificates are verified against the system's CA store (libcurl's
  // default, stated so that no build configuration can drop it).
  curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "Zonara");
  curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, &abortWhenAsked);
  curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &aborted_);
  curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
  const CURLcode code = curl_easy_perform(curl.get());
  if (body.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
    SystemLogAt(LogPriority::Error, "response from %s is larger than %zu bytes; ignored", url.c_str(), maxBodyBytes_);
    return std::nullopt;
  }
  if (code != CURLE_OK) {
    SystemLogAt(LogPriority::Warning, "request to %s failed: %s", url.c_str(),
                error[0] != '\0' ? error : curl_easy_strerror(code));
    return std::nullopt;
  }
  if (body.bytes.empty()) {
    SystemLogAt(LogPriority::Warning, "request to %s failed: empty reply", url.c_str());
    return std::nullopt;
  }
  return std::move(body.bytes);
}

}  // namespace zonara
