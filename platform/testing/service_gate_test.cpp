#include "platform/testing/service_gate.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "wps/spi/testing/http_test_server.h"

namespace zonara::testing {
namespace {

using namespace std::chrono_literals;

size_t append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// GET `url`: the curl result and the body.
std::pair<CURLcode, std::string> get(const std::string& url, long timeoutMs = 5000) {
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  const CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return {rc, body};
}

TEST(ServiceGateTest, RelaysWhileOpenRefusesWhileClosedAndReopensOnTheSamePort) {
  HttpTestServer server([](const HttpRequest& r) { return HttpResponse(200, "hello " + r.path()); });
  ServiceGate gate(server.port());
  const uint16_t port = gate.port();
  EXPECT_NE(port, server.port());

  const std::string big(3 << 20, 'x');  // larger than any socket buffer
  server.setHandler([&](const HttpRequest& r) { return HttpResponse(200, r.path() == "/big" ? big : "hello"); });
  EXPECT_EQ(get(gate.url("/a")), std::make_pair(CURLE_OK, std::string("hello")));
  EXPECT_EQ(get(gate.url("/big")).second.size(), big.size());

  gate.close();
  EXPECT_FALSE(gate.isOpen());
  const size_t before = server.requestCount();
  EXPECT_EQ(get(gate.url("/a")).first, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(server.requestCount(), before);

  ASSERT_TRUE(gate.open());
  EXPECT_EQ(gate.port(), port);
  EXPECT_EQ(get(gate.url("/a")), std::make_pair(CURLE_OK, std::string("hello")));
  EXPECT_GE(gate.connectionCount(), 3u);
}

TEST(ServiceGateTest, ClosingCutsAConnectionThatIsWaitingForItsAnswer) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "late").withDelay(60s));
  ServiceGate gate(server.port());
  std::pair<CURLcode, std::string> result;
  std::thread client([&] { result = get(gate.url("/slow"), 30000); });
  ASSERT_TRUE(server.waitForRequests(1, 5s));
  gate.close();
  client.join();
  // Cut: the client sees the connection end, not its own time-out.
  EXPECT_EQ(result.first, CURLE_GOT_NOTHING);
}

}  // namespace
}  // namespace zonara::testing
