// A scripted HTTP/1.1 server on the loopback interface, for tests.
//
// `HttpTestServer` listens on 127.0.0.1 on a port the kernel picks, accepts
// connections on its own thread and serves each connection on a thread of its
// own. Every request is recorded exactly as it arrived (method, request target
// -- origin-form, absolute-form or the authority of a CONNECT --, headers in
// order with their original case, body bytes after de-chunking) and then
// answered from the script:
//
//   1. the next response queued with `enqueue` (first in, first out), else
//   2. the handler installed with `setHandler`, else
//   3. the default response (404 "Not Found" with an empty body unless
//      changed with `setDefaultResponse`).
//
// A response may carry a delay; the connection waits that long before
// answering. Destroying the server cuts every delay short, closes every
// connection and joins every thread, so a test never hangs on a slow script.
//
// Protocol handling, kept simple but correct for HTTP clients such as libcurl:
//   - request bodies by Content-Length or chunked transfer coding (chunk
//     extensions and trailers are read and dropped); "Expect: 100-continue"
//     is answered with an interim "100 Continue" before the body is read;
//   - connections stay open for further requests (HTTP/1.1 keep-alive) unless
//     the request says "Connection: close", the request is HTTP/1.0 without
//     "Connection: keep-alive", or the response has `closeConnection` set; the
//     server then sends "Connection: close" and closes after the response;
//   - a response gets "Content-Length: <body size>" unless the script already
//     set Content-Length or Transfer-Encoding (so a test can send a lying
//     length) or the status is 1xx, 204 or 304; the answer to HEAD carries the
//     headers but never the body;
//   - a malformed request (bad request line, headers over 64 KiB, bad chunk
//     size) is answered with 400 and the connection closed; it is not recorded;
//   - as a proxy: absolute-form targets ("GET http://host/path HTTP/1.1") and
//     CONNECT requests are recorded and answered from the script like any
//     other (`HttpResponse::proxyAuthenticationRequired` builds a 407). No
//     tunnel is ever opened: after a 2xx answer to CONNECT the connection is
//     closed.
//   - `HttpResponse::raw` bytes are sent verbatim instead of a formatted
//     response, and the connection is then closed (for malformed-reply tests).
//
// Fault modes, for tests of clients against misbehaving servers (each acts
// after the response's `delay`):
//   - `reset`: no answer; the connection is aborted with a TCP reset (RST),
//     as a crashed server or a middlebox would;
//   - `stallAfterHead`: the status line and headers go out, then the server
//     waits this long before the body (a transfer that stops half-way);
//   - `streamedBodyBytes`: a body of that many filler bytes ('x'), produced
//     in 64 KiB pieces as the client reads them, so a 50 MB answer costs the
//     server no memory. It is sent with its Content-Length, or chunked when
//     the script sets "Transfer-Encoding: chunked" (the client then cannot
//     know the size in advance). `body` is ignored.
//
// Thread safety: all public member functions may be called from any thread
// while the server runs. The handler is called on the server's connection
// threads, one call at a time (calls are serialized), never while the server
// holds a lock the accessors need; it may therefore call `requests()` etc.
// It must return promptly (use `HttpResponse::delay` for slow answers: a
// handler that blocks also blocks the destructor) and must not destroy the
// server. Declare the server after whatever its handler captures, so it is
// destroyed first.
//
// Failure: the constructor throws std::runtime_error when it cannot create,
// bind or listen on the socket (tests want that loud); nothing else throws
// except std::bad_alloc.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "wps/spi/concurrent.h"

namespace zonara::testing {

struct HttpHeader {
  std::string name;
  std::string value;
  friend bool operator==(const HttpHeader&, const HttpHeader&) = default;
};

// One request as received.
struct HttpRequest {
  std::string method;   // "GET", "POST", "CONNECT", ... as sent
  std::string target;   // request target exactly as sent
  std::string version;  // "HTTP/1.1"
  std::vector<HttpHeader> headers;  // in order, original case
  std::string body;                 // decoded body bytes (after de-chunking)
  bool chunked = false;             // the body came with chunked transfer coding
  uint64_t connection = 0;          // 1-based number of the connection it came on

  // The first header named `name` (compared case-insensitively), or nullopt.
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
  // The path of the target without the query: "/a/b" for "/a/b?x=1" and for
  // "http://host:8080/a/b?x=1"; "" for a CONNECT authority or "*".
  [[nodiscard]] std::string path() const;
  // The query of the target without '?', or "" when there is none.
  [[nodiscard]] std::string query() const;
};

// One scripted answer.
struct HttpResponse {
  int status = 200;
  std::string reason;               // "" = the standard phrase for `status`
  std::vector<HttpHeader> headers;  // sent in this order, before the ones the server adds
  std::string body;
  std::chrono::milliseconds delay{0};  // wait before answering (cut short by the destructor)
  bool closeConnection = false;        // close the connection after this response
  std::optional<std::string> raw;      // if set: sent verbatim, then the connection is closed
  bool reset = false;                    // abort the connection with RST instead of answering
  std::chrono::milliseconds stallAfterHead{0};  // pause between the head and the body
  uint64_t streamedBodyBytes = 0;        // > 0: stream this many filler bytes as the body

  HttpResponse() = default;
  HttpResponse(int status, std::string body) : status(status), body(std::move(body)) {}

  // Builders for chained set-up: HttpResponse(200, "<x/>").withHeader("Content-Type", "text/xml").
  HttpResponse& withHeader(std::string name, std::string value) &;
  HttpResponse&& withHeader(std::string name, std::string value) &&;
  HttpResponse&& withDelay(std::chrono::milliseconds d) &&;
  HttpResponse&& withReason(std::string r) &&;
  HttpResponse&& closing() &&;

  // A 407 with "Proxy-Authenticate: Basic realm=\"<realm>\"".
  [[nodiscard]] static HttpResponse proxyAuthenticationRequired(const std::string& realm = "proxy");
  // Bytes sent as they are (then the connection closes).
  [[nodiscard]] static HttpResponse rawBytes(std::string bytes);
  // No answer: the connection is reset (RST).
  [[nodiscard]] static HttpResponse connectionReset();
  // A 200 whose body is `bytes` filler bytes, streamed (see above); chunked
  // when `chunked`, else with its Content-Length.
  [[nodiscard]] static HttpResponse streamedBody(uint64_t bytes, bool chunked = false);
};

// The standard reason phrase of a status ("OK", "Not Found", ...; "" if unknown).
[[nodiscard]] const char* StandardReason(int status);

class HttpTestServer {
 public:
  using Handler = std::function<HttpResponse(const HttpRequest&)>;

  // Starts listening and serving at once. Throws std::runtime_error on failure.
  HttpTestServer();
  explicit HttpTestServer(Handler handler);
  // Stops: cuts delays short, closes all connections, joins all threads.
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  // "127.0.0.1:<port>"
  [[nodiscard]] std::string authority() const;
  // "http://127.0.0.1:<port>" followed by `path`.
  [[nodiscard]] std::string url(const std::string& path = "") const;

  // Script. Each takes effect for requests answered after the call.
  void enqueue(HttpResponse response);
  void setHandler(Handler handler);
  void setDefaultResponse(HttpResponse response);
  // Scripted responses not yet used.
  [[nodiscard]] size_t pendingResponses() const;
  // Drops the scripted responses not yet used.
  void clearQueue();

  // Recorded requests, oldest first (copies).
  [[nodiscard]] std::vector<HttpRequest> requests() const;
  [[nodiscard]] size_t requestCount() const;
  // The last request; nullopt when none arrived yet.
  [[nodiscard]] std::optional<HttpRequest> lastRequest() const;
  // Waits until at least `n` requests have been recorded or `timeout` passed;
  // true when they have.
  [[nodiscard]] bool waitForRequests(size_t n, std::chrono::milliseconds timeout) const;
  void clearRequests();
  // Connections accepted so far.
  [[nodiscard]] uint64_t connectionCount() const;

 private:
  struct Connection;
  void acceptLoop();
  void serve(Connection* connection);
  // Answers `request` as scripted; false when the connection ends with it.
  [[nodiscard]] bool respond(Connection* connection, const HttpRequest& request, bool close);
  [[nodiscard]] HttpResponse scriptedResponse(const HttpRequest& request);
  [[nodiscard]] bool waitDelay(std::chrono::milliseconds delay);

  int listenFd_ = -1;
  int wakeFd_[2] = {-1, -1};  // a pipe: written once at shutdown, wakes every poll
  uint16_t port_ = 0;

  mutable WPS::SPI::StdMutex mu_;
  mutable std::condition_variable_any changed_;  // new request recorded, or stopping
  bool stopping_ WPS_GUARDED_BY(mu_) = false;
  std::deque<HttpResponse> queue_ WPS_GUARDED_BY(mu_);
  Handler handler_ WPS_GUARDED_BY(mu_);
  HttpResponse default_ WPS_GUARDED_BY(mu_);
  std::vector<HttpRequest> requests_ WPS_GUARDED_BY(mu_);
  uint64_t connections_ WPS_GUARDED_BY(mu_) = 0;
  std::list<std::unique_ptr<Connection>> live_ WPS_GUARDED_BY(mu_);

  WPS::SPI::StdMutex handlerMu_;  // serializes handler calls
  std::thread acceptor_;
};

// A loopback port on which nothing listens, for connection-refused tests. The
// port is bound (so no one else gets it) but never listened on, so a connect
// to it is refused until this object is destroyed.
class ClosedPort {
 public:
  ClosedPort();  // throws std::runtime_error when no port can be bound
  ~ClosedPort();
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;
  [[nodiscard]] uint16_t port() const { return port_; }
  // "http://127.0.0.1:<port>" followed by `path`.
  [[nodiscard]] std::string url(const std::string& path = "") const;

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

}  // namespace zonara::testing
