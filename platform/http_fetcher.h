// Synchronous HTTP GET requests.
//
// Thread safety: any thread; `fetch` blocks the caller.
#pragma once

#include <chrono>
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
// environment variables.
class CurlHttpFetcher final : public HttpFetcher {
 public:
  [[nodiscard]] std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout) override;
};

}  // namespace zonara
