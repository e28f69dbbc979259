// One HTTP exchange in the manner of a browser's XML HTTP request: open, set
// headers, send, then read the status, headers and body. Implemented over
// libcurl's multi interface.
//
// Life of a request: open once, send once, then read. A synchronous send runs
// the transfer on the calling thread. An asynchronous send (open with
// async = true) starts the transfer on a thread of its own and returns at
// once; the request callback, when set, is called on that thread with the
// result when the transfer ends. abort() may be called from any thread and
// ends a running transfer within about 0.1 s.
//
// Results are integers, 0 for success. The result of a transfer is 0 when a
// response was received (whatever the status: a 404 is a successful
// transfer here), except that a 2xx response whose body was cut short (a
// time-out or a reset half-way, fewer bytes than announced) is a failed
// transfer, logged as an error; otherwise an error number in the numbering the library has
// always reported (kEPROTONOSUPPORT, kEHOSTUNREACH, kECONNREFUSED, kETIMEDOUT,
// kEPERM), or -1 for any other failure, an abort included.
//
// Ownership and threads: the caller owns the request. Destroying it aborts a
// running asynchronous transfer and waits for its thread (unless destroyed
// from inside its own callback). While an asynchronous transfer runs, only
// abort() may be called from other threads; read the response after the
// callback has been called.
#pragma once

#include <memory>
#include <string>

namespace WPS {
namespace SPI {

class XmlHttpRequest {
 public:
  enum HttpMethod { GET = 0, POST = 1, HEAD = 2 };

  // Transfer results other than 0 and -1.
  static constexpr int kEPERM = 1;              // login denied
  static constexpr int kEPROTONOSUPPORT = 43;   // unsupported protocol
  static constexpr int kETIMEDOUT = 60;         // connect or transfer time-out
  static constexpr int kECONNREFUSED = 61;      // connection, TLS, send or receive failure
  static constexpr int kEHOSTUNREACH = 65;      // host or proxy name not resolved
  static constexpr int kEFBIG = 27;             // response body larger than the request's limit

  // The response body size a request accepts unless set otherwise: far more
  // than any protocol answer, far less than would hurt.
  static constexpr unsigned long kDefaultMaxResponseBytes = 4ul * 1024 * 1024;

  // The time-outs every request starts with, in milliseconds.
  static constexpr long kDefaultConnectTimeoutMs = 30000;
  static constexpr long kDefaultTransferTimeoutMs = 30000;

  using RequestCallback = void (*)(int result, void* user);

  virtual ~XmlHttpRequest() = default;

  // The preference (see preferences.h) naming servers, by host name, whose
  // HTTPS certificate is accepted without a CA's signature (self-signed);
  // names separated by commas or blanks. Every other HTTPS exchange is
  // verified against the system's CA store.
  static constexpr char kSelfSignedServersKey[] = "SelfSignedServers";

  // A new libcurl request.
  [[nodiscard]] static std::unique_ptr<XmlHttpRequest> newInstance();

  // The host name of an absolute URL, lower-cased (libcurl's URL parser);
  // empty when `url` is not an absolute URL with a host. Any thread.
  [[nodiscard]] static std::string hostOf(const std::string& url);

  // Sets the time-outs that requests opened from now on use: for establishing
  // the connection, and for the whole transfer. Values <= 0 restore the
  // defaults. Any thread.
  static void setDefaultTimeouts(long connectMs, long transferMs);

  // Prepares the request. Returns 0, or 22 (EINVAL) for an empty URL, an
  // unknown method, or a request opened before.
  [[nodiscard]] virtual int open(HttpMethod method, const std::string& url, bool async) = 0;
  // As above, through the HTTP proxy `proxyHost`:`proxyPort` (none when
  // `proxyHost` is empty). Proxy credentials are sent only when the user or
  // the password is not empty.
  [[nodiscard]] virtual int open(HttpMethod method, const std::string& url, const std::string& proxyHost,
                                 int proxyPort, const std::string& proxyUser, const std::string& proxyPassword,
                                 bool async) = 0;
  // Adds (or replaces) a request header. 0, or 22 before open.
  virtual int setRequestHeader(const std::string& name, const std::string& value) = 0;
  // The largest response body accepted, in bytes (0: no limit). A longer
  // body -- announced by Content-Length or found while receiving -- stops the
  // transfer, whose result is then kEFBIG. 0, or 22 after send.
  virtual int setMaxResponseBytes(unsigned long bytes) = 0;
  // The function called when an asynchronous transfer ends, with `user`.
  virtual int setRequestCallback(RequestCallback callback, void* user) = 0;
  // Sends without a body. Synchronous: the transfer's result. Asynchronous: 0
  // when the transfer's thread started (the result goes to the callback),
  // otherwise the thread's creation error. 22 when not opened or sent before.
  [[nodiscard]] virtual int send() = 0;
  // Copies `length` bytes of `body` into the request and sends them (the body
  // of a POST).
  [[nodiscard]] virtual int send(const char* body, unsigned long length) = 0;
  // Ends a running transfer; its result is then -1. Any thread; 0.
  virtual int abort() = 0;

  // The response's status code, -1 until a status line has been received.
  [[nodiscard]] virtual int getStatusCode() const = 0;
  // The text after the code in the status line ("OK"); empty until received.
  [[nodiscard]] virtual std::string getStatusText() const = 0;
  // The value of a response header (names compare without case), empty when
  // absent. Values are stored without surrounding white space.
  [[nodiscard]] virtual std::string getResponseHeader(const std::string& name) const = 0;
  // Every response header as "Name: value\r\n" lines.
  [[nodiscard]] virtual std::string getAllResponseHeaders() const = 0;
  // Points `data` and `length` at the response body, which stays valid while
  // the request lives. Returns 0 after a transfer that received a status line,
  // otherwise -1 (not sent, still running, failed before any response, cut
  // short, or stopped for a body over the size limit).
  [[nodiscard]] virtual int getResponseText(const char*& data, unsigned long& length) const = 0;
};

// Process-wide libcurl set-up and the threads of asynchronous requests.
class CurlPlatformUtils {
 public:
  // libcurl's global initialisation; done once, later calls do nothing.
  // Called by XmlHttpRequest::newInstance.
  static void global_init();
  // libcurl's global clean-up; only when no request exists any more.
  static void global_cleanup();
  // Starts `function(argument)` on a new thread. Returns a handle for
  // join_thread, or null when the thread could not be made.
  [[nodiscard]] static void* create_thread(int (*function)(void*), void* argument);
  // Waits for the thread and releases its handle (detaching instead when
  // called on that very thread). Returns 0 or the pthread error.
  static int join_thread(void* handle);
};

}  // namespace SPI
}  // namespace WPS
