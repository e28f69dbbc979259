#include "wps/api/remote/geolocation_api.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <locale>
#include <nlohmann/json.hpp>
#include <sstream>

#include "wps/api/learn/learned_store.h"
#include "wps/api/position_check.h"
#include "wps/api/protocol/location_client.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {

using nlohmann::json;
using SPI::XmlHttpRequest;

namespace {

// "01:23:45:67:89:ab".
std::string lowerColonMac(const SPI::MAC& mac) {
  std::string text = mac.toColonString();
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// A finite number at `key` of `object`, or nullopt.
std::optional<double> finiteNumber(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  const double value = it->get<double>();
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

// The first "reason" of an error document {"error": {"errors": [{"reason": ..}]}}.
std::string errorReason(std::string_view body) {
  const json document = json::parse(body.begin(), body.end(), nullptr, false);
  if (!document.is_object()) return {};
  auto error = document.find("error");
  if (error == document.end() || !error->is_object()) return {};
  auto errors = error->find("errors");
  if (errors == error->end() || !errors->is_array() || errors->empty()) return {};
  const json& first = errors->front();
  if (!first.is_object()) return {};
  auto reason = first.find("reason");
  return reason != first.end() && reason->is_string() ? reason->get<std::string>() : std::string();
}

// Milliseconds since the epoch.
int64_t millisecondsOf(const SPI::Time& time) { return int64_t{time.seconds} * 1000 + time.milliseconds; }

// Seconds since the epoch of a broken-down UTC time.
int64_t utcSeconds(std::tm& tm) { return static_cast<int64_t>(timegm(&tm)); }

}  // namespace

// ---- Request ----

bool isSendable(const SPI::ScannedAccessPoint& accessPoint) {
  if (!passesPrivacyFilters(accessPoint)) return false;
  return accessPoint.rssi == SPI::kUnknownRSSI || accessPoint.rssi > -90;
}

SPI::AccessPointList sendableAccessPoints(const SPI::AccessPointList& scanned) {
  SPI::AccessPointList sendable;
  std::copy_if(scanned.begin(), scanned.end(), std::back_inserter(sendable), isSendable);
  return sendable;
}

std::string wifiRequestBody(const SPI::AccessPointList& sendable, const SPI::Time& now) {
  json accessPoints = json::array();
  for (const SPI::ScannedAccessPoint& ap : sendable) {
    json entry = {{"macAddress", lowerColonMac(ap.mac)}};
    if (ap.rssi != SPI::kUnknownRSSI) entry["signalStrength"] = ap.rssi;
    if (ap.time.isSet()) entry["age"] = std::max<int64_t>(0, now - ap.time);
    if (ap.channel != 0) entry["channel"] = ap.channel;
    accessPoints.push_back(std::move(entry));
  }
  return json{{"considerIp", false}, {"wifiAccessPoints", std::move(accessPoints)}}.dump();
}

std::string ipRequestBody() { return json{{"considerIp", true}}.dump(); }

// ---- Answer ----

std::optional<GeolocationAnswer> parseGeolocationAnswer(std::string_view body, std::string& problem) {
  const json document = json::parse(body.begin(), body.end(), nullptr, false);
  if (!document.is_object()) {
    problem = "the answer is not a JSON object";
    return std::nullopt;
  }
  auto location = document.find("location");
  if (location == document.end() || !location->is_object()) {
    problem = "the answer has no location";
    return std::nullopt;
  }
  const std::optional<double> latitude = finiteNumber(*location, "lat");
  const std::optional<double> longitude = finiteNumber(*location, "lng");
  const std::optional<double> accuracy = finiteNumber(document, "accuracy");
  if (!latitude || !longitude || !accuracy) {
    problem = "the answer lacks a finite latitude, longitude or accuracy";
    return std::nullopt;
  }
  if (const char* invalid = positionProblem(*latitude, *longitude, *accuracy)) {
    problem = std::string("the answer's position is refused: ") + invalid;
    return std::nullopt;
  }
  GeolocationAnswer answer{*latitude, *longitude, *accuracy, false};
  auto fallback = document.find("fallback");
  answer.ipBased = fallback != document.end() && fallback->is_string() && fallback->get<std::string>() == "ipf";
  return answer;
}

// ---- Errors ----

GeolocationError classifyGeolocationError(int status, std::string_view body) {
  GeolocationError error;
  error.reason = errorReason(body);
  if (status == 404) {
    error.code = WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  } else if (status == 400) {
    error.code = error.reason == "keyInvalid" ? WPS_ERROR_UNAUTHORIZED : WPS_ERROR;
  } else if (status == 401) {
    error.code = WPS_ERROR_UNAUTHORIZED;
  } else if (status == 407) {
    error.code = WPS_ERROR_PROXY_UNAUTHORIZED;
  } else {
    // 403 (a daily limit), 429 and the server's own failures ask the client
    // to come back later; anything else is just not an answer.
    error.code = WPS_ERROR_SERVER_UNAVAILABLE;
    error.backOff = status == 403 || status == 429 || (status >= 500 && status <= 599);
  }
  return error;
}

std::optional<int64_t> parseRetryAfter(const std::string& value, const SPI::Time& now) {
  if (value.empty()) return std::nullopt;
  if (std::all_of(value.begin(), value.end(), [](unsigned char c) { return std::isdigit(c); })) {
    if (value.size() > 9) return std::nullopt;
    return std::stoll(value) * 1000;
  }
  // An HTTP date: "Wed, 21 Oct 2015 07:28:00 GMT".
  std::tm tm{};
  std::istringstream in(value);
  in.imbue(std::locale::classic());
  in >> std::get_time(&tm, "%a, %d %b %Y %H:%M:%S");
  std::string zone;
  in >> zone;
  if (in.fail() || zone != "GMT") return std::nullopt;
  const int64_t milliseconds = utcSeconds(tm) * 1000 - millisecondsOf(now);
  return std::max<int64_t>(0, milliseconds);
}

// ---- Back-off ----

int64_t ServerBackOff::remaining(const std::string& server, const SPI::Time& now) const {
  SPI::StdMutexLock lock(mu_);
  auto it = servers_.find(server);
  if (it == servers_.end()) return 0;
  return std::max<int64_t>(0, it->second.untilMs - millisecondsOf(now));
}

int64_t ServerBackOff::failed(const std::string& server, const SPI::Time& now, std::optional<int64_t> retryAfterMs) {
  SPI::StdMutexLock lock(mu_);
  State& state = servers_[server];
  int64_t period = kFirstPeriodMs;
  for (int i = 0; i < state.failures && period < kLongestPeriodMs; ++i) period *= 2;
  period = std::min(period, kLongestPeriodMs);
  if (retryAfterMs) period = *retryAfterMs;
  ++state.failures;
  state.untilMs = millisecondsOf(now) + period;
  return period;
}

void ServerBackOff::succeeded(const std::string& server) {
  SPI::StdMutexLock lock(mu_);
  servers_.erase(server);
}

// ---- Exchange ----

GeolocationDetermination::GeolocationDetermination()
    : logger_(SPI::Logger::getLogger("WPS.API.GeolocationDetermination")) {}

int GeolocationDetermination::locate(const SPI::AccessPointList& scanned, Location& location) {
  const SPI::AccessPointList sendable = sendableAccessPoints(scanned);
  if (sendable.size() < 2) {
    logger_.info("%d of %d access points may be sent; no request with fewer than 2",
                 static_cast<int>(sendable.size()), static_cast<int>(scanned.size()));
    return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  }
  GeolocationAnswer answer;
  const int rc = exchange(wifiRequestBody(sendable, SPI::Time::now()), answer);
  if (rc != WPS_OK) return rc;
  location = Location{};
  location.latitude = answer.latitude;
  location.longitude = answer.longitude;
  location.hpe = answer.accuracy;
  location.nap = static_cast<int>(sendable.size());
  location.ipBased = answer.ipBased;
  location.time = SPI::Time::now();
  return WPS_OK;
}

int GeolocationDetermination::locateByIp(IPLocation& location) {
  GeolocationAnswer answer;
  const int rc = exchange(ipRequestBody(), answer);
  if (rc != WPS_OK) return rc;
  location = IPLocation{};
  location.latitude = answer.latitude;
  location.longitude = answer.longitude;
  return WPS_OK;
}

int GeolocationDetermination::exchange(const std::string& body, GeolocationAnswer& answer) {
  const LocationClient& client = LocationClient::getInstance();
  const std::string server = client.settings().serverUrl;
  if (const int64_t wait = backOff_.remaining(server, SPI::Time::now()); wait > 0) {
    logger_.info("backing off: no request to %s for another %lld s", server.c_str(),
                 static_cast<long long>((wait + 999) / 1000));
    return WPS_ERROR_SERVER_UNAVAILABLE;
  }
  // The server URL is the whole address of the API: no path is added.
  std::unique_ptr<XmlHttpRequest> http = client.openHttpRequest(XmlHttpRequest::POST, "", false);
  if (!http) return WPS_ERROR;
  http->setRequestHeader("Content-Type", "application/json");
  logger_.info("asking %s: %s", server.c_str(), body.c_str());
  const int rc = http->send(body.data(), body.size());
  if (rc != 0) {
    logger_.error("no answer from %s, error %d", server.c_str(), rc);
    if (rc == XmlHttpRequest::kETIMEDOUT || rc == XmlHttpRequest::kECONNREFUSED) {
      const int64_t period = backOff_.failed(server, SPI::Time::now(), std::nullopt);
      logger_.info("backing off from %s for %lld s", server.c_str(), static_cast<long long>(period / 1000));
    }
    return WPS_ERROR_SERVER_UNAVAILABLE;
  }
  const char* data = nullptr;
  unsigned long length = 0;
  const bool haveBody = http->getResponseText(data, length) == 0;
  const int status = http->getStatusCode();
  if (status != 200) {
    return refusal(server, status, http->getResponseHeader("Retry-After"),
                   haveBody ? std::string_view(data, length) : std::string_view());
  }
  backOff_.succeeded(server);
  if (!haveBody) {
    logger_.error("couldn't read the answer of %s", server.c_str());
    return WPS_ERROR_SERVER_UNAVAILABLE;
  }
  return readAnswer(data, length, answer);
}

int GeolocationDetermination::readAnswer(const char* data, unsigned long length, GeolocationAnswer& answer) {
  std::string problem;
  std::optional<GeolocationAnswer> parsed = parseGeolocationAnswer(std::string_view(data, length), problem);
  if (!parsed) {
    logger_.error("unusable answer: %s: %.*s", problem.c_str(), static_cast<int>(std::min(length, 200ul)), data);
    return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  }
  answer = *parsed;
  logger_.info("location: %f, %f +/-%.0fm%s", answer.latitude, answer.longitude, answer.accuracy,
               answer.ipBased ? " (from the IP address)" : "");
  return WPS_OK;
}

int GeolocationDetermination::refusal(const std::string& server, int status, const std::string& retryAfter,
                                      std::string_view body) {
  const GeolocationError error = classifyGeolocationError(status, body);
  logger_.error("%s answered %d%s%s", server.c_str(), status, error.reason.empty() ? "" : " ",
                error.reason.c_str());
  if (status == 404) backOff_.succeeded(server);
  if (error.backOff) {
    const int64_t period = backOff_.failed(server, SPI::Time::now(), parseRetryAfter(retryAfter, SPI::Time::now()));
    logger_.info("backing off from %s for %lld s", server.c_str(), static_cast<long long>(period / 1000));
  }
  return error.code;
}

}  // namespace API
}  // namespace WPS
