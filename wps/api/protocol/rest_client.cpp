#include "wps/api/protocol/rest_client.h"

#include <cstdio>

namespace WPS {
namespace API {

using SPI::DOMDocument;
using SPI::Logger;
using SPI::SAXParser;
using SPI::XmlHttpRequest;

// ---- ConnectionSettings ----

ConnectionSettings::ConnectionSettings(Logger& logger, std::string defaultServerUrl, std::string defaultUserAgent)
    : logger_(logger), defaultServerUrl_(std::move(defaultServerUrl)), defaultUserAgent_(std::move(defaultUserAgent)) {
  values_.serverUrl = defaultServerUrl_;
  values_.userAgent = defaultUserAgent_;
}

void ConnectionSettings::setUserAgent(const char* userAgent) {
  std::string value = userAgent == nullptr ? defaultUserAgent_ : std::string(userAgent);
  {
    SPI::StdMutexLock lock(mu_);
    values_.userAgent = value;
  }
  if (value.empty()) {
    logger_.info("user agent set blank");
  } else {
    logger_.info("user agent set to %s", value.c_str());
  }
}

void ConnectionSettings::setServerUrl(const char* url) {
  std::string value = url == nullptr ? defaultServerUrl_ : std::string(url);
  {
    SPI::StdMutexLock lock(mu_);
    values_.serverUrl = value;
  }
  if (value.empty()) {
    logger_.info("network mode disabled");
  } else {
    logger_.info("server url set to %s", value.c_str());
  }
}

void ConnectionSettings::setProxy(const char* host, int port, const char* user, const char* password) {
  if (host == nullptr || *host == '\0') {
    {
      SPI::StdMutexLock lock(mu_);
      values_.proxyHost.clear();
      values_.proxyPort = 0;
      values_.proxyAddress.clear();
      values_.proxyUser.clear();
      values_.proxyPassword.clear();
    }
    logger_.info("proxy settings resetted");
    return;
  }
  char portText[16];
  std::snprintf(portText, sizeof portText, ":%d", port);
  {
    SPI::StdMutexLock lock(mu_);
    values_.proxyHost = host;
    values_.proxyPort = port;
    values_.proxyAddress = std::string(host) + portText;
    values_.proxyUser = user == nullptr ? "" : user;
    values_.proxyPassword = password == nullptr ? "" : password;
  }
  logger_.info("proxy set to %s: %d", host, port);
}

ConnectionSettings::Values ConnectionSettings::values() const {
  SPI::StdMutexLock lock(mu_);
  return values_;
}

std::unique_ptr<XmlHttpRequest> ConnectionSettings::openRequest(XmlHttpRequest::HttpMethod method,
                                                                const std::string& path, bool async) const {
  const Values v = values();
  logger_.debug("opening request object...");
  std::unique_ptr<XmlHttpRequest> request = XmlHttpRequest::newInstance();
  // The path carries its own leading "/": nothing is added or removed.
  const std::string url = v.serverUrl + path;
  int rc = request->open(method, url, v.proxyHost, v.proxyPort, v.proxyUser, v.proxyPassword, async);
  if (rc != 0) {
    logger_.error("failed (%d) to open request to %s", rc, url.c_str());
    return nullptr;
  }
  request->setRequestHeader("Content-Type", "text/xml");
  if (!v.userAgent.empty()) request->setRequestHeader("User-Agent", v.userAgent);
  return request;
}

// ---- RESTClient ----

namespace {

ConnectionSettings& processSettings() {
  static ConnectionSettings settings(RESTClient::getClientLogger(), "", "");
  return settings;
}

}  // namespace

Logger& RESTClient::getClientLogger() { return Logger::getLogger("WPS.API.RESTClient"); }

void RESTClient::setServerUrl(const char* url) { processSettings().setServerUrl(url); }
void RESTClient::setUserAgent(const char* userAgent) { processSettings().setUserAgent(userAgent); }
void RESTClient::setProxy(const char* host, int port, const char* user, const char* password) {
  processSettings().setProxy(host, port, user, password);
}
ConnectionSettings::Values RESTClient::settings() { return processSettings().values(); }

std::unique_ptr<XmlHttpRequest> RESTClient::open(XmlHttpRequest::HttpMethod method, const std::string& path,
                                                 bool async) {
  return processSettings().openRequest(method, path, async);
}

int RESTClient::getResponse(Logger& logger, std::unique_ptr<XmlHttpRequest>& request, const char*& data,
                            unsigned long& length) {
  const int status = request->getStatusCode();
  if (status != 200) {
    logger.error("server returned %d %s", status, request->getStatusText().c_str());
    return status == 0 ? -1 : status;
  }
  logger.debug("about to get response text");
  int rc = request->getResponseText(data, length);
  if (rc != 0) {
    logger.error("couldn't get response text, error %d", rc);
    return rc;
  }
  logger.debug("received response: %.*s", static_cast<int>(length), data);
  return 0;
}

int RESTClient::get(const std::string& path, std::string& body) {
  Logger& logger = getClientLogger();
  std::unique_ptr<XmlHttpRequest> request = open(XmlHttpRequest::GET, path, false);
  if (!request) return -1;
  logger.debug("about to send HTTP GET");
  int rc = request->send();
  if (rc != 0) {
    logger.error("couldn't send request, error %d", rc);
    return rc;
  }
  const char* data = nullptr;
  unsigned long length = 0;
  rc = getResponse(logger, request, data, length);
  if (rc != 0) return rc;
  body.assign(data, length);
  return 0;
}

int RESTClient::post(const std::string& path, const char* body, unsigned long length,
                     std::unique_ptr<DOMDocument>& response) {
  Logger& logger = getClientLogger();
  std::unique_ptr<XmlHttpRequest> request = open(XmlHttpRequest::POST, path, false);
  if (!request) return -1;
  logger.debug("about to send HTTP POST: %.*s", static_cast<int>(length), body != nullptr ? body : "");
  int rc = request->send(body, length);
  if (rc != 0) {
    logger.error("couldn't send request, error %d", rc);
    return rc;
  }
  const char* data = nullptr;
  unsigned long dataLength = 0;
  rc = getResponse(logger, request, data, dataLength);
  if (rc != 0) return rc;
  std::unique_ptr<DOMDocument> document = SAXParser::newInstance()->parse(data, dataLength);
  if (!document) {
    logger.error("failed to parse response");
    return -1;
  }
  response = std::move(document);
  return 0;
}

int RESTClient::get(const std::string& path, Callback* callback) {
  return startAsync(XmlHttpRequest::GET, path, nullptr, 0, callback, "get");
}

int RESTClient::post(const std::string& path, const char* body, unsigned long length, Callback* callback) {
  return startAsync(XmlHttpRequest::POST, path, body, length, callback, "post");
}

int RESTClient::startAsync(XmlHttpRequest::HttpMethod method, const std::string& path, const char* body,
                           unsigned long length, Callback* callback, const char* name) {
  Logger& logger = getClientLogger();
  if (callback == nullptr) {
    logger.error("%s() called with null callback", name);
    return -1;
  }
  if (callback->isPending()) {
    logger.error("%s() called with pending callback", name);
    return -1;
  }
  std::unique_ptr<XmlHttpRequest> request = open(method, path, true);
  if (!request) return -1;
  return sendAsync(std::move(request), method, body, length, callback, name);
}

int RESTClient::send(std::unique_ptr<XmlHttpRequest> request, XmlHttpRequest::HttpMethod method, const char* body,
                     unsigned long length, Callback* callback) {
  Logger& logger = getClientLogger();
  const char* name = method == XmlHttpRequest::GET ? "get" : "post";
  if (callback == nullptr) {
    logger.error("%s() called with null callback", name);
    return -1;
  }
  if (!request) return -1;
  return sendAsync(std::move(request), method, body, length, callback, name);
}

int RESTClient::sendAsync(std::unique_ptr<XmlHttpRequest> request, XmlHttpRequest::HttpMethod method,
                          const char* body, unsigned long length, Callback* callback, const char* name) {
  Logger& logger = getClientLogger();
  request->setRequestCallback(&RESTClient::requestCallback, callback);
  XmlHttpRequest* raw = request.get();
  switch (callback->begin(std::move(request))) {
    case Callback::Begin::Started:
      break;
    case Callback::Begin::Pending:
      logger.error("%s() called with pending callback", name);
      return -1;
    case Callback::Begin::Closing:
      logger.error("%s() called with a callback being aborted for good", name);
      return -1;
  }
  logger.debug(method == XmlHttpRequest::GET ? "about to send HTTP GET request" : "about to send HTTP POST request");
  int rc = method == XmlHttpRequest::POST ? raw->send(body, length) : raw->send();
  if (rc != 0) {
    logger.error("couldn't send request, error %d", rc);
    callback->cancelBegin();
    return rc;
  }
  return 0;
}

void RESTClient::requestCallback(int result, void* user) {
  auto* callback = static_cast<Callback*>(user);
  Logger& logger = getClientLogger();
  // The finished request stays alive until this function returns (the body
  // handed to the handler points into it), and is released on its own thread.
  std::unique_ptr<XmlHttpRequest> request = callback->takeRequest();
  if (result != 0 || !request) {
    logger.error("request failed, error %d", result);
    callback->pending_ = false;
    callback->onFailure(result != 0 ? result : -1);
  } else {
    const char* data = nullptr;
    unsigned long length = 0;
    int rc = getResponse(logger, request, data, length);
    callback->pending_ = false;
    if (rc != 0) {
      callback->onFailure(rc);
    } else {
      callback->onSuccess(data, length);
    }
  }
  request.reset();
  callback->finished();
}

// ---- RESTClient::Callback ----

RESTClient::Callback::Callback() : logger_(Logger::getLogger("WPS.API.RESTClient.Callback")) {}

RESTClient::Callback::~Callback() { abortAndWait(); }

void RESTClient::Callback::abort() {
  SPI::StdMutexLock lock(mu_);
  if (request_) request_->abort();
}

void RESTClient::Callback::abortAndWait() {
  SPI::StdMutexLock lock(mu_);
  // No new request may start from a handler from now on.
  closing_ = true;
  if (request_) request_->abort();
  while (active_ != 0) idle_.wait(mu_);
  request_.reset();
}

RESTClient::Callback::Begin RESTClient::Callback::begin(std::unique_ptr<XmlHttpRequest> request) {
  SPI::StdMutexLock lock(mu_);
  if (closing_) return Begin::Closing;
  if (pending_.load()) return Begin::Pending;
  request_ = std::move(request);
  pending_ = true;
  ++active_;
  return Begin::Started;
}

void RESTClient::Callback::cancelBegin() {
  std::unique_ptr<XmlHttpRequest> request;
  SPI::StdMutexLock lock(mu_);
  request = std::move(request_);
  pending_ = false;
  --active_;
  idle_.notify_all();
}

std::unique_ptr<XmlHttpRequest> RESTClient::Callback::takeRequest() {
  SPI::StdMutexLock lock(mu_);
  return std::move(request_);
}

void RESTClient::Callback::finished() {
  // Notified under the lock: a waiter in abortAndWait may destroy the
  // callback as soon as it sees no active request.
  SPI::StdMutexLock lock(mu_);
  --active_;
  idle_.notify_all();
}

}  // namespace API
}  // namespace WPS
