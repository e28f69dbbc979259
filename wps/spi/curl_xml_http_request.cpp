// XmlHttpRequest over libcurl's multi interface, driven by a select loop.
#include <curl/curl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/select.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/preferences.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace SPI {

namespace {

std::atomic<long> gConnectTimeoutMs{XmlHttpRequest::kDefaultConnectTimeoutMs};
std::atomic<long> gTransferTimeoutMs{XmlHttpRequest::kDefaultTransferTimeoutMs};

// The wait of one turn of the select loop: 0.1 s.
constexpr long kSelectTimeoutMicroseconds = 100000;

struct CaseInsensitiveLess {
  bool operator()(const std::string& a, const std::string& b) const { return strcasecmp(a.c_str(), b.c_str()) < 0; }
};
using HeaderMap = std::map<std::string, std::string, CaseInsensitiveLess>;

struct MultiDeleter {
  void operator()(CURLM* m) const { curl_multi_cleanup(m); }
};
struct EasyDeleter {
  void operator()(CURL* e) const { curl_easy_cleanup(e); }
};
struct SlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

std::string trim(const std::string& s) {
  const char* ws = " \t\r\n";
  size_t first = s.find_first_not_of(ws);
  if (first == std::string::npos) return {};
  size_t last = s.find_last_not_of(ws);
  return s.substr(first, last - first + 1);
}

// libcurl's result translated into the error numbers the library reports.
int translateCurlCode(CURLcode code) {
  switch (code) {
    case CURLE_OK:
      return 0;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return XmlHttpRequest::kEPROTONOSUPPORT;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return XmlHttpRequest::kEHOSTUNREACH;
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return XmlHttpRequest::kECONNREFUSED;
    case CURLE_OPERATION_TIMEDOUT:
      return XmlHttpRequest::kETIMEDOUT;
    case CURLE_LOGIN_DENIED:
      return XmlHttpRequest::kEPERM;
    default:
      return -1;
  }
}

class CurlXmlHttpRequest final : public XmlHttpRequest {
 public:
  CurlXmlHttpRequest() : logger_(Logger::getLogger("WPS.SPI.XmlHttpRequest.CurlXmlHttpRequest")) {}

  ~CurlXmlHttpRequest() override {
    if (thread_ != nullptr) {
      aborted_ = true;
      CurlPlatformUtils::join_thread(thread_);
    }
  }

  CurlXmlHttpRequest(const CurlXmlHttpRequest&) = delete;
  CurlXmlHttpRequest& operator=(const CurlXmlHttpRequest&) = delete;

  int open(HttpMethod method, const std::string& url, bool async) override {
    return open(method, url, "", 0, "", "", async);
  }

  int open(HttpMethod method, const std::string& url, const std::string& proxyHost, int proxyPort,
           const std::string& proxyUser, const std::string& proxyPassword, bool async) override {
    if (opened_ || url.empty() || (method != GET && method != POST && method != HEAD)) return EINVAL;
    method_ = method;
    url_ = url;
    async_ = async;
    if (!proxyHost.empty()) {
      proxy_ = proxyHost + ":" + std::to_string(proxyPort);
      proxyUser_ = proxyUser;
      proxyPassword_ = proxyPassword;
    }
    connectTimeoutMs_ = gConnectTimeoutMs.load();
    transferTimeoutMs_ = gTransferTimeoutMs.load();
    opened_ = true;
    return 0;
  }

  int setRequestHeader(const std::string& name, const std::string& value) override {
    if (!opened_) return EINVAL;
    requestHeaders_[name] = value;
    return 0;
  }

  int setMaxResponseBytes(unsigned long bytes) override {
    if (sent_) return EINVAL;
    maxResponseBytes_ = bytes;
    return 0;
  }

  int setRequestCallback(RequestCallback callback, void* user) override {
    callback_ = callback;
    callbackUser_ = user;
    return 0;
  }

  int send() override {
    if (!opened_ || sent_) return EINVAL;
    sent_ = true;
    if (!async_) return perform();
    // The thread waits for this lock before its callback, which may destroy
    // the request: the handle must be stored first.
    StdMutexLock lock(threadMutex_);
    thread_ = CurlPlatformUtils::create_thread(&CurlXmlHttpRequest::threadMain, this);
    if (thread_ == nullptr) {
      logger_.error("couldn't create the request's thread");
      return EAGAIN;
    }
    return 0;
  }

  int send(const char* body, unsigned long length) override {
    if (!opened_ || sent_) return EINVAL;
    if (body != nullptr && length > 0) requestBody_.assign(body, body + length);
    return send();
  }

  int abort() override {
    aborted_ = true;
    return 0;
  }

  int getStatusCode() const override { return statusCode_; }
  std::string getStatusText() const override { return statusText_; }

  std::string getResponseHeader(const std::string& name) const override {
    auto it = responseHeaders_.find(name);
    return it == responseHeaders_.end() ? std::string() : it->second;
  }

  std::string getAllResponseHeaders() const override {
    std::string all;
    for (const auto& [name, value] : responseHeaders_) all += name + ": " + value + "\r\n";
    return all;
  }

  int getResponseText(const char*& data, unsigned long& length) const override {
    if (!finished_.load() || statusCode_ == -1 || tooLarge_ || cutShort_) return -1;
    data = responseBody_.data();
    length = responseBody_.size();
    return 0;
  }

 private:
  static int threadMain(void* self) {
    auto* request = static_cast<CurlXmlHttpRequest*>(self);
    int result = request->perform();
    { StdMutexLock lock(request->threadMutex_); }
    // The callback may destroy the request: nothing touches it afterwards.
    if (request->callback_ != nullptr) request->callback_(result, request->callbackUser_);
    return result;
  }

  static size_t writeBody(char* data, size_t size, size_t count, void* self) {
    auto* request = static_cast<CurlXmlHttpRequest*>(self);
    const size_t bytes = size * count;
    if (request->maxResponseBytes_ != 0 && bytes > request->maxResponseBytes_ - request->responseBody_.size()) {
      // Anything but `bytes` makes libcurl end the transfer.
      request->tooLarge_ = true;
      return 0;
    }
    request->responseBody_.insert(request->responseBody_.end(), data, data + bytes);
    return bytes;
  }

  static size_t writeHeader(char* data, size_t size, size_t count, void* self) {
    auto* request = static_cast<CurlXmlHttpRequest*>(self);
    const size_t bytes = size * count;
    request->headerLine(std::string(data, bytes));
    return bytes;
  }

  void headerLine(const std::string& line) {
    if (line.compare(0, 5, "HTTP/") == 0) {
      // "HTTP/1.1 200 OK": a new response (after a 100 Continue or a proxy's
      // CONNECT answer) starts; its headers replace the earlier ones.
      size_t codeStart = line.find(' ');
      if (codeStart == std::string::npos || line.size() < codeStart + 4) return;
      const std::string code = line.substr(codeStart + 1, 3);
      if (code.find_first_not_of("0123456789") != std::string::npos) return;
      statusCode_ = std::atoi(code.c_str());
      size_t textStart = line.find(' ', codeStart + 1);
      statusText_ = textStart == std::string::npos ? std::string() : trim(line.substr(textStart + 1));
      responseHeaders_.clear();
      return;
    }
    size_t colon = line.find(": ");
    if (colon == std::string::npos || colon == 0) return;
    responseHeaders_[trim(line.substr(0, colon))] = trim(line.substr(colon + 2));
  }

  // One transfer; returns its result (see the header).
  int perform() {
    CurlPlatformUtils::global_init();
    std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    if (!multi || !easy) {
      finished_ = true;
      return -1;
    }
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    std::unique_ptr<curl_slist, SlistDeleter> headers = configure(easy.get(), errorBuffer);
    const Outcome outcome = transfer(multi.get(), easy.get());
    const int result = mapResult(outcome, errorBuffer);
    finished_ = true;
    return result;
  }

  // How a transfer ended: whether curl finished it, and with which code.
  struct Outcome {
    bool completed = false;
    CURLcode code = CURLE_OK;
  };

  // Sets every option of the transfer on `e`; curl writes its error text to
  // `errorBuffer`. Returns the request's header list, which must live until
  // the transfer is over.
  std::unique_ptr<curl_slist, SlistDeleter> configure(CURL* e, char* errorBuffer) {
    curl_easy_setopt(e, CURLOPT_URL, url_.c_str());
    // Only the web's protocols, whatever the configured URL says.
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    // Server certificates are verified against the system's CA store: without
    // that anyone on the network path could hand out a false position. Only
    // a server the user named in the kSelfSignedServersKey preference (a
    // positioning server of one's own with a self-signed certificate) is
    // taken with a certificate no CA signed; its name must still match.
    const bool selfSigned = SPI::hostListed(hostOf(url_), readLibraryPreference(kSelfSignedServersKey));
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, selfSigned ? 0L : 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    configureMethod(e);
    if (maxResponseBytes_ != 0) {
      // Refuses an announced length at once; a body without one is counted
      // as it arrives (writeBody).
      curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxResponseBytes_));
    }
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, connectTimeoutMs_);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, transferTimeoutMs_);
    configureProxy(e);
    std::unique_ptr<curl_slist, SlistDeleter> headers = requestHeaderList();
    if (headers) curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers.get());

    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &CurlXmlHttpRequest::writeBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &CurlXmlHttpRequest::writeHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    return headers;
  }

  void configureMethod(CURL* e) {
    switch (method_) {
      case GET:
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
        break;
      case HEAD:
        curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
        break;
      case POST:
        curl_easy_setopt(e, CURLOPT_POST, 1L);
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, requestBody_.data());
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE, static_cast<long>(requestBody_.size()));
        break;
    }
  }

  void configureProxy(CURL* e) {
    if (proxy_.empty()) {
      // No proxy means none: not one from the environment either.
      curl_easy_setopt(e, CURLOPT_PROXY, "");
      return;
    }
    curl_easy_setopt(e, CURLOPT_PROXY, proxy_.c_str());
    if (!proxyUser_.empty() || !proxyPassword_.empty()) {
      proxyCredentials_ = proxyUser_ + ":" + proxyPassword_;
      curl_easy_setopt(e, CURLOPT_PROXYUSERPWD, proxyCredentials_.c_str());
    }
  }

  // The request headers as curl's list ("Name: value" lines); null for none.
  [[nodiscard]] std::unique_ptr<curl_slist, SlistDeleter> requestHeaderList() const {
    std::unique_ptr<curl_slist, SlistDeleter> headers;
    for (const auto& [name, value] : requestHeaders_) {
      std::string line = name + ": " + value;
      curl_slist* appended = curl_slist_append(headers.get(), line.c_str());
      if (appended == nullptr) break;
      (void)headers.release();
      headers.reset(appended);
    }
    return headers;
  }

  // Runs the transfer of `e` on `multi` until it ends or is aborted.
  Outcome transfer(CURLM* multi, CURL* e) {
    curl_multi_add_handle(multi, e);
    int running = 0;
    while (curl_multi_perform(multi, &running) == CURLM_CALL_MULTI_PERFORM) {
    }
    while (running > 0 && !aborted_.load()) {
      fd_set readSet, writeSet, errorSet;
      FD_ZERO(&readSet);
      FD_ZERO(&writeSet);
      FD_ZERO(&errorSet);
      int maxfd = -1;
      if (curl_multi_fdset(multi, &readSet, &writeSet, &errorSet, &maxfd) != CURLM_OK || maxfd < 0) break;
      timeval timeout{0, kSelectTimeoutMicroseconds};
      if (select(maxfd + 1, &readSet, &writeSet, &errorSet, &timeout) < 0) {
        running = 0;
        break;
      }
      while (curl_multi_perform(multi, &running) == CURLM_CALL_MULTI_PERFORM) {
      }
    }

    Outcome outcome;
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE && message->easy_handle == e) {
        outcome.completed = true;
        outcome.code = message->data.result;
      }
    }
    curl_multi_remove_handle(multi, e);
    return outcome;
  }

  // The result of `perform` for how the transfer ended (see the header), with
  // what went wrong logged.
  int mapResult(const Outcome& outcome, const char* errorBuffer) {
    const bool completed = outcome.completed;
    const CURLcode code = outcome.code;
    const char* curlText = errorBuffer[0] != 0 ? errorBuffer : curl_easy_strerror(code);
    if (completed && (tooLarge_ || code == CURLE_FILESIZE_EXCEEDED)) {
      logger_.error("response from %s is larger than the limit of %lu bytes; transfer stopped", url_.c_str(),
                    maxResponseBytes_);
      tooLarge_ = true;
      responseBody_.clear();
      responseBody_.shrink_to_fit();
      return kEFBIG;
    }
    int result;
    if (!completed) {
      result = -1;
    } else if (statusCode_ != -1 && (code == CURLE_OK || statusCode_ < 200 || statusCode_ >= 300)) {
      // An answer, whatever its status (a proxy's refusal included).
      result = 0;
    } else if (statusCode_ != -1) {
      // A success whose body was cut short (time-out, reset, fewer bytes
      // than announced): the truncated body must not pass for the answer.
      result = translateCurlCode(code);
      if (result == 0) result = -1;
      cutShort_ = true;
      logger_.error("response from %s was cut short: %s", url_.c_str(), curlText);
    } else {
      result = translateCurlCode(code);
    }
    if (completed && code != CURLE_OK) {
      logger_.debug("transfer of %s ended with curl error %d: %s", url_.c_str(), static_cast<int>(code), curlText);
    } else if (!completed) {
      logger_.debug("transfer of %s %s", url_.c_str(), aborted_.load() ? "aborted" : "did not complete");
    }
    return result;
  }

  Logger& logger_;
  HttpMethod method_ = GET;
  std::string url_;
  bool async_ = false;
  bool opened_ = false;
  bool sent_ = false;
  RequestCallback callback_ = nullptr;
  void* callbackUser_ = nullptr;
  std::string proxy_;  // "host:port", empty for none
  std::string proxyUser_;
  std::string proxyPassword_;
  std::string proxyCredentials_;
  long connectTimeoutMs_ = kDefaultConnectTimeoutMs;
  long transferTimeoutMs_ = kDefaultTransferTimeoutMs;
  HeaderMap requestHeaders_;
  std::vector<char> requestBody_;
  int statusCode_ = -1;
  std::string statusText_;
  HeaderMap responseHeaders_;
  std::vector<char> responseBody_;
  unsigned long maxResponseBytes_ = kDefaultMaxResponseBytes;
  bool tooLarge_ = false;  // the body outgrew maxResponseBytes_
  bool cutShort_ = false;  // a success response ended before its body did
  std::atomic<bool> aborted_{false};
  std::atomic<bool> finished_{false};
  StdMutex threadMutex_;
  void* thread_ WPS_GUARDED_BY(threadMutex_) = nullptr;  // handle of the asynchronous transfer's thread
};

struct ThreadStart {
  int (*function)(void*);
  void* argument;
};

void* threadTrampoline(void* p) {
  std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(p));
  start->function(start->argument);
  return nullptr;
}

}  // namespace

std::string XmlHttpRequest::hostOf(const std::string& url) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return {};
  char* host = nullptr;
  if (curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK || host == nullptr) return {};
  std::string text(host);
  curl_free(host);
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::unique_ptr<XmlHttpRequest> XmlHttpRequest::newInstance() {
  CurlPlatformUtils::global_init();
  return std::make_unique<CurlXmlHttpRequest>();
}

void XmlHttpRequest::setDefaultTimeouts(long connectMs, long transferMs) {
  gConnectTimeoutMs = connectMs > 0 ? connectMs : kDefaultConnectTimeoutMs;
  gTransferTimeoutMs = transferMs > 0 ? transferMs : kDefaultTransferTimeoutMs;
}

namespace {
StdMutex gGlobalMutex;
bool gGlobalInitialised WPS_GUARDED_BY(gGlobalMutex) = false;
}  // namespace

void CurlPlatformUtils::global_init() {
  StdMutexLock lock(gGlobalMutex);
  if (gGlobalInitialised) return;
  curl_global_init(CURL_GLOBAL_ALL);
  gGlobalInitialised = true;
}

void CurlPlatformUtils::global_cleanup() {
  StdMutexLock lock(gGlobalMutex);
  if (!gGlobalInitialised) return;
  curl_global_cleanup();
  gGlobalInitialised = false;
}

void* CurlPlatformUtils::create_thread(int (*function)(void*), void* argument) {
  auto start = std::make_unique<ThreadStart>(ThreadStart{function, argument});
  auto handle = std::make_unique<pthread_t>();
  int rc = pthread_create(handle.get(), nullptr, &threadTrampoline, start.get());
  if (rc != 0) {
    _log_error(Logger::getLogger("WPS.SPI.CurlPlatformUtils"), "pthread_create", rc);
    return nullptr;
  }
  (void)start.release();  // the thread owns it now
  return handle.release();
}

int CurlPlatformUtils::join_thread(void* p) {
  if (p == nullptr) return EINVAL;
  std::unique_ptr<pthread_t> handle(static_cast<pthread_t*>(p));
  if (pthread_equal(*handle, pthread_self())) return pthread_detach(*handle);
  int rc = pthread_join(*handle, nullptr);
  if (rc != 0) _log_error(Logger::getLogger("WPS.SPI.CurlPlatformUtils"), "pthread_join", rc);
  return rc;
}

}  // namespace SPI
}  // namespace WPS
