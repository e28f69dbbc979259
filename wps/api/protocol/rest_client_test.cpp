#include "wps/api/protocol/rest_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "wps/api/protocol/config.h"
#include "wps/api/protocol/location_client.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/testing/http_test_server.h"

namespace WPS {
namespace API {
namespace {

using namespace std::chrono_literals;
using SPI::LogCapture;
using SPI::XmlHttpRequest;
using zonara::testing::ClosedPort;
using zonara::testing::HttpResponse;
using zonara::testing::HttpTestServer;

class RESTClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    XmlHttpRequest::setDefaultTimeouts(3000, 3000);
    RESTClient::setServerUrl(server.url("/wps2/").c_str());
    RESTClient::setUserAgent("Zonara-Test/1");
    RESTClient::setProxy(nullptr, 0, nullptr, nullptr);
  }
  void TearDown() override {
    RESTClient::setServerUrl(nullptr);
    RESTClient::setUserAgent(nullptr);
    XmlHttpRequest::setDefaultTimeouts(0, 0);
  }

  HttpTestServer server;
};

// Records what an asynchronous request delivered.
class RecordingCallback : public RESTClient::Callback {
 public:
  ~RecordingCallback() override { abortAndWait(); }

  bool wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, [this] { return done_; });
  }
  void reset() {
    std::lock_guard<std::mutex> lock(mu_);
    done_ = false;
  }
  std::string body;
  int error = 0;
  bool succeeded = false;

 protected:
  void onSuccess(const char* data, unsigned long length) override {
    std::lock_guard<std::mutex> lock(mu_);
    body.assign(data, length);
    succeeded = true;
    done_ = true;
    cv_.notify_all();
  }
  void onFailure(int e) override {
    std::lock_guard<std::mutex> lock(mu_);
    error = e;
    succeeded = false;
    done_ = true;
    cv_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool done_ = false;
};

TEST(ConnectionSettings, SettersFollowTheRulesAndLog) {
  LogCapture log("Test.Settings");
  ConnectionSettings settings(SPI::Logger::getLogger("Test.Settings"), "https://default.example/", "Default UA");
  EXPECT_EQ(settings.values().serverUrl, "https://default.example/");
  EXPECT_EQ(settings.values().userAgent, "Default UA");

  settings.setUserAgent("");
  EXPECT_TRUE(log.contains("user agent set blank"));
  EXPECT_EQ(settings.values().userAgent, "");
  settings.setUserAgent("Mine");
  EXPECT_TRUE(log.contains("user agent set to Mine"));
  settings.setUserAgent(nullptr);
  EXPECT_EQ(settings.values().userAgent, "Default UA");

  settings.setServerUrl("");
  EXPECT_TRUE(log.contains("network mode disabled"));
  EXPECT_EQ(settings.values().serverUrl, "");
  settings.setServerUrl("http://other.example/x/");
  EXPECT_TRUE(log.contains("server url set to http://other.example/x/"));
  settings.setServerUrl(nullptr);
  EXPECT_EQ(settings.values().serverUrl, "https://default.example/");

  settings.setProxy("proxy.example", 8080, nullptr, nullptr);
  EXPECT_TRUE(log.contains("proxy set to proxy.example: 8080"));
  auto v = settings.values();
  EXPECT_EQ(v.proxyAddress, "proxy.example:8080");
  EXPECT_EQ(v.proxyHost, "proxy.example");
  EXPECT_EQ(v.proxyPort, 8080);
  EXPECT_EQ(v.proxyUser, "");
  EXPECT_EQ(v.proxyPassword, "");
  settings.setProxy("proxy.example", 3128, "joe", "pw");
  EXPECT_EQ(settings.values().proxyUser, "joe");
  EXPECT_EQ(settings.values().proxyPassword, "pw");
  for (const char* host : {static_cast<const char*>(nullptr), ""}) {
    log.clear();
    settings.setProxy(host, 1, "u", "p");
    EXPECT_TRUE(log.contains("proxy settings resetted"));
    v = settings.values();
    EXPECT_EQ(v.proxyAddress, "");
    EXPECT_EQ(v.proxyUser, "");
    EXPECT_EQ(v.proxyPassword, "");
  }
}

TEST(LocationClient, StartsWithTheServiceDefaults) {
  LocationClient& client = LocationClient::getInstance();
  EXPECT_EQ(&client, &LocationClient::getInstance());
  client.set_server_url(nullptr);
  client.set_user_agent(nullptr);
  EXPECT_EQ(client.settings().serverUrl, kDefaultServerUrl);
  EXPECT_EQ(client.settings().userAgent, defaultUserAgent());
  EXPECT_TRUE(client.isNetworkModeEnabled());
  {
    LogCapture log("WPS.API.LocationClient");
    client.set_server_url("");
    EXPECT_TRUE(log.contains("network mode disabled"));
    EXPECT_FALSE(client.isNetworkModeEnabled());
  }
  client.set_server_url(nullptr);
  EXPECT_TRUE(client.isNetworkModeEnabled());
}

TEST_F(RESTClientTest, SynchronousPostParsesA200Reply) {
  server.enqueue(HttpResponse(200, "<?xml version='1.0'?><LocationRS><x>1</x></LocationRS>"));
  std::unique_ptr<SPI::DOMDocument> document;
  const std::string body = "<?xml version='1.0'?><LocationRQ/>";
  ASSERT_EQ(RESTClient::post("/location", body.data(), body.size(), document), 0);
  ASSERT_TRUE(document);
  EXPECT_EQ(document->getDocumentElement()->getLocalName(), "LocationRS");

  auto received = server.lastRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->method, "POST");
  EXPECT_EQ(received->target, "/wps2//location");  // URL + path, nothing normalised
  EXPECT_EQ(received->body, body);
  EXPECT_EQ(received->header("Content-Type"), "text/xml");
  EXPECT_EQ(received->header("User-Agent"), "Zonara-Test/1");
}

TEST_F(RESTClientTest, SynchronousPostFailures) {
  const struct {
    const char* name;
    HttpResponse response;
    int result;
    const char* logged;
  } cases[] = {
      {"404 with a body", HttpResponse(404, "<LocationRS/>"), 404, "server returned 404 Not Found"},
      {"500", HttpResponse(500, ""), 500, "server returned 500 Internal Server Error"},
      {"200 that is not XML", HttpResponse(200, "<html"), -1, "failed to parse response"},
  };
  for (const auto& c : cases) {
    LogCapture log("WPS.API.RESTClient");
    server.enqueue(c.response);
    std::unique_ptr<SPI::DOMDocument> document;
    EXPECT_EQ(RESTClient::post("/location", "<x/>", 4, document), c.result) << c.name;
    EXPECT_FALSE(document) << c.name;
    EXPECT_TRUE(log.contains(c.logged)) << c.name;
  }

  ClosedPort closed;
  RESTClient::setServerUrl(closed.url().c_str());
  LogCapture log("WPS.API.RESTClient");
  std::unique_ptr<SPI::DOMDocument> document;
  EXPECT_EQ(RESTClient::post("/location", "<x/>", 4, document), XmlHttpRequest::kECONNREFUSED);
  EXPECT_TRUE(log.contains("couldn't send request, error 61"));
}

TEST_F(RESTClientTest, OpenFailureIsLoggedWithTheUrl) {
  RESTClient::setServerUrl("");
  LogCapture log("WPS.API.RESTClient");
  EXPECT_FALSE(RESTClient::open(XmlHttpRequest::GET, "", false));
  EXPECT_TRUE(log.contains("failed (22) to open request to "));
  std::string body;
  EXPECT_EQ(RESTClient::get("", body), -1);
}

TEST_F(RESTClientTest, HeadersWithoutUserAgentAndForGet) {
  RESTClient::setUserAgent("");
  server.enqueue(HttpResponse(200, "raw tile"));
  std::string body;
  ASSERT_EQ(RESTClient::get("/tiles/1", body), 0);
  EXPECT_EQ(body, "raw tile");
  auto received = server.lastRequest();
  EXPECT_EQ(received->method, "GET");
  EXPECT_EQ(received->header("Content-Type"), "text/xml");  // on every request, GETs included
  EXPECT_FALSE(received->header("User-Agent"));
}

TEST_F(RESTClientTest, ProxyWithoutCredentialsSendsNoProxyAuthentication) {
  HttpTestServer proxy;
  proxy.setDefaultResponse(HttpResponse::proxyAuthenticationRequired());
  RESTClient::setServerUrl("http://telluro.example/wps2");
  RESTClient::setProxy("127.0.0.1", proxy.port(), nullptr, nullptr);
  std::string body;
  EXPECT_EQ(RESTClient::get("/tiles/1", body), 407);
  auto received = proxy.lastRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->target, "http://telluro.example/wps2/tiles/1");
  EXPECT_FALSE(received->header("Proxy-Authorization"));

  RESTClient::setProxy("127.0.0.1", proxy.port(), "joe", "secret");
  EXPECT_EQ(RESTClient::get("/tiles/1", body), 407);
  EXPECT_EQ(proxy.lastRequest()->header("Proxy-Authorization"), "Basic am9lOnNlY3JldA==");
  RESTClient::setProxy(nullptr, 0, nullptr, nullptr);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(RESTClientTest, AsynchronousGetDeliversTheBody) {
  server.enqueue(HttpResponse(200, "tile data"));
  RecordingCallback callback;
  ASSERT_EQ(RESTClient::get("/tiles/7", &callback), 0);
  ASSERT_TRUE(callback.wait(5s));
  EXPECT_TRUE(callback.succeeded);
  EXPECT_EQ(callback.body, "tile data");
  EXPECT_FALSE(callback.isPending());

  // The same callback may be used again once it is no longer pending.
  callback.reset();
  server.enqueue(HttpResponse(404, "gone"));
  ASSERT_EQ(RESTClient::get("/tiles/8", &callback), 0);
  ASSERT_TRUE(callback.wait(5s));
  EXPECT_FALSE(callback.succeeded);
  EXPECT_EQ(callback.error, 404);
}

TEST_F(RESTClientTest, AsynchronousPostSendsItsBody) {
  server.enqueue(HttpResponse(200, "<ok/>"));
  RecordingCallback callback;
  ASSERT_EQ(RESTClient::post("/tiling", "<TilingRQ/>", 11, &callback), 0);
  ASSERT_TRUE(callback.wait(5s));
  EXPECT_EQ(callback.body, "<ok/>");
  EXPECT_EQ(server.lastRequest()->body, "<TilingRQ/>");
}

TEST_F(RESTClientTest, NullAndPendingCallbacksAreRefused) {
  {
    LogCapture log("WPS.API.RESTClient");
    EXPECT_EQ(RESTClient::get("/x", static_cast<RESTClient::Callback*>(nullptr)), -1);
    EXPECT_TRUE(log.contains("get() called with null callback"));
  }
  server.setDefaultResponse(HttpResponse(200, "slow").withDelay(10s));
  RecordingCallback callback;
  ASSERT_EQ(RESTClient::get("/first", &callback), 0);
  EXPECT_TRUE(callback.isPending());
  {
    LogCapture log("WPS.API.RESTClient");
    EXPECT_EQ(RESTClient::get("/second", &callback), -1);
    EXPECT_TRUE(log.contains("get() called with pending callback"));
  }
  ASSERT_TRUE(server.waitForRequests(1, 2s));
  // Abort ends it promptly with a failure.
  LogCapture log("WPS.API.RESTClient");
  const auto start = std::chrono::steady_clock::now();
  callback.abort();
  ASSERT_TRUE(callback.wait(1s));
  EXPECT_TRUE(log.contains("request failed, error -1"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_FALSE(callback.succeeded);
  EXPECT_EQ(callback.error, -1);
  EXPECT_EQ(server.requestCount(), 1u);  // the second never went out
}

TEST_F(RESTClientTest, DestroyingAPendingCallbackAbortsPromptly) {
  server.setDefaultResponse(HttpResponse(200, "slow").withDelay(10s));
  auto callback = std::make_unique<RecordingCallback>();
  ASSERT_EQ(RESTClient::get("/slow", callback.get()), 0);
  ASSERT_TRUE(server.waitForRequests(1, 2s));
  const auto start = std::chrono::steady_clock::now();
  callback.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
}

// A handler may start the next request from inside its own handler.
class ChainingCallback : public RecordingCallback {
 public:
  ~ChainingCallback() override { abortAndWait(); }
  int remaining = 3;
  std::vector<std::string> bodies;

 protected:
  void onSuccess(const char* data, unsigned long length) override {
    bodies.emplace_back(data, length);
    if (--remaining > 0 && RESTClient::get("/next", this) == 0) return;
    RecordingCallback::onSuccess(data, length);
  }
};

TEST_F(RESTClientTest, HandlerMayChainTheNextRequest) {
  server.setDefaultResponse(HttpResponse(200, "part"));
  ChainingCallback callback;
  ASSERT_EQ(RESTClient::get("/first", &callback), 0);
  ASSERT_TRUE(callback.wait(5s));
  EXPECT_EQ(callback.bodies.size(), 3u);
  EXPECT_EQ(server.requestCount(), 3u);
}

TEST_F(RESTClientTest, DestroyingAChainingCallbackStopsTheChain) {
  server.setDefaultResponse(HttpResponse(200, "part").withDelay(200ms));
  auto callback = std::make_unique<ChainingCallback>();
  callback->remaining = 1000;
  ASSERT_EQ(RESTClient::get("/first", callback.get()), 0);
  ASSERT_TRUE(server.waitForRequests(2, 2s));
  const auto start = std::chrono::steady_clock::now();
  callback.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  const size_t made = server.requestCount();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(server.requestCount(), made);  // nothing started after destruction
}

}  // namespace
}  // namespace API
}  // namespace WPS
