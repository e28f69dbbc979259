// HTTP access to the positioning service: connection settings, opening a
// request for a path, and synchronous and callback-driven GET and POST.
//
// Every request URL is the configured server URL followed directly by the path
// (no separator added or removed: paths carry their own leading "/"). Every
// request carries "Content-Type: text/xml" and, when a user agent is set,
// "User-Agent". A request uses the settings current when it is opened.
//
// Results are integers, 0 for success; nothing is thrown.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "wps/spi/concurrent.h"
#include "wps/spi/dom.h"
#include "wps/spi/logger.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {

// A set of connection settings: server URL, user agent and proxy. Setters log
// what they did on the given logger; every member may be called from any
// thread.
class ConnectionSettings {
 public:
  // `defaultServerUrl` and `defaultUserAgent` are what a null text restores.
  ConnectionSettings(SPI::Logger& logger, std::string defaultServerUrl, std::string defaultUserAgent);

  // Null restores the default, the empty text clears: "user agent set blank";
  // otherwise "user agent set to %s".
  void setUserAgent(const char* userAgent);
  // Null restores the default, the empty text clears the URL and disables the
  // network: "network mode disabled"; otherwise "server url set to %s".
  void setServerUrl(const char* url);
  // A null or empty host clears host, user and password: "proxy settings
  // resetted". Otherwise stores "host:port" and the credentials (null = empty)
  // and logs "proxy set to %s: %d".
  void setProxy(const char* host, int port, const char* user, const char* password);

  struct Values {
    std::string serverUrl;
    std::string userAgent;
    std::string proxyHost;     // empty: no proxy
    int proxyPort = 0;
    std::string proxyAddress;  // "host:port", empty: no proxy
    std::string proxyUser;
    std::string proxyPassword;
  };
  // A consistent copy of the current values.
  [[nodiscard]] Values values() const;

  // Opens a request for `path` with these settings and sets its two headers.
  // Logs "opening request object..." and, on failure, "failed (%d) to open
  // request to %s", returning null.
  [[nodiscard]] std::unique_ptr<SPI::XmlHttpRequest> openRequest(SPI::XmlHttpRequest::HttpMethod method,
                                                                 const std::string& path, bool async) const;

 private:
  SPI::Logger& logger_;
  const std::string defaultServerUrl_;
  const std::string defaultUserAgent_;
  mutable SPI::StdMutex mu_;
  Values values_ WPS_GUARDED_BY(mu_);
};

class RESTClient {
 public:
  // The receiver of an asynchronous request's outcome. It owns the request
  // while one is pending. Handlers run on the request's own thread; when they
  // are called the callback no longer counts as pending, so a handler may
  // start the next request.
  //
  // A derived class must call abortAndWait() in its destructor before its own
  // members go (the base destructor does it again, too late for them).
  class Callback {
   public:
    Callback();
    virtual ~Callback();
    Callback(const Callback&) = delete;
    Callback& operator=(const Callback&) = delete;

    // Aborts the pending request, if any; its failure handler then runs soon
    // on the request's thread. Any thread; does not wait.
    void abort();
    // Aborts and waits until no handler runs or will run; no request can be
    // started on this callback afterwards. Not from a handler.
    void abortAndWait();
    // True from a successful start of a request until its handler is called.
    [[nodiscard]] bool isPending() const { return pending_.load(); }

   protected:
    // The body of a 200 response; valid during the call.
    virtual void onSuccess(const char* data, unsigned long length) = 0;
    // The request failed: the transfer's error number, a status other than
    // 200, or -1.
    virtual void onFailure(int error) = 0;

    SPI::Logger& logger_;  // "WPS.API.RESTClient.Callback"

   private:
    friend class RESTClient;
    enum class Begin { Started, Pending, Closing };
    // Installs `request` as the pending one, unless one is pending or the
    // callback is being torn down.
    Begin begin(std::unique_ptr<SPI::XmlHttpRequest> request);
    // Undoes begin() after a failed send.
    void cancelBegin();
    std::unique_ptr<SPI::XmlHttpRequest> takeRequest();
    void finished();

    SPI::StdMutex mu_;
    std::condition_variable_any idle_;
    int active_ WPS_GUARDED_BY(mu_) = 0;  // requests started whose handler has not returned
    bool closing_ WPS_GUARDED_BY(mu_) = false;  // abortAndWait was called
    std::unique_ptr<SPI::XmlHttpRequest> request_ WPS_GUARDED_BY(mu_);
    std::atomic<bool> pending_{false};
  };

  // Process-wide settings (defaults: none). Same rules as ConnectionSettings;
  // a null text clears like the empty one.
  static void setServerUrl(const char* url);
  static void setUserAgent(const char* userAgent);
  static void setProxy(const char* host, int port, const char* user, const char* password);
  [[nodiscard]] static ConnectionSettings::Values settings();

  // A request for the server URL + `path`, opened with the current settings,
  // or null (logged) on failure.
  [[nodiscard]] static std::unique_ptr<SPI::XmlHttpRequest> open(SPI::XmlHttpRequest::HttpMethod method,
                                                                 const std::string& path, bool async);

  // Asynchronous GET. Returns 0 when the request was started; -1 for a null
  // callback ("get() called with null callback") or one still pending ("get()
  // called with pending callback"); otherwise the open or send failure.
  [[nodiscard]] static int get(const std::string& path, Callback* callback);
  // Synchronous GET of the body of a 200 response.
  [[nodiscard]] static int get(const std::string& path, std::string& body);
  // Asynchronous POST, as the asynchronous GET.
  [[nodiscard]] static int post(const std::string& path, const char* body, unsigned long length,
                                Callback* callback);
  // Synchronous POST whose 200 reply is parsed into `response` (owned by the
  // caller). Non-zero on any failure: no request, the send's error, a status
  // other than 200 (that status), an unreadable body, or a body that is not
  // XML (-1).
  [[nodiscard]] static int post(const std::string& path, const char* body, unsigned long length,
                                std::unique_ptr<SPI::DOMDocument>& response);

  // Asynchronous send of a request the caller opened itself (with async =
  // true), for requests made with other connection settings or to an
  // absolute URL: `body` and `length` are sent as a POST body when `method` is
  // POST. Same results and callback rules as the asynchronous get and post.
  [[nodiscard]] static int send(std::unique_ptr<SPI::XmlHttpRequest> request, SPI::XmlHttpRequest::HttpMethod method,
                                const char* body, unsigned long length, Callback* callback);

  // The request callback of asynchronous requests (`user` is the Callback).
  static void requestCallback(int result, void* user);

  // Reads a finished request's response: 0 with the body for status 200;
  // otherwise logs "server returned %d %s" and returns the status (-1 when
  // none), or logs "couldn't get response text, error %d" and returns that
  // error.
  [[nodiscard]] static int getResponse(SPI::Logger& logger, std::unique_ptr<SPI::XmlHttpRequest>& request,
                                       const char*& data, unsigned long& length);

  // "WPS.API.RESTClient".
  [[nodiscard]] static SPI::Logger& getClientLogger();

 private:
  static int startAsync(SPI::XmlHttpRequest::HttpMethod method, const std::string& path, const char* body,
                        unsigned long length, Callback* callback, const char* name);
  static int sendAsync(std::unique_ptr<SPI::XmlHttpRequest> request, SPI::XmlHttpRequest::HttpMethod method,
                       const char* body, unsigned long length, Callback* callback, const char* name);
};

}  // namespace API
}  // namespace WPS
