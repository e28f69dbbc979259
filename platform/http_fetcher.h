// Synchronous HTTP GET requests.
//
// Thread safety: any thread; `fetch` blocks the caller.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace zonara {

class HttpFetcher {
 public:
  virtual ~HttpFetcher() = default;
  // Fetches `url`. Returns the body when the exchange completed with a
  // non-empty body (whatever the status code: an error page is data too), and
  // nullopt when the connection failed, timed out or nothing came back.
  [[nodiscard]] virtual std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout) = 0;
};

// libcurl's easy interface; follows redirects, honours the usual proxy
// environment variables. A body larger than `maxBodyBytes` is not data: the
// transfer stops as soon as the size is known to be exceeded (nothing beyond
// the limit is ever held) and fetch gives nullopt. Every failed fetch is
// logged to the system log with the URL and the reason.
class CurlHttpFetcher final : public HttpFetcher {
 public:
  // Far more than a time-zone answer or an IP-location page ever needs.
  static constexpr size_t kDefaultMaxBodyBytes = 4 * 1024 * 1024;

  explicit CurlHttpFetcher(size_t maxBodyBytes = kDefaultMaxBodyBytes) : maxBodyBytes_(maxBodyBytes) {}
  [[nodiscard]] std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout) override;

  // Ends every transfer in progress (within about a second: libcurl checks
  // between reads and at least once a second while waiting) and makes every
  // later fetch fail at once. For shutting down while a worker waits on a
  // slow server. Any thread.
  void abortTransfers() { aborted_ = true; }

 private:
  size_t maxBodyBytes_;
  std::atomic<bool> aborted_{false};
};

}  // namespace zonara
