#include "wps/spi/testing/http_test_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

namespace zonara::testing {

namespace {

constexpr size_t kMaxHeadBytes = 64 * 1024;
constexpr size_t kMaxBodyBytes = 256 * 1024 * 1024;

bool EqualsIgnoreCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

// True when the comma-separated header value contains `token` (case-insensitive).
bool HasToken(const std::string& value, const std::string& token) {
  const std::string lower = Lower(value);
  size_t start = 0;
  while (start <= lower.size()) {
    size_t end = lower.find(',', start);
    if (end == std::string::npos) end = lower.size();
    std::string item = lower.substr(start, end - start);
    const auto first = item.find_first_not_of(" \t");
    const auto last = item.find_last_not_of(" \t");
    if (first != std::string::npos && item.substr(first, last - first + 1) == token) return true;
    start = end + 1;
  }
  return false;
}

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  const auto last = s.find_last_not_of(" \t");
  return s.substr(first, last - first + 1);
}

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool SendAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

// Binds a TCP socket to 127.0.0.1 on a kernel-chosen port; returns the fd.
int BindLoopback(uint16_t* port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw SystemError("socket");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    auto error = SystemError("bind 127.0.0.1");
    ::close(fd);
    throw error;
  }
  socklen_t len = sizeof addr;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    auto error = SystemError("getsockname");
    ::close(fd);
    throw error;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

// Reads from a connection, giving up when the server's wake pipe fires.
class Reader {
 public:
  Reader(int fd, int wakeFd) : fd_(fd), wakeFd_(wakeFd) {}

  // Appends more bytes to the buffer; false on end of stream, error or stop.
  bool fill() {
    for (;;) {
      pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
      int r = ::poll(fds, 2, -1);
      if (r < 0 && errno == EINTR) continue;
      if (r < 0 || (fds[1].revents & POLLIN)) return false;
      char chunk[16384];
      ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(n));
      return true;
    }
  }

  // One line without its line end ("\r\n" or "\n"); nullopt on stop or when
  // longer than `limit`.
  std::optional<std::string> line(size_t limit) {
    for (;;) {
      auto nl = buffer_.find('\n');
      if (nl != std::string::npos) {
        std::string l = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        if (!l.empty() && l.back() == '\r') l.pop_back();
        return l;
      }
      if (buffer_.size() > limit || !fill()) return std::nullopt;
    }
  }

  // Exactly `n` bytes; nullopt on stop.
  std::optional<std::string> bytes(size_t n) {
    while (buffer_.size() < n) {
      if (!fill()) return std::nullopt;
    }
    std::string b = buffer_.substr(0, n);
    buffer_.erase(0, n);
    return b;
  }

  [[nodiscard]] bool empty() const { return buffer_.empty(); }

 private:
  int fd_;
  int wakeFd_;
  std::string buffer_;
};

enum class ReadOutcome { Ok, Closed, Malformed };

ReadOutcome ReadHead(Reader& reader, HttpRequest& request) {
  std::optional<std::string> first;
  // Empty lines before a request line are allowed and ignored.
  do {
    first = reader.line(kMaxHeadBytes);
    if (!first) return ReadOutcome::Closed;
  } while (first->empty());

  const auto sp1 = first->find(' ');
  const auto sp2 = sp1 == std::string::npos ? std::string::npos : first->find(' ', sp1 + 1);
  if (sp2 == std::string::npos) return ReadOutcome::Malformed;
  request.method = first->substr(0, sp1);
  request.target = first->substr(sp1 + 1, sp2 - sp1 - 1);
  request.version = first->substr(sp2 + 1);
  if (request.method.empty() || request.target.empty() || request.version.rfind("HTTP/", 0) != 0) {
    return ReadOutcome::Malformed;
  }
  size_t total = first->size();
  for (;;) {
    auto l = reader.line(kMaxHeadBytes);
    if (!l) return ReadOutcome::Closed;
    if (l->empty()) break;
    total += l->size();
    if (total > kMaxHeadBytes) return ReadOutcome::Malformed;
    const auto colon = l->find(':');
    if (colon == std::string::npos || colon == 0) return ReadOutcome::Malformed;
    request.headers.push_back({l->substr(0, colon), Trim(l->substr(colon + 1))});
  }
  return ReadOutcome::Ok;
}

ReadOutcome ReadChunkedBody(Reader& reader, HttpRequest& request) {
  for (;;) {
    auto sizeLine = reader.line(4096);
    if (!sizeLine) return ReadOutcome::Closed;
    const std::string hex = Trim(sizeLine->substr(0, sizeLine->find(';')));
    if (hex.empty() || hex.size() > 15 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return ReadOutcome::Malformed;
    }
    const size_t size = std::stoull(hex, nullptr, 16);
    if (size == 0) break;
    if (request.body.size() + size > kMaxBodyBytes) return ReadOutcome::Malformed;
    auto data = reader.bytes(size);
    if (!data) return ReadOutcome::Closed;
    request.body += *data;
    auto end = reader.line(2);
    if (!end) return ReadOutcome::Closed;
    if (!end->empty()) return ReadOutcome::Malformed;
  }
  // Trailer fields until an empty line.
  for (;;) {
    auto l = reader.line(kMaxHeadBytes);
    if (!l) return ReadOutcome::Closed;
    if (l->empty()) return ReadOutcome::Ok;
  }
}

std::string FormatResponse(const HttpRequest& request, const HttpResponse& response, bool close) {
  std::string reason = response.reason.empty() ? StandardReason(response.status) : response.reason;
  std::string out = "HTTP/1.1 " + std::to_string(response.status) + " " + reason + "\r\n";
  bool hasLength = false;
  bool hasConnection = false;
  for (const auto& h : response.headers) {
    out += h.name + ": " + h.value + "\r\n";
    if (EqualsIgnoreCase(h.name, "Content-Length") || EqualsIgnoreCase(h.name, "Transfer-Encoding")) hasLength = true;
    if (EqualsIgnoreCase(h.name, "Connection")) hasConnection = true;
  }
  const bool bodyless = (response.status >= 100 && response.status < 200) || response.status == 204 ||
                        response.status == 304;
  const uint64_t length = response.streamedBodyBytes > 0 ? response.streamedBodyBytes : response.body.size();
  if (!hasLength && !bodyless) out += "Content-Length: " + std::to_string(length) + "\r\n";
  if (close && !hasConnection) out += "Connection: close\r\n";
  out += "\r\n";
  if (request.method != "HEAD" && !bodyless && response.streamedBodyBytes == 0) out += response.body;
  return out;
}

// Aborts the connection: with a zero linger time, close sends RST.
void ResetConnection(int fd) {
  linger abort{1, 0};
  (void)::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

// Sends `bytes` filler bytes in 64 KiB pieces, chunked or plain. False when
// the client went away.
bool SendFiller(int fd, uint64_t bytes, bool chunked) {
  const std::string piece(64 * 1024, 'x');
  while (bytes > 0) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, piece.size()));
    if (chunked) {
      char size[32];
      std::snprintf(size, sizeof size, "%zx\r\n", n);
      if (!SendAll(fd, size)) return false;
    }
    if (!SendAll(fd, n == piece.size() ? piece : piece.substr(0, n))) return false;
    if (chunked && !SendAll(fd, "\r\n")) return false;
    bytes -= n;
  }
  return !chunked || SendAll(fd, "0\r\n\r\n");
}

}  // namespace

// ---------------------------------------------------------------------------

std::optional<std::string> HttpRequest::header(const std::string& name) const {
  for (const auto& h : headers) {
    if (EqualsIgnoreCase(h.name, name)) return h.value;
  }
  return std::nullopt;
}

std::string HttpRequest::path() const {
  std::string rest;
  if (!target.empty() && target[0] == '/') {
    rest = target;
  } else if (auto scheme = target.find("://"); scheme != std::string::npos) {
    auto slash = target.find_first_of("/?#", scheme + 3);
    if (slash == std::string::npos) return "/";
    rest = target[slash] == '/' ? target.substr(slash) : "/" + target.substr(slash);
  } else {
    return "";
  }
  return rest.substr(0, rest.find_first_of("?#"));
}

std::string HttpRequest::query() const {
  auto q = target.find('?');
  if (q == std::string::npos) return "";
  auto hash = target.find('#', q);
  return target.substr(q + 1, hash == std::string::npos ? std::string::npos : hash - q - 1);
}

HttpResponse& HttpResponse::withHeader(std::string name, std::string value) & {
  headers.push_back({std::move(name), std::move(value)});
  return *this;
}

HttpResponse&& HttpResponse::withHeader(std::string name, std::string value) && {
  headers.push_back({std::move(name), std::move(value)});
  return std::move(*this);
}

HttpResponse&& HttpResponse::withDelay(std::chrono::milliseconds d) && {
  delay = d;
  return std::move(*this);
}

HttpResponse&& HttpResponse::withReason(std::string r) && {
  reason = std::move(r);
  return std::move(*this);
}

HttpResponse&& HttpResponse::closing() && {
  closeConnection = true;
  return std::move(*this);
}

HttpResponse HttpResponse::proxyAuthenticationRequired(const std::string& realm) {
  return HttpResponse(407, "").withHeader("Proxy-Authenticate", "Basic realm=\"" + realm + "\"");
}

HttpResponse HttpResponse::connectionReset() {
  HttpResponse r;
  r.reset = true;
  return r;
}

HttpResponse HttpResponse::streamedBody(uint64_t bytes, bool chunked) {
  HttpResponse r(200, "");
  r.streamedBodyBytes = bytes;
  if (chunked) r.headers.push_back({"Transfer-Encoding", "chunked"});
  return r;
}

HttpResponse HttpResponse::rawBytes(std::string bytes) {
  HttpResponse r;
  r.raw = std::move(bytes);
  return r;
}

const char* StandardReason(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 201: return "Created";
    case 202: return "Accepted";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 304: return "Not Modified";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 407: return "Proxy Authentication Required";
    case 408: return "Request Timeout";
    case 409: return "Conflict";
    case 410: return "Gone";
    case 411: return "Length Required";
    case 413: return "Content Too Large";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "";
  }
}

// ---------------------------------------------------------------------------

struct HttpTestServer::Connection {
  // Atomic: a connection that resets closes its socket at once, while the
  // destructor may be shutting the sockets of all connections down.
  std::atomic<int> fd{-1};
  uint64_t number = 0;
  std::atomic<bool> done{false};
  std::thread thread;
  ~Connection() {
    int f = fd.exchange(-1);
    CloseFd(f);
  }
};

HttpTestServer::HttpTestServer() : HttpTestServer(Handler()) {}

HttpTestServer::HttpTestServer(Handler handler) : handler_(std::move(handler)), default_(404, "") {
  listenFd_ = BindLoopback(&port_);
  if (::listen(listenFd_, 64) != 0) {
    auto error = SystemError("listen");
    CloseFd(listenFd_);
    throw error;
  }
  if (::pipe2(wakeFd_, O_CLOEXEC) != 0) {
    auto error = SystemError("pipe");
    CloseFd(listenFd_);
    throw error;
  }
  acceptor_ = std::thread([this] { acceptLoop(); });
}

HttpTestServer::~HttpTestServer() {
  {
    WPS::SPI::StdMutexLock lock(mu_);
    stopping_ = true;
  }
  changed_.notify_all();
  // Never read: once written, every poll on it reports it readable.
  const char byte = 'x';
  (void)!::write(wakeFd_[1], &byte, 1);
  if (acceptor_.joinable()) acceptor_.join();
  std::list<std::unique_ptr<Connection>> connections;
  {
    WPS::SPI::StdMutexLock lock(mu_);
    connections.swap(live_);
  }
  // Unblocks a connection thread stuck sending to a client that does not read.
  for (auto& c : connections) ::shutdown(c->fd, SHUT_RDWR);
  for (auto& c : connections) {
    if (c->thread.joinable()) c->thread.join();
  }
  connections.clear();
  CloseFd(listenFd_);
  CloseFd(wakeFd_[0]);
  CloseFd(wakeFd_[1]);
}

std::string HttpTestServer::authority() const { return "127.0.0.1:" + std::to_string(port_); }

std::string HttpTestServer::url(const std::string& path) const { return "http://" + authority() + path; }

void HttpTestServer::enqueue(HttpResponse response) {
  WPS::SPI::StdMutexLock lock(mu_);
  queue_.push_back(std::move(response));
}

void HttpTestServer::setHandler(Handler handler) {
  WPS::SPI::StdMutexLock lock(mu_);
  handler_ = std::move(handler);
}

void HttpTestServer::setDefaultResponse(HttpResponse response) {
  WPS::SPI::StdMutexLock lock(mu_);
  default_ = std::move(response);
}

size_t HttpTestServer::pendingResponses() const {
  WPS::SPI::StdMutexLock lock(mu_);
  return queue_.size();
}

void HttpTestServer::clearQueue() {
  WPS::SPI::StdMutexLock lock(mu_);
  queue_.clear();
}

std::vector<HttpRequest> HttpTestServer::requests() const {
  WPS::SPI::StdMutexLock lock(mu_);
  return requests_;
}

size_t HttpTestServer::requestCount() const {
  WPS::SPI::StdMutexLock lock(mu_);
  return requests_.size();
}

std::optional<HttpRequest> HttpTestServer::lastRequest() const {
  WPS::SPI::StdMutexLock lock(mu_);
  if (requests_.empty()) return std::nullopt;
  return requests_.back();
}

bool HttpTestServer::waitForRequests(size_t n, std::chrono::milliseconds timeout) const {
  WPS::SPI::StdMutexLock lock(mu_);
  return changed_.wait_for(mu_, timeout, [&]() WPS_REQUIRES(mu_) { return requests_.size() >= n; });
}

void HttpTestServer::clearRequests() {
  WPS::SPI::StdMutexLock lock(mu_);
  requests_.clear();
}

uint64_t HttpTestServer::connectionCount() const {
  WPS::SPI::StdMutexLock lock(mu_);
  return connections_;
}

void HttpTestServer::acceptLoop() {
  for (;;) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFd_[0], POLLIN, 0}};
    int r = ::poll(fds, 2, -1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 || (fds[1].revents & POLLIN)) return;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    auto connection = std::make_unique<Connection>();
    connection->fd = fd;
    Connection* raw = connection.get();
    std::list<std::unique_ptr<Connection>> finished;
    {
      WPS::SPI::StdMutexLock lock(mu_);
      if (stopping_) return;  // `connection` closes the socket
      connection->number = ++connections_;
      // Collect connections whose threads have ended, to join them below.
      for (auto it = live_.begin(); it != live_.end();) {
        if ((*it)->done) {
          finished.push_back(std::move(*it));
          it = live_.erase(it);
        } else {
          ++it;
        }
      }
      live_.push_back(std::move(connection));
      // Started under the lock so the destructor never sees a thread-less entry.
      raw->thread = std::thread([this, raw] { serve(raw); });
    }
    for (auto& c : finished) c->thread.join();
  }
}

bool HttpTestServer::waitDelay(std::chrono::milliseconds delay) {
  WPS::SPI::StdMutexLock lock(mu_);
  return !changed_.wait_for(mu_, delay, [&]() WPS_REQUIRES(mu_) { return stopping_; });
}

HttpResponse HttpTestServer::scriptedResponse(const HttpRequest& request) {
  Handler handler;
  {
    WPS::SPI::StdMutexLock lock(mu_);
    if (!queue_.empty()) {
      HttpResponse r = std::move(queue_.front());
      queue_.pop_front();
      return r;
    }
    if (!handler_) return default_;
    handler = handler_;
  }
  WPS::SPI::StdMutexLock serial(handlerMu_);
  return handler(request);
}

namespace {

// Reads one request, its head and body, answering "100 Continue" when the
// client waits for it. `close` tells whether the client wants the connection
// closed after the answer.
ReadOutcome ReadRequest(Reader& reader, int fd, HttpRequest& request, bool* close) {
  ReadOutcome outcome = ReadHead(reader, request);
  if (outcome != ReadOutcome::Ok) return outcome;
  const auto te = request.header("Transfer-Encoding");
  const auto length = request.header("Content-Length");
  const bool http11 = request.version == "HTTP/1.1";
  const bool hasBody = (te && HasToken(*te, "chunked")) || (length && *length != "0");
  if (hasBody && http11) {
    if (auto expect = request.header("Expect"); expect && EqualsIgnoreCase(*expect, "100-continue")) {
      if (!SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n")) return ReadOutcome::Closed;
    }
  }
  if (te && HasToken(*te, "chunked")) {
    request.chunked = true;
    outcome = ReadChunkedBody(reader, request);
  } else if (length) {
    const std::string& digits = *length;
    if (digits.empty() || digits.size() > 12 || digits.find_first_not_of("0123456789") != std::string::npos ||
        std::stoull(digits) > kMaxBodyBytes) {
      outcome = ReadOutcome::Malformed;
    } else if (auto body = reader.bytes(std::stoull(digits))) {
      request.body = std::move(*body);
    } else {
      outcome = ReadOutcome::Closed;
    }
  }
  const auto conn = request.header("Connection");
  *close = (conn && HasToken(*conn, "close")) || (!http11 && !(conn && HasToken(*conn, "keep-alive")));
  return outcome;
}

}  // namespace

void HttpTestServer::serve(Connection* connection) {
  Reader reader(connection->fd, wakeFd_[0]);
  for (;;) {
    HttpRequest request;
    request.connection = connection->number;
    bool close = false;
    const ReadOutcome outcome = ReadRequest(reader, connection->fd, request, &close);
    if (outcome == ReadOutcome::Closed) break;
    if (outcome == ReadOutcome::Malformed) {
      HttpResponse bad(400, "");
      (void)SendAll(connection->fd, FormatResponse(request, bad, true));
      break;
    }
    {
      WPS::SPI::StdMutexLock lock(mu_);
      requests_.push_back(request);
    }
    changed_.notify_all();
    if (!respond(connection, request, close)) break;
  }
  // Tell the client we are done; the descriptor itself is closed when the
  // connection is reaped, so it cannot be reused while others still use it.
  ::shutdown(connection->fd, SHUT_RDWR);
  connection->done = true;
}

bool HttpTestServer::respond(Connection* connection, const HttpRequest& request, bool close) {
  HttpResponse response = scriptedResponse(request);
  if (response.delay.count() > 0 && !waitDelay(response.delay)) return false;
  if (response.reset) {
    // RST goes out only when the socket is closed, so it is closed now.
    int fd = connection->fd.exchange(-1);
    ResetConnection(fd);
    CloseFd(fd);
    return false;
  }
  if (response.raw) {
    (void)SendAll(connection->fd, *response.raw);
    return false;
  }
  const bool tunnelRefused = request.method == "CONNECT" && response.status >= 200 && response.status < 300;
  close = close || response.closeConnection || tunnelRefused;
  std::string message = FormatResponse(request, response, close);
  // With a stall, the body (at the end of the formatted message) waits.
  std::string body;
  if (response.stallAfterHead.count() > 0 && message.size() >= response.body.size() &&
      message.compare(message.size() - response.body.size(), response.body.size(), response.body) == 0) {
    body = message.substr(message.size() - response.body.size());
    message.resize(message.size() - response.body.size());
  }
  if (!SendAll(connection->fd, message)) return false;
  if (response.stallAfterHead.count() > 0 && !waitDelay(response.stallAfterHead)) return false;
  if (!body.empty() && !SendAll(connection->fd, body)) return false;
  if (response.streamedBodyBytes > 0 && request.method != "HEAD") {
    bool chunked = false;
    for (const auto& h : response.headers) {
      if (EqualsIgnoreCase(h.name, "Transfer-Encoding") && HasToken(h.value, "chunked")) chunked = true;
    }
    if (!SendFiller(connection->fd, response.streamedBodyBytes, chunked)) return false;
  }
  return !close;
}

// ---------------------------------------------------------------------------

ClosedPort::ClosedPort() { fd_ = BindLoopback(&port_); }

ClosedPort::~ClosedPort() { CloseFd(fd_); }

std::string ClosedPort::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

}  // namespace zonara::testing
