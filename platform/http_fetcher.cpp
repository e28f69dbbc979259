#include "platform/http_fetcher.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace zonara {
namespace {

size_t append(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

struct CurlDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};

}  // namespace

std::optional<std::string> CurlHttpFetcher::fetch(const std::string& url, std::chrono::milliseconds timeout) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
  if (!curl) return std::nullopt;
  std::string body;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "Zonara");
  if (curl_easy_perform(curl.get()) != CURLE_OK || body.empty()) return std::nullopt;
  return body;
}

}  // namespace zonara
