#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "wps/spi/log_capture.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"
#include "wps/spi/testing/untrusted_tls_server.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace SPI {
namespace {

using namespace std::chrono_literals;
using zonara::testing::ClosedPort;
using zonara::testing::HttpResponse;
using zonara::testing::HttpTestServer;

// Short time-outs for every request of these tests, restored afterwards.
class CurlXmlHttpRequestTest : public ::testing::Test {
 protected:
  void SetUp() override { XmlHttpRequest::setDefaultTimeouts(3000, 3000); }
  void TearDown() override { XmlHttpRequest::setDefaultTimeouts(0, 0); }
};

// Collects the result of an asynchronous request.
struct Completion {
  std::mutex mu;
  std::condition_variable cv;
  bool done = false;
  int result = -999;
  std::thread::id thread;

  static void callback(int result, void* user) {
    auto* c = static_cast<Completion*>(user);
    std::lock_guard<std::mutex> lock(c->mu);
    c->done = true;
    c->result = result;
    c->thread = std::this_thread::get_id();
    c->cv.notify_all();
  }

  bool wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, timeout, [this] { return done; });
  }
};

TEST_F(CurlXmlHttpRequestTest, PostSendsBodyAndHeadersAndReadsTheResponse) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "<reply/>")
                     .withHeader("X-Padded", "  spaced value  ")
                     .withHeader("Content-Type", "text/xml; charset=utf-8"));
  // Binary bytes and a body large enough for an interim 100 Continue.
  std::string body = std::string("<a>\0\x01\xFF</a>", 10) + std::string(3000, 'x');

  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::POST, server.url("/wps2//location?q=1"), false), 0);
  request->setRequestHeader("Content-Type", "text/xml");
  request->setRequestHeader("User-Agent", "Agent/1.0");
  ASSERT_EQ(request->send(body.data(), body.size()), 0);

  EXPECT_EQ(request->getStatusCode(), 200);
  EXPECT_EQ(request->getStatusText(), "OK");
  EXPECT_EQ(request->getResponseHeader("x-padded"), "spaced value");
  EXPECT_EQ(request->getResponseHeader("CONTENT-TYPE"), "text/xml; charset=utf-8");
  EXPECT_EQ(request->getResponseHeader("Missing"), "");
  EXPECT_NE(request->getAllResponseHeaders().find("X-Padded: spaced value\r\n"), std::string::npos);
  const char* data = nullptr;
  unsigned long length = 0;
  ASSERT_EQ(request->getResponseText(data, length), 0);
  EXPECT_EQ(std::string(data, length), "<reply/>");

  auto received = server.lastRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->method, "POST");
  EXPECT_EQ(received->target, "/wps2//location?q=1");  // no normalisation
  EXPECT_EQ(received->body, body);
  EXPECT_EQ(received->header("Content-Type"), "text/xml");
  EXPECT_EQ(received->header("User-Agent"), "Agent/1.0");
  EXPECT_FALSE(received->header("Proxy-Authorization"));
}

TEST_F(CurlXmlHttpRequestTest, EveryStatusIsASuccessfulTransfer) {
  HttpTestServer server;
  for (int status : {200, 401, 403, 404, 407, 500}) {
    server.enqueue(HttpResponse(status, "body " + std::to_string(status)));
    auto request = XmlHttpRequest::newInstance();
    ASSERT_EQ(request->open(XmlHttpRequest::GET, server.url("/x"), false), 0);
    EXPECT_EQ(request->send(), 0) << status;
    EXPECT_EQ(request->getStatusCode(), status);
    EXPECT_EQ(request->getStatusText(), zonara::testing::StandardReason(status));
    const char* data = nullptr;
    unsigned long length = 0;
    ASSERT_EQ(request->getResponseText(data, length), 0);
    EXPECT_EQ(std::string(data, length), "body " + std::to_string(status));
  }
  EXPECT_EQ(server.requests()[0].method, "GET");
}

TEST_F(CurlXmlHttpRequestTest, HeadAsksForHeadersOnly) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "not sent").withHeader("ETag", "\"v1\""));
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::HEAD, server.url("/tile"), false), 0);
  ASSERT_EQ(request->send(), 0);
  EXPECT_EQ(server.lastRequest()->method, "HEAD");
  EXPECT_EQ(request->getResponseHeader("ETag"), "\"v1\"");
  const char* data = nullptr;
  unsigned long length = 99;
  ASSERT_EQ(request->getResponseText(data, length), 0);
  EXPECT_EQ(length, 0u);
}

TEST_F(CurlXmlHttpRequestTest, TransferFailuresMapToErrorNumbers) {
  ClosedPort closed;
  HttpTestServer garbage;
  garbage.setDefaultResponse(HttpResponse::rawBytes("this is not HTTP\r\n\r\n"));
  HttpTestServer slow;
  slow.setDefaultResponse(HttpResponse(200, "late").withDelay(2000ms));

  XmlHttpRequest::setDefaultTimeouts(3000, 300);
  const struct {
    const char* name;
    std::string url;
    int result;
  } cases[] = {
      {"connection refused", closed.url("/location"), XmlHttpRequest::kECONNREFUSED},
      {"server slower than the time-out", slow.url("/location"), XmlHttpRequest::kETIMEDOUT},
      {"unsupported protocol", "file:///etc/hostname", XmlHttpRequest::kEPROTONOSUPPORT},
      {"another unsupported protocol", "ftp://127.0.0.1:1/", XmlHttpRequest::kEPROTONOSUPPORT},
      {"a reply without status line (HTTP/0.9, refused)", garbage.url("/location"),
       XmlHttpRequest::kEPROTONOSUPPORT},
      {"malformed URL", "http://[::1/", -1},
  };
  for (const auto& c : cases) {
    auto request = XmlHttpRequest::newInstance();
    ASSERT_EQ(request->open(XmlHttpRequest::POST, c.url, false), 0) << c.name;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(request->send("<x/>", 4), c.result) << c.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms) << c.name;
    EXPECT_EQ(request->getStatusCode(), -1) << c.name;
    const char* data = nullptr;
    unsigned long length = 0;
    EXPECT_EQ(request->getResponseText(data, length), -1) << c.name;
  }
}

// A server whose certificate does not verify against the system's CA store
// gets no request: the handshake is abandoned.
TEST_F(CurlXmlHttpRequestTest, UnverifiableCertificateEndsTheExchange) {
  zonara::testing::UntrustedTlsServer tls;
  ASSERT_TRUE(tls.ok()) << tls.error();
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::POST, tls.url("/v1/geolocate"), false), 0);
  EXPECT_NE(request->send("{}", 2), 0);
  EXPECT_EQ(request->getStatusCode(), -1);
  EXPECT_TRUE(tls.rejectedHandshake(5s));
  EXPECT_EQ(tls.handshakesCompleted(), 0u);
}

// A self-signed positioning server named in the program's preferences is
// taken: the handshake completes (the test server then answers no HTTP).
// With the preference naming only another host, it is refused again.
TEST_F(CurlXmlHttpRequestTest, SelfSignedServerNamedInThePreferences) {
  zonara::testing::UntrustedTlsServer tls;
  ASSERT_TRUE(tls.ok()) << tls.error();
  zonara::testing::TempDir config("self_signed_preference");
  const char* old = std::getenv("XDG_CONFIG_HOME");
  const std::string saved = old ? old : "";
  setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
  std::ofstream(config.file(Logger::applicationDomain() + ".plist"))
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" << XmlHttpRequest::kSelfSignedServersKey
      << "</key><string>wps.example.org, 127.0.0.1</string></dict></plist>\n";
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::POST, tls.url("/location"), false), 0);
  SPI::LogCapture log("WPS.SPI.XmlHttpRequest.CurlXmlHttpRequest");
  EXPECT_NE(request->send("<a/>", 4), 0);
  // Past TLS: the transfer ends on the server's non-HTTP answer.
  EXPECT_TRUE(log.containsFragment("Received HTTP/0.9")) << (log.messages().empty() ? "" : log.messages().back());

  std::ofstream(config.file(Logger::applicationDomain() + ".plist"))
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" << XmlHttpRequest::kSelfSignedServersKey
      << "</key><string>localhost</string></dict></plist>\n";
  auto refused = XmlHttpRequest::newInstance();
  ASSERT_EQ(refused->open(XmlHttpRequest::POST, tls.url("/location"), false), 0);
  EXPECT_NE(refused->send("<a/>", 4), 0);
  EXPECT_TRUE(tls.rejectedHandshake(5s));
  if (old) {
    setenv("XDG_CONFIG_HOME", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CONFIG_HOME");
  }
}

TEST_F(CurlXmlHttpRequestTest, MisuseIsRefused) {
  auto request = XmlHttpRequest::newInstance();
  const char* data = nullptr;
  unsigned long length = 0;
  EXPECT_EQ(request->getResponseText(data, length), -1);
  EXPECT_EQ(request->setRequestHeader("A", "b"), 22);
  EXPECT_EQ(request->send(), 22);
  EXPECT_EQ(request->open(XmlHttpRequest::GET, "", false), 22);
  EXPECT_EQ(request->open(static_cast<XmlHttpRequest::HttpMethod>(7), "http://127.0.0.1:1/", false), 22);
  ASSERT_EQ(request->open(XmlHttpRequest::GET, "http://127.0.0.1:1/", false), 0);
  EXPECT_EQ(request->open(XmlHttpRequest::GET, "http://127.0.0.1:1/", false), 22);
  EXPECT_EQ(request->getStatusCode(), -1);
}

TEST_F(CurlXmlHttpRequestTest, ProxyGetsTheAbsoluteUrlAndCredentialsOnlyWhenSet) {
  HttpTestServer proxy;
  proxy.setDefaultResponse(HttpResponse::proxyAuthenticationRequired());
  const struct {
    const char* user;
    const char* password;
    std::optional<std::string> authorization;
  } cases[] = {
      {"", "", std::nullopt},
      {"joe", "secret", "Basic am9lOnNlY3JldA=="},
      {"joe", "", "Basic am9lOg=="},
  };
  for (const auto& c : cases) {
    auto request = XmlHttpRequest::newInstance();
    ASSERT_EQ(request->open(XmlHttpRequest::POST, "http://telluro.example/wps2/location", "127.0.0.1", proxy.port(),
                            c.user, c.password, false),
              0);
    EXPECT_EQ(request->send("<x/>", 4), 0);
    EXPECT_EQ(request->getStatusCode(), 407);
    auto received = proxy.lastRequest();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->target, "http://telluro.example/wps2/location");
    EXPECT_EQ(received->header("Proxy-Authorization"), c.authorization) << c.user;
  }
}

TEST_F(CurlXmlHttpRequestTest, AsynchronousSendCallsBackOnItsOwnThread) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "tile bytes"));
  Completion completion;
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::GET, server.url("/tile"), true), 0);
  request->setRequestCallback(&Completion::callback, &completion);
  ASSERT_EQ(request->send(), 0);
  ASSERT_TRUE(completion.wait(5s));
  EXPECT_EQ(completion.result, 0);
  EXPECT_NE(completion.thread, std::this_thread::get_id());
  const char* data = nullptr;
  unsigned long length = 0;
  ASSERT_EQ(request->getResponseText(data, length), 0);
  EXPECT_EQ(std::string(data, length), "tile bytes");
}

TEST_F(CurlXmlHttpRequestTest, AbortEndsAnAsynchronousRequestPromptly) {
  HttpTestServer server;
  server.setDefaultResponse(HttpResponse(200, "never").withDelay(10s));
  Completion completion;
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::GET, server.url("/slow"), true), 0);
  request->setRequestCallback(&Completion::callback, &completion);
  ASSERT_EQ(request->send(), 0);
  ASSERT_TRUE(server.waitForRequests(1, 2s));
  const auto start = std::chrono::steady_clock::now();
  request->abort();
  ASSERT_TRUE(completion.wait(1s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_EQ(completion.result, -1);
}

TEST_F(CurlXmlHttpRequestTest, DestroyingAPendingRequestAbortsAndWaits) {
  HttpTestServer server;
  server.setDefaultResponse(HttpResponse(200, "never").withDelay(10s));
  Completion completion;
  auto request = XmlHttpRequest::newInstance();
  ASSERT_EQ(request->open(XmlHttpRequest::GET, server.url("/slow"), true), 0);
  request->setRequestCallback(&Completion::callback, &completion);
  ASSERT_EQ(request->send(), 0);
  ASSERT_TRUE(server.waitForRequests(1, 2s));
  const auto start = std::chrono::steady_clock::now();
  request.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  // The callback has run by the time the destructor returns.
  EXPECT_TRUE(completion.done);
}

// A request may be destroyed from its own callback.
struct SelfDeleting {
  std::unique_ptr<XmlHttpRequest> request;
  Completion completion;
  static void callback(int result, void* user) {
    auto* self = static_cast<SelfDeleting*>(user);
    self->request.reset();
    Completion::callback(result, &self->completion);
  }
};

TEST_F(CurlXmlHttpRequestTest, CallbackMayDestroyItsRequest) {
  HttpTestServer server;
  server.setDefaultResponse(HttpResponse(200, "x"));
  for (int i = 0; i < 20; ++i) {
    SelfDeleting holder;
    holder.request = XmlHttpRequest::newInstance();
    ASSERT_EQ(holder.request->open(XmlHttpRequest::GET, server.url("/x"), true), 0);
    holder.request->setRequestCallback(&SelfDeleting::callback, &holder);
    XmlHttpRequest* raw = holder.request.get();
    ASSERT_EQ(raw->send(), 0);
    ASSERT_TRUE(holder.completion.wait(5s));
    EXPECT_EQ(holder.completion.result, 0);
  }
}

// A server that misbehaves once: the request fails with the expected result,
// leaves no body to read, says why in the log, and the next request to the
// same server (behaving again) succeeds.
TEST_F(CurlXmlHttpRequestTest, FaultyAnswersFailCleanlyAndTheServerIsUsableAfterwards) {
  constexpr uint64_t k50MB = 50ull * 1024 * 1024;
  auto stalled = [] {
    HttpResponse r(200, "<LocationRS/>");
    r.stallAfterHead = 3s;
    return r;
  };
  const struct {
    const char* name;
    HttpResponse response;
    int result;
    int status;           // getStatusCode afterwards
    const char* logged;   // a fragment of the error logged, or "" for none
  } cases[] = {
      {"connection reset", HttpResponse::connectionReset(), XmlHttpRequest::kECONNREFUSED, -1, ""},
      {"head, then silence past the time-out", stalled(), XmlHttpRequest::kETIMEDOUT, 200, "was cut short"},
      {"fewer bytes than announced", HttpResponse::rawBytes("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n<short"),
       -1, 200, "was cut short"},
      {"50 MB announced", HttpResponse::streamedBody(k50MB), XmlHttpRequest::kEFBIG, 200,
       "is larger than the limit of 4194304 bytes"},
      {"50 MB chunked", HttpResponse::streamedBody(k50MB, true), XmlHttpRequest::kEFBIG, 200,
       "is larger than the limit of 4194304 bytes"},
      {"garbage", HttpResponse::rawBytes(std::string("\x16\x03\x01\x00\xff garbage\r\n\r\n", 17)),
       XmlHttpRequest::kEPROTONOSUPPORT, -1, ""},
  };
  XmlHttpRequest::setDefaultTimeouts(2000, 500);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpTestServer server;
    server.enqueue(c.response);
    server.setDefaultResponse(HttpResponse(200, "<LocationRS/>"));
    LogCapture log("WPS.SPI.XmlHttpRequest.CurlXmlHttpRequest");
    auto request = XmlHttpRequest::newInstance();
    ASSERT_EQ(request->open(XmlHttpRequest::POST, server.url("/location"), false), 0);
    EXPECT_EQ(request->send("<x/>", 4), c.result);
    EXPECT_EQ(request->getStatusCode(), c.status);
    const char* data = nullptr;
    unsigned long length = 0;
    EXPECT_EQ(request->getResponseText(data, length), -1) << "no partial body passes for an answer";
    if (*c.logged != '\0') {
      EXPECT_TRUE(log.containsFragment(c.logged));
    }

    auto again = XmlHttpRequest::newInstance();
    ASSERT_EQ(again->open(XmlHttpRequest::POST, server.url("/location"), false), 0);
    ASSERT_EQ(again->send("<x/>", 4), 0);
    ASSERT_EQ(again->getResponseText(data, length), 0);
    EXPECT_EQ(std::string(data, length), "<LocationRS/>");
  }
}

TEST_F(CurlXmlHttpRequestTest, SizeLimitIsExactAndCanBeLiftedBeforeSending) {
  const std::string fiveMB(5u * 1024 * 1024, 'x');
  const struct {
    const char* name;
    unsigned long limit;
    HttpResponse response;
    int result;
    unsigned long length;
  } cases[] = {
      {"body exactly at the limit", 4, HttpResponse(200, "four"), 0, 4},
      {"one byte over", 4, HttpResponse(200, "fives"), XmlHttpRequest::kEFBIG, 0},
      {"one byte over, chunked", 4, HttpResponse::streamedBody(5, true), XmlHttpRequest::kEFBIG, 0},
      {"an error page over the limit is refused too", 4, HttpResponse(500, "broken"), XmlHttpRequest::kEFBIG, 0},
      {"no limit", 0, HttpResponse::streamedBody(fiveMB.size(), true), 0, 5u * 1024 * 1024},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpTestServer server;
    server.enqueue(c.response);
    auto request = XmlHttpRequest::newInstance();
    ASSERT_EQ(request->open(XmlHttpRequest::GET, server.url("/tile"), false), 0);
    ASSERT_EQ(request->setMaxResponseBytes(c.limit), 0);
    EXPECT_EQ(request->send(), c.result);
    const char* data = nullptr;
    unsigned long length = 0;
    EXPECT_EQ(request->getResponseText(data, length), c.result == 0 ? 0 : -1);
    EXPECT_EQ(length, c.length);
    EXPECT_EQ(request->setMaxResponseBytes(1), EINVAL) << "too late once sent";
  }
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
