#include "platform/http_fetcher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "platform/system_log.h"
#include "platform/testing/system_log_capture.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/untrusted_tls_server.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::ClosedPort;
using testing::HttpResponse;
using testing::HttpTestServer;

// Each fault gives no data and one log line naming the URL and the reason;
// the same fetcher then gets the answer once the server behaves.
TEST(CurlHttpFetcherTest, FaultsGiveNoDataALogLineAndDoNotOutliveTheFault) {
  constexpr uint64_t k50MB = 50ull * 1024 * 1024;
  auto stalled = [] {
    HttpResponse r(200, "<geonames/>");
    r.stallAfterHead = 3s;
    return r;
  };
  const struct {
    const char* name;
    HttpResponse response;
    const char* logged;
  } cases[] = {
      {"connection reset", HttpResponse::connectionReset(), "failed"},
      {"answer slower than the time-out", HttpResponse(200, "<geonames/>").withDelay(3s), "failed: Operation timed out"},
      {"head, then silence", stalled(), "failed: Operation timed out"},
      {"fewer bytes than announced", HttpResponse::rawBytes("HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n<geo"),
       "failed"},
      {"garbage instead of HTTP", HttpResponse::rawBytes("\x01\x02 no status line\r\n\r\n"), "failed"},
      {"empty answer", HttpResponse(200, ""), "failed: empty reply"},
      {"50 MB announced", HttpResponse::streamedBody(k50MB), "is larger than 4194304 bytes; ignored"},
      {"50 MB chunked", HttpResponse::streamedBody(k50MB, true), "is larger than 4194304 bytes; ignored"},
  };
  CurlHttpFetcher fetcher;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpTestServer server;
    server.enqueue(c.response);
    server.setDefaultResponse(HttpResponse(200, "<geonames/>"));
    testing::SystemLogCapture log;
    EXPECT_EQ(fetcher.fetch(server.url("/timezone"), 500ms), std::nullopt);
    EXPECT_TRUE(log.contains(server.url("/timezone"))) << "the URL is named";
    EXPECT_TRUE(log.contains(c.logged));
    EXPECT_EQ(fetcher.fetch(server.url("/timezone"), 2s), "<geonames/>");
  }
}

TEST(CurlHttpFetcherTest, ErrorPagesAreDataAndTheLimitIsExact) {
  const struct {
    const char* name;
    size_t limit;
    HttpResponse response;
    std::optional<std::string> expected;
  } cases[] = {
      {"an error page is data", 100, HttpResponse(503, "busy"), "busy"},
      {"exactly the limit", 4, HttpResponse(200, "four"), "four"},
      {"one byte over", 4, HttpResponse(200, "fives"), std::nullopt},
      {"one byte over, chunked", 4, HttpResponse::streamedBody(5, true), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpTestServer server;
    server.enqueue(c.response);
    testing::SystemLogCapture log;
    CurlHttpFetcher fetcher(c.limit);
    EXPECT_EQ(fetcher.fetch(server.url("/"), 2s), c.expected);
    EXPECT_EQ(log.size(), c.expected ? 0u : 1u);
  }
}

TEST(CurlHttpFetcherTest, RefusedConnectionIsLogged) {
  ClosedPort closed;
  testing::SystemLogCapture log;
  CurlHttpFetcher fetcher;
  EXPECT_EQ(fetcher.fetch(closed.url("/app/locate_my_ip"), 2s), std::nullopt);
  EXPECT_TRUE(log.contains("request to " + closed.url("/app/locate_my_ip") + " failed"));
}

// A server whose certificate does not verify against the system's CA store
// gets no request: the handshake is abandoned and the failure logged.
TEST(CurlHttpFetcherTest, UnverifiableCertificateGivesNoData) {
  testing::UntrustedTlsServer tls;
  ASSERT_TRUE(tls.ok()) << tls.error();
  testing::SystemLogCapture log;
  CurlHttpFetcher fetcher;
  EXPECT_EQ(fetcher.fetch(tls.url("/timezone"), 2s), std::nullopt);
  EXPECT_TRUE(log.contains("request to " + tls.url("/timezone") + " failed"));
  EXPECT_TRUE(tls.rejectedHandshake(5s));
  EXPECT_EQ(tls.handshakesCompleted(), 0u);
}

}  // namespace
}  // namespace zonara
