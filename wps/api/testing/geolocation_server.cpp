#include "wps/api/testing/geolocation_server.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>

#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {
namespace testing {

using nlohmann::json;
using zonara::testing::HttpRequest;
using zonara::testing::HttpResponse;

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

HttpResponse jsonResponse(int status, const json& body) {
  return HttpResponse(status, body.dump()).withHeader("Content-Type", "application/json");
}

HttpResponse locationResponse(double latitude, double longitude, double accuracy, bool ipBased) {
  json body = {{"location", {{"lat", latitude}, {"lng", longitude}}}, {"accuracy", accuracy}};
  if (ipBased) body["fallback"] = "ipf";
  return jsonResponse(200, body);
}

}  // namespace

GeolocationServer::GeolocationServer()
    : http_(std::make_unique<zonara::testing::HttpTestServer>(
          [this](const HttpRequest& request) { return answer(request); })) {}

GeolocationServer::~GeolocationServer() { http_.reset(); }

std::string GeolocationServer::url() const { return http_->url(kPath); }

void GeolocationServer::addAccessPoint(const std::string& mac, double latitude, double longitude) {
  SPI::StdMutexLock lock(mu_);
  accessPoints_[lower(mac)] = {latitude, longitude};
}

void GeolocationServer::clearAccessPoints() {
  SPI::StdMutexLock lock(mu_);
  accessPoints_.clear();
}

void GeolocationServer::setWifiAccuracy(double metres) {
  SPI::StdMutexLock lock(mu_);
  wifiAccuracy_ = metres;
}

void GeolocationServer::setIpLocation(std::optional<std::pair<double, double>> latitudeLongitude, double accuracy) {
  SPI::StdMutexLock lock(mu_);
  ipLocation_ = latitudeLongitude;
  ipAccuracy_ = accuracy;
}

void GeolocationServer::setFault(Fault fault, std::string retryAfter) {
  SPI::StdMutexLock lock(mu_);
  fault_ = fault;
  retryAfter_ = std::move(retryAfter);
}

HttpResponse GeolocationServer::errorResponse(int status, const std::string& reason) {
  const json body = {{"error", {{"errors", {{{"domain", "geolocation"}, {"reason", reason}, {"message", reason}}}},
                                {"code", status},
                                {"message", reason}}}};
  return jsonResponse(status, body);
}

HttpResponse GeolocationServer::faultResponse(Fault fault, const std::string& retryAfter) {
  HttpResponse response;
  switch (fault) {
    case Fault::kNone:
    case Fault::kNotFound:
      response = errorResponse(404, "notFound");
      break;
    case Fault::kKeyInvalid:
      response = errorResponse(400, "keyInvalid");
      break;
    case Fault::kParseError:
      response = errorResponse(400, "parseError");
      break;
    case Fault::kDailyLimitExceeded:
      response = errorResponse(403, "dailyLimitExceeded");
      break;
    case Fault::kTooManyRequests:
      response = HttpResponse(429, "");
      break;
    case Fault::kServerError:
      response = HttpResponse(500, "");
      break;
    case Fault::kServiceUnavailable:
      response = HttpResponse(503, "<html>maintenance</html>");
      break;
    case Fault::kNotJson:
      response = HttpResponse(200, "<html><body>Welcome</body></html>").withHeader("Content-Type", "text/html");
      break;
    case Fault::kCutShort:
      response = HttpResponse(200, R"({"location": {"lat": 52.5, "lng": 13.4}, "accu)")
                     .withHeader("Content-Length", "200")
                     .closing();
      break;
    case Fault::kOversized:
      response = HttpResponse::streamedBody(SPI::XmlHttpRequest::kDefaultMaxResponseBytes + 1, true);
      break;
    case Fault::kReset:
      response = HttpResponse::connectionReset();
      break;
    case Fault::kTooSlow:
      response = locationResponse(0, 0, 1000, false).withDelay(std::chrono::seconds(10));
      break;
  }
  if (!retryAfter.empty()) response.withHeader("Retry-After", retryAfter);
  return response;
}

HttpResponse GeolocationServer::answer(const HttpRequest& request) {
  SPI::StdMutexLock lock(mu_);
  if (fault_ != Fault::kNone) return faultResponse(fault_, retryAfter_);
  const json body = json::parse(request.body, nullptr, false);
  if (request.method != "POST" || request.path() != kPath || !body.is_object()) {
    return errorResponse(400, "parseError");
  }
  auto accessPoints = body.find("wifiAccessPoints");
  if (accessPoints == body.end() || !accessPoints->is_array() || accessPoints->empty()) {
    const bool considerIp = body.value("considerIp", true);
    if (!considerIp || !ipLocation_) return errorResponse(404, "notFound");
    return locationResponse(ipLocation_->first, ipLocation_->second, ipAccuracy_, true);
  }
  double latitude = 0, longitude = 0;
  int known = 0;
  for (const json& entry : *accessPoints) {
    if (!entry.is_object() || !entry.contains("macAddress") || !entry["macAddress"].is_string()) continue;
    auto it = accessPoints_.find(lower(entry["macAddress"].get<std::string>()));
    if (it == accessPoints_.end()) continue;
    latitude += it->second.first;
    longitude += it->second.second;
    ++known;
  }
  if (known == 0) return errorResponse(404, "notFound");
  return locationResponse(latitude / known, longitude / known, wifiAccuracy_, false);
}

size_t GeolocationServer::countRequests(bool considerIp) const {
  size_t count = 0;
  for (const HttpRequest& request : http_->requests()) {
    const json body = json::parse(request.body, nullptr, false);
    if (!body.is_object()) continue;
    const bool asksIp = !body.contains("wifiAccessPoints");
    if (asksIp == considerIp) ++count;
  }
  return count;
}

size_t GeolocationServer::wifiRequestCount() const { return countRequests(false); }
size_t GeolocationServer::ipRequestCount() const { return countRequests(true); }

}  // namespace testing
}  // namespace API
}  // namespace WPS
