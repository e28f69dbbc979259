#include "timezone/geonames_client.h"

#include <charconv>
#include <cstdlib>

#include "platform/background_worker.h"
#include "platform/clock.h"
#include "platform/preferences_store.h"
#include "platform/system_log.h"
#include "platform/text.h"
#include "platform/xml_tree.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

constexpr auto kRequestTimeout = 10s;

// Reads a number the lenient way: leading blanks skipped, as much as parses,
// 0 when nothing does.
float floatValue(const XmlElement* element) {
  if (!element) return 0.0f;
  return std::strtof(element->text.c_str(), nullptr);
}

}  // namespace

GeoNamesClient::Config GeoNamesClient::configFromPreferences(PreferencesDomain& prefs) {
  Config config;
  if (auto v = prefs.copyValue("TimezoneServiceURL"); v && v->isString() && !v->asString().empty()) {
    config.serviceURL = v->asString();
  }
  if (auto v = prefs.copyValue("TimezoneServiceUsername"); v && v->isString()) config.username = v->asString();
  return config;
}

std::string GeoNamesClient::numberString(double value) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  if (ec != std::errc()) return "0";
  return std::string(buf, end);
}

std::string GeoNamesClient::requestURL(const Config& config, double latitude, double longitude) {
  std::string base = config.serviceURL;
  while (!base.empty() && base.back() == '/') base.pop_back();
  std::string url = base + "/timezone?lat=" + numberString(latitude) + "&lng=" + numberString(longitude) + "&style=full";
  if (!config.username.empty()) url += "&username=" + escapeURIComponent(config.username);
  return url;
}

int32_t GeoNamesClient::secondsFromHours(float hours) {
  float seconds = hours * 60.0f;
  seconds = seconds * 60.0f;
  if (!(seconds > -2147483648.0f && seconds < 2147483648.0f)) return 0;  // NaN or out of range
  return static_cast<int32_t>(seconds);
}

std::optional<ZoneAnswer> GeoNamesClient::lookUp(double longitude, double latitude,
                                                 const std::stop_token& stop) const {
  const std::string url = requestURL(config_, latitude, longitude);
  SystemLog("urlString = %s", url.c_str());

  std::optional<std::string> data;
  std::optional<XmlElement> root;
  for (int attempt = 1; attempt <= config_.attempts; ++attempt) {
    data = fetcher_.fetch(url, kRequestTimeout);
    if (data) {
      root = parseXml(*data);
      if (root) break;
    }
    if (!BackgroundWorker::pause(config_.pauseBetweenAttempts, stop)) return std::nullopt;
    // Data that is not XML is not asked for again.
    if (data) break;
    if (attempt == config_.attempts) return std::nullopt;
  }

  // An answer without a timezone record -- not XML, an error document of the
  // service, a proxy's page -- says nothing about the place: no zone, rather
  // than a guess from zero offsets.
  const XmlElement* record = root ? root->lastChild("timezone") : nullptr;
  if (!record) {
    SystemLogAt(LogPriority::Warning, "time-zone service answer for %s holds no time zone (%zu bytes%s)", url.c_str(),
                data ? data->size() : 0, root ? "" : ", not XML");
    return std::nullopt;
  }
  ZoneAnswer answer;
  if (const XmlElement* id = record->lastChild("timezoneId")) answer.identifier = id->text;
  answer.gmtOffset = secondsFromHours(floatValue(record->lastChild("gmtOffset")));
  answer.dstOffset = secondsFromHours(floatValue(record->lastChild("dstOffset")));
  return answer;
}

}  // namespace zonara
