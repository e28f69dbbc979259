#include "wps/spi/testing/http_test_server.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zonara::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// --- a minimal raw client -----------------------------------------------------

class RawClient {
 public:
  explicit RawClient(uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  [[nodiscard]] bool connected() const { return connected_; }
  void send(const std::string& bytes) { ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size())); }

  // Everything until the server closes (or `timeout` without data).
  std::string readToEnd(std::chrono::milliseconds timeout = 5s) {
    std::string out;
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return out;
      char buf[4096];
      ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) {
        lastReadErrno_ = n < 0 ? errno : 0;
        return out;
      }
      out.append(buf, static_cast<size_t>(n));
    }
  }
  // errno of the read that ended readToEnd (0 for an orderly close).
  [[nodiscard]] int lastReadErrno() const { return lastReadErrno_; }

  // Reads until `needle` has arrived (or `timeout`).
  std::string readUntil(const std::string& needle, std::chrono::milliseconds timeout = 5s) {
    std::string out;
    while (out.find(needle) == std::string::npos) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) break;
      char buf[4096];
      ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  int lastReadErrno_ = 0;
};

// --- libcurl ---------------------------------------------------------------------

struct CurlDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using CurlPtr = std::unique_ptr<CURL, CurlDeleter>;

struct CurlSlist {
  curl_slist* list = nullptr;
  ~CurlSlist() { curl_slist_free_all(list); }
  void add(const char* s) { list = curl_slist_append(list, s); }
};

struct Fetched {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string headers;
  std::string body;
};

size_t Append(char* data, size_t size, size_t n, void* target) {
  static_cast<std::string*>(target)->append(data, size * n);
  return size * n;
}

CurlPtr NewHandle() {
  CurlPtr h(curl_easy_init());
  curl_easy_setopt(h.get(), CURLOPT_PROXY, "");  // never an environment proxy
  curl_easy_setopt(h.get(), CURLOPT_TIMEOUT_MS, 10000L);
  return h;
}

Fetched Perform(CURL* h, const std::string& url) {
  Fetched f;
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, Append);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &f.body);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, Append);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &f.headers);
  f.code = curl_easy_perform(h);
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &f.status);
  return f;
}

Fetched Get(const std::string& url) {
  CurlPtr h = NewHandle();
  return Perform(h.get(), url);
}

// --- tests -----------------------------------------------------------------------

TEST(HttpTestServerTest, ScriptedResponsesArriveInOrderThenHandlerThenDefault) {
  HttpTestServer server;
  struct Case {
    HttpResponse response;
    long status;
    const char* headerLine;
    const char* body;
  };
  std::vector<Case> cases;
  cases.push_back({HttpResponse(200, "<ok/>").withHeader("Content-Type", "text/xml"), 200,
                   "Content-Type: text/xml\r\n", "<ok/>"});
  cases.push_back({HttpResponse(401, "denied").withReason("Go Away"), 401, "HTTP/1.1 401 Go Away\r\n", "denied"});
  cases.push_back({HttpResponse(500, ""), 500, "HTTP/1.1 500 Internal Server Error\r\n", ""});
  cases.push_back({HttpResponse(204, "ignored"), 204, "HTTP/1.1 204 No Content\r\n", ""});
  cases.push_back({HttpResponse(200, std::string("\0\x01\xff", 3)).withHeader("X-Custom", "a, b"), 200,
                   "X-Custom: a, b\r\n", nullptr});
  for (const auto& c : cases) server.enqueue(c.response);
  EXPECT_EQ(server.pendingResponses(), cases.size());

  for (const auto& c : cases) {
    SCOPED_TRACE(c.headerLine);
    Fetched f = Get(server.url("/x"));
    ASSERT_EQ(f.code, CURLE_OK) << curl_easy_strerror(f.code);
    EXPECT_EQ(f.status, c.status);
    EXPECT_THAT(f.headers, HasSubstr(c.headerLine));
    EXPECT_EQ(f.body, c.body ? std::string(c.body) : std::string("\0\x01\xff", 3));
  }
  EXPECT_EQ(server.pendingResponses(), 0u);

  // Queue empty, no handler: the default.
  EXPECT_EQ(Get(server.url("/none")).status, 404);
  server.setDefaultResponse(HttpResponse(503, "busy"));
  EXPECT_EQ(Get(server.url("/none")).body, "busy");

  // A handler sees the request; a queued response still goes first.
  server.setHandler([](const HttpRequest& r) { return HttpResponse(200, "echo " + r.path() + " " + r.query()); });
  server.enqueue(HttpResponse(202, "queued"));
  EXPECT_EQ(Get(server.url("/a")).body, "queued");
  EXPECT_EQ(Get(server.url("/p/q?x=1&y=2")).body, "echo /p/q x=1&y=2");
  EXPECT_EQ(server.requestCount(), cases.size() + 4);
}

TEST(HttpTestServerTest, PostBodyIsRecordedByteForByte) {
  HttpTestServer server;
  std::string body;
  for (int i = 0; i < 1500000; ++i) body.push_back(static_cast<char>((i * 7919) & 0xFF));
  for (const std::string& payload : {std::string("<a>x</a>"), std::string("\0\r\n\r\n\0", 6), body}) {
    SCOPED_TRACE(payload.size());
    server.clearRequests();
    CurlPtr h = NewHandle();
    CurlSlist headers;
    headers.add("Content-Type: text/xml");
    curl_easy_setopt(h.get(), CURLOPT_HTTPHEADER, headers.list);
    curl_easy_setopt(h.get(), CURLOPT_POSTFIELDS, payload.data());
    curl_easy_setopt(h.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(payload.size()));
    Fetched f = Perform(h.get(), server.url("/location"));
    ASSERT_EQ(f.code, CURLE_OK) << curl_easy_strerror(f.code);
    auto r = server.lastRequest();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->method, "POST");
    EXPECT_EQ(r->target, "/location");
    EXPECT_EQ(r->header("content-type"), "text/xml");
    EXPECT_EQ(r->body.size(), payload.size());
    EXPECT_TRUE(r->body == payload);
    EXPECT_FALSE(r->chunked);
    // libcurl asks for "100 Continue" before a body this large.
    if (payload.size() > 1024 * 1024) {
      EXPECT_EQ(r->header("Expect"), "100-continue");
    }
  }
}

TEST(HttpTestServerTest, ChunkedBodyWithExpectContinueIsDecoded) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "done"));
  RawClient client(server.port());
  ASSERT_TRUE(client.connected());
  client.send(
      "PUT /up HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nExpect: 100-continue\r\n"
      "Connection: close\r\n\r\n");
  EXPECT_EQ(client.readUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.send("5;ext=1\r\nhello\r\nA\r\n, chunked!\r\n0\r\nTrailer: t\r\n\r\n");
  std::string reply = client.readToEnd();
  EXPECT_THAT(reply, HasSubstr("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(reply, HasSubstr("Connection: close\r\n"));
  EXPECT_THAT(reply, HasSubstr("\r\n\r\ndone"));
  auto r = server.lastRequest();
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->body, "hello, chunked!");
  EXPECT_TRUE(r->chunked);
}

TEST(HttpTestServerTest, HeadersAreRecordedInOrderWithOriginalCase) {
  HttpTestServer server;
  RawClient client(server.port());
  client.send("GET /p?q=%20x HTTP/1.1\r\nHost: h\r\nX-First: 1\r\nx-SECOND:   two words  \r\nX-First: again\r\n"
              "Connection: close\r\n\r\n");
  (void)client.readToEnd();
  auto r = server.lastRequest();
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->target, "/p?q=%20x");
  EXPECT_EQ(r->version, "HTTP/1.1");
  EXPECT_THAT(r->headers, ElementsAre(HttpHeader{"Host", "h"}, HttpHeader{"X-First", "1"},
                                      HttpHeader{"x-SECOND", "two words"}, HttpHeader{"X-First", "again"},
                                      HttpHeader{"Connection", "close"}));
  EXPECT_EQ(r->header("x-first"), "1");
  EXPECT_FALSE(r->header("missing").has_value());
}

TEST(HttpTestServerTest, KeepAliveHeadAndConnectionClose) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "first"));
  server.enqueue(HttpResponse(200, "a body HEAD must not send"));
  server.enqueue(HttpResponse(200, "third"));
  server.enqueue(HttpResponse(200, "closing").closing());
  server.enqueue(HttpResponse(200, "fifth"));

  CurlPtr h = NewHandle();
  EXPECT_EQ(Perform(h.get(), server.url("/1")).body, "first");
  curl_easy_setopt(h.get(), CURLOPT_NOBODY, 1L);
  Fetched head = Perform(h.get(), server.url("/2"));
  EXPECT_EQ(head.code, CURLE_OK);
  EXPECT_THAT(head.headers, HasSubstr("Content-Length: 25\r\n"));
  EXPECT_EQ(head.body, "");
  curl_easy_setopt(h.get(), CURLOPT_HTTPGET, 1L);
  // If the HEAD answer had carried a body, this reply would be garbled.
  EXPECT_EQ(Perform(h.get(), server.url("/3")).body, "third");
  Fetched closing = Perform(h.get(), server.url("/4"));
  EXPECT_EQ(closing.body, "closing");
  EXPECT_THAT(closing.headers, HasSubstr("Connection: close\r\n"));
  EXPECT_EQ(Perform(h.get(), server.url("/5")).body, "fifth");

  auto rs = server.requests();
  ASSERT_EQ(rs.size(), 5u);
  EXPECT_EQ(rs[1].method, "HEAD");
  // One connection for the first four, a new one after the close.
  EXPECT_EQ(rs[0].connection, rs[3].connection);
  EXPECT_NE(rs[3].connection, rs[4].connection);
  EXPECT_EQ(server.connectionCount(), 2u);
}

TEST(HttpTestServerTest, Http10RequestIsAnsweredAndClosed) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "old"));
  RawClient client(server.port());
  client.send("GET / HTTP/1.0\r\n\r\n");
  std::string reply = client.readToEnd();  // returns because the server closes
  EXPECT_THAT(reply, HasSubstr("Connection: close\r\n"));
  EXPECT_THAT(reply, HasSubstr("\r\n\r\nold"));
}

TEST(HttpTestServerTest, MalformedRequestsGet400AndAreNotRecorded) {
  HttpTestServer server;
  for (const char* bad : {"NONSENSE\r\n\r\n", "GET / FTP/1.0\r\n\r\n", "GET / HTTP/1.1\r\nno colon\r\n\r\n",
                          "POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
                          "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
    SCOPED_TRACE(bad);
    RawClient client(server.port());
    client.send(bad);
    EXPECT_THAT(client.readToEnd(), HasSubstr("HTTP/1.1 400 Bad Request\r\n"));
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST(HttpTestServerTest, RawBytesAreSentVerbatim) {
  HttpTestServer server;
  server.enqueue(HttpResponse::rawBytes("HTTP/1.1 2OO Bogus\r\n\r\nxyz"));
  RawClient client(server.port());
  client.send("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(client.readToEnd(), "HTTP/1.1 2OO Bogus\r\n\r\nxyz");
}

size_t Count(char*, size_t size, size_t n, void* target) {
  *static_cast<uint64_t*>(target) += size * n;
  return size * n;
}

TEST(HttpTestServerTest, FaultModesAsAClientSeesThem) {
  const uint64_t kLarge = 3u * 1024 * 1024 + 17;  // not a whole number of pieces
  const struct {
    const char* name;
    HttpResponse response;
    CURLcode code;
    long status;         // as far as the client got
    uint64_t bodyBytes;  // received
    bool headSaysLength;
  } cases[] = {
      {"reset instead of an answer", HttpResponse::connectionReset(), CURLE_RECV_ERROR, 0, 0, false},
      {"streamed body with its length", HttpResponse::streamedBody(kLarge), CURLE_OK, 200, kLarge, true},
      {"streamed body, chunked", HttpResponse::streamedBody(kLarge, true), CURLE_OK, 200, kLarge, false},
      {"stall after the head beyond the time-out",
       [] {
         HttpResponse r(200, "tail");
         r.stallAfterHead = 5s;
         return r;
       }(),
       CURLE_OPERATION_TIMEDOUT, 200, 0, true},
      {"short stall, then the body",
       [] {
         HttpResponse r(200, "tail");
         r.stallAfterHead = 100ms;
         return r;
       }(),
       CURLE_OK, 200, 4, true},
  };
  for (const auto& c : cases) {
    HttpTestServer server;
    server.enqueue(c.response);
    CurlPtr h = NewHandle();
    uint64_t received = 0;
    std::string headers;
    curl_easy_setopt(h.get(), CURLOPT_URL, server.url("/fault").c_str());
    curl_easy_setopt(h.get(), CURLOPT_TIMEOUT_MS, 600L);
    curl_easy_setopt(h.get(), CURLOPT_WRITEFUNCTION, Count);
    curl_easy_setopt(h.get(), CURLOPT_WRITEDATA, &received);
    curl_easy_setopt(h.get(), CURLOPT_HEADERFUNCTION, Append);
    curl_easy_setopt(h.get(), CURLOPT_HEADERDATA, &headers);
    const CURLcode code = curl_easy_perform(h.get());
    long status = 0;
    curl_easy_getinfo(h.get(), CURLINFO_RESPONSE_CODE, &status);
    EXPECT_EQ(code, c.code) << c.name << ": " << curl_easy_strerror(code);
    EXPECT_EQ(status, c.status) << c.name;
    EXPECT_EQ(received, c.bodyBytes) << c.name;
    EXPECT_EQ(headers.find("Content-Length: ") != std::string::npos, c.headSaysLength) << c.name << headers;
    EXPECT_EQ(server.requestCount(), 1u) << c.name;
  }
}

TEST(HttpTestServerTest, ResetConnectionIsARealResetNotAnOrderlyClose) {
  HttpTestServer server;
  server.enqueue(HttpResponse::connectionReset());
  RawClient client(server.port());
  client.send("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(client.readToEnd(), "");
  EXPECT_EQ(client.lastReadErrno(), ECONNRESET);
}

TEST(HttpTestServerTest, ActsAsProxyAnswering407ToAbsoluteFormAndConnect) {
  HttpTestServer proxy;
  proxy.setHandler([](const HttpRequest&) { return HttpResponse::proxyAuthenticationRequired("zonara"); });

  CurlPtr h = NewHandle();
  curl_easy_setopt(h.get(), CURLOPT_PROXY, proxy.url().c_str());
  Fetched f = Perform(h.get(), "http://wps.telluro.example:8080/location?id=1");
  EXPECT_EQ(f.code, CURLE_OK);
  EXPECT_EQ(f.status, 407);
  EXPECT_THAT(f.headers, HasSubstr("Proxy-Authenticate: Basic realm=\"zonara\"\r\n"));
  auto r = proxy.lastRequest();
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->method, "GET");
  EXPECT_EQ(r->target, "http://wps.telluro.example:8080/location?id=1");
  EXPECT_EQ(r->path(), "/location");
  EXPECT_EQ(r->query(), "id=1");
  EXPECT_FALSE(r->header("Proxy-Authorization").has_value());

  // HTTPS through the proxy starts with CONNECT; the 407 ends it.
  CurlPtr tls = NewHandle();
  curl_easy_setopt(tls.get(), CURLOPT_PROXY, proxy.url().c_str());
  Fetched t = Perform(tls.get(), "https://api.telluro.example/wps2/location");
  EXPECT_NE(t.code, CURLE_OK);
  r = proxy.lastRequest();
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->method, "CONNECT");
  EXPECT_EQ(r->target, "api.telluro.example:443");
  EXPECT_EQ(r->path(), "");

  // A 2xx to CONNECT does not open a tunnel: the connection closes.
  proxy.enqueue(HttpResponse(200, ""));
  RawClient client(proxy.port());
  client.send("CONNECT other.example:443 HTTP/1.1\r\nHost: other.example:443\r\n\r\n");
  EXPECT_THAT(client.readToEnd(), HasSubstr("HTTP/1.1 200 OK\r\n"));
}

TEST(HttpTestServerTest, DestructionCutsADelayedResponseShort) {
  auto server = std::make_unique<HttpTestServer>();
  server->enqueue(HttpResponse(200, "late").withDelay(60s));
  Fetched f;
  std::thread client([&] { f = Get(server->url("/slow")); });
  ASSERT_TRUE(server->waitForRequests(1, 5s));
  const auto start = std::chrono::steady_clock::now();
  server.reset();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  client.join();
  // A hang check, not a speed target: the 60 s delay must not be waited out.
  EXPECT_LT(elapsed, 10s);
  EXPECT_NE(f.code, CURLE_OK);
  EXPECT_NE(f.body, "late");
}

TEST(HttpTestServerTest, ShortDelayIsHonoured) {
  HttpTestServer server;
  server.enqueue(HttpResponse(200, "after a while").withDelay(200ms));
  const auto start = std::chrono::steady_clock::now();
  Fetched f = Get(server.url("/"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
  EXPECT_EQ(f.body, "after a while");
}

TEST(HttpTestServerTest, ConnectionsAreServedConcurrently) {
  HttpTestServer server;
  server.setHandler([](const HttpRequest& r) {
    if (r.path() == "/slow") return HttpResponse(200, "slow").withDelay(60s);
    return HttpResponse(200, "fast " + r.path());
  });
  // One client stalls half-way through its headers, another waits for a
  // long delay; neither may hold up the others.
  RawClient stalled(server.port());
  stalled.send("GET /stalled HTTP/1.1\r\nHo");
  RawClient slow(server.port());
  slow.send("GET /slow HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(server.waitForRequests(1, 5s));

  std::vector<std::thread> clients;
  std::vector<Fetched> results(4);
  for (size_t i = 0; i < results.size(); ++i) {
    clients.emplace_back([&, i] { results[i] = Get(server.url("/c" + std::to_string(i))); });
  }
  for (auto& t : clients) t.join();
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].code, CURLE_OK);
    EXPECT_EQ(results[i].body, "fast /c" + std::to_string(i));
  }
  EXPECT_EQ(server.requestCount(), 1u + results.size());
  EXPECT_GE(server.connectionCount(), 2u + results.size());
}

TEST(HttpTestServerTest, WaitForRequestsTimesOutWhenTooFewArrive) {
  HttpTestServer server;
  EXPECT_FALSE(server.waitForRequests(1, 50ms));
  EXPECT_EQ(Get(server.url("/")).status, 404);
  EXPECT_TRUE(server.waitForRequests(1, 0ms));
  EXPECT_FALSE(server.waitForRequests(2, 50ms));
  server.clearRequests();
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_FALSE(server.lastRequest().has_value());
}

TEST(HttpTestServerTest, ClosedPortRefusesConnections) {
  ClosedPort closed;
  EXPECT_NE(closed.port(), 0);
  Fetched f = Get(closed.url("/location"));
  EXPECT_EQ(f.code, CURLE_COULDNT_CONNECT);
  RawClient raw(closed.port());
  EXPECT_FALSE(raw.connected());
}

TEST(HttpTestServerTest, RequestPathAndQueryForEveryTargetForm) {
  struct Case {
    const char* target;
    const char* path;
    const char* query;
  };
  const Case cases[] = {
      {"/", "/", ""},
      {"/a/b?x=1#frag", "/a/b", "x=1"},
      {"http://h.example", "/", ""},
      {"http://h.example:81/p?q", "/p", "q"},
      {"http://h.example?q=2", "/", "q=2"},
      {"h.example:443", "", ""},
      {"*", "", ""},
  };
  for (const auto& c : cases) {
    HttpRequest r;
    r.target = c.target;
    EXPECT_EQ(r.path(), c.path) << c.target;
    EXPECT_EQ(r.query(), c.query) << c.target;
  }
}

}  // namespace
}  // namespace zonara::testing
