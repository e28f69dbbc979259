#include "app/geolocation_helper.h"

#include <date/date.h>
#include <glib.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <charconv>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/background_worker.h"
#include "platform/clock.h"
#include "platform/preferences_store.h"
#include "platform/system_log.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

constexpr int kAttempts = 10;
constexpr auto kRequestTimeout = 10s;
constexpr auto kPauseBetweenAttempts = 30s;

struct XmlDocDeleter {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocDeleter>;

XmlDoc parseXml(const std::string& data) {
  return XmlDoc(xmlReadMemory(data.data(), static_cast<int>(data.size()), nullptr, nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

// The last element child of `parent` named `name`.
xmlNode* lastChild(xmlNode* parent, const char* name) {
  xmlNode* found = nullptr;
  for (xmlNode* n = parent ? parent->children : nullptr; n; n = n->next) {
    if (n->type == XML_ELEMENT_NODE && xmlStrcmp(n->name, reinterpret_cast<const xmlChar*>(name)) == 0) found = n;
  }
  return found;
}

std::optional<std::string> textOf(xmlNode* node) {
  if (!node) return std::nullopt;
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

// Reads a number the lenient way: leading blanks skipped, as much as parses,
// 0 when nothing does.
float floatValue(const std::optional<std::string>& text) {
  if (!text) return 0.0f;
  return std::strtof(text->c_str(), nullptr);
}

// Lower-case, decomposed, combining marks removed; nullopt for invalid UTF-8.
std::optional<std::string> fold(const std::string& s) {
  if (!g_utf8_validate(s.data(), static_cast<gssize>(s.size()), nullptr)) return std::nullopt;
  std::unique_ptr<gchar, decltype(&g_free)> decomposed(
      g_utf8_normalize(s.data(), static_cast<gssize>(s.size()), G_NORMALIZE_NFD), &g_free);
  if (!decomposed) return std::nullopt;
  std::string stripped;
  for (const gchar* p = decomposed.get(); *p; p = g_utf8_next_char(p)) {
    gunichar c = g_utf8_get_char(p);
    if (g_unichar_combining_class(c) != 0) continue;
    char buf[6];
    stripped.append(buf, g_unichar_to_utf8(c, buf));
  }
  std::unique_ptr<gchar, decltype(&g_free)> folded(g_utf8_casefold(stripped.c_str(), -1), &g_free);
  return std::string(folded.get());
}

struct Candidate {
  std::string name;
  std::string abbreviation;
};

}  // namespace

GeolocationHelper::Config GeolocationHelper::configFromPreferences(PreferencesDomain& prefs) {
  Config config;
  if (auto v = prefs.copyValue("TimezoneServiceURL"); v && v->isString() && !v->asString().empty()) {
    config.serviceURL = v->asString();
  }
  if (auto v = prefs.copyValue("TimezoneServiceUsername"); v && v->isString()) config.username = v->asString();
  return config;
}

std::string GeolocationHelper::numberString(double value) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  if (ec != std::errc()) return "0";
  return std::string(buf, end);
}

std::string GeolocationHelper::requestURL(const Config& config, double latitude, double longitude) {
  std::string base = config.serviceURL;
  while (!base.empty() && base.back() == '/') base.pop_back();
  std::string url = base + "/timezone?lat=" + numberString(latitude) + "&lng=" + numberString(longitude) + "&style=full";
  if (!config.username.empty()) {
    std::unique_ptr<gchar, decltype(&g_free)> escaped(
        g_uri_escape_string(config.username.c_str(), nullptr, FALSE), &g_free);
    url += "&username=" + std::string(escaped.get());
  }
  return url;
}

int32_t GeolocationHelper::secondsFromHours(float hours) {
  float seconds = hours * 60.0f;
  seconds = seconds * 60.0f;
  if (!(seconds > -2147483648.0f && seconds < 2147483648.0f)) return 0;  // NaN or out of range
  return static_cast<int32_t>(seconds);
}

bool GeolocationHelper::containsIgnoringCaseAndDiacritics(const std::string& text, const std::string& part) {
  if (part.empty()) return false;
  auto t = fold(text);
  auto p = fold(part);
  if (!t || !p) return text.find(part) != std::string::npos;
  return !p->empty() && t->find(*p) != std::string::npos;
}

std::optional<std::string> GeolocationHelper::timezoneForLongitude(double longitude, double latitude,
                                                                   const std::stop_token& stop) const {
  const std::string url = requestURL(config_, latitude, longitude);
  SystemLog("urlString = %s", url.c_str());

  std::optional<std::string> data;
  XmlDoc doc;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    data = fetcher_.fetch(url, kRequestTimeout);
    if (data) {
      doc = parseXml(*data);
      if (doc) break;
    }
    if (!BackgroundWorker::pause(kPauseBetweenAttempts, stop)) return std::nullopt;
    // Data that is not XML is not asked for again.
    if (data) break;
    if (attempt == kAttempts) return std::nullopt;
  }

  // An answer without a timezone record -- not XML, an error document of the
  // service, a proxy's page -- says nothing about the place: no zone, rather
  // than a guess from zero offsets.
  xmlNode* record = doc ? lastChild(xmlDocGetRootElement(doc.get()), "timezone") : nullptr;
  if (!record) {
    SystemLogAt(LogPriority::Warning, "time-zone service answer for %s holds no time zone (%zu bytes%s)", url.c_str(),
                data ? data->size() : 0, doc ? "" : ", not XML");
    return std::nullopt;
  }
  std::optional<std::string> identifier = textOf(lastChild(record, "timezoneId"));
  const float gmtHours = floatValue(textOf(lastChild(record, "gmtOffset")));
  const float dstHours = floatValue(textOf(lastChild(record, "dstOffset")));

  if (identifier) {
    const auto now = Clock::get().wallNow();
    for (const std::string& known : zones_.knownTimeZoneNames()) {
      auto name = zones_.zoneName(known);
      if (!name || name->empty() || *name == "posixrules") continue;
      Candidate c{*name, zones_.abbreviationAt(*name, now).value_or("")};
      if (containsIgnoringCaseAndDiacritics(c.name, *identifier) ||
          containsIgnoringCaseAndDiacritics(c.abbreviation, *identifier)) {
        return c.name;
      }
    }
  }
  return timezoneForGMTOffset(secondsFromHours(gmtHours), secondsFromHours(dstHours));
}

std::optional<std::string> GeolocationHelper::timezoneForGMTOffset(int32_t gmtOffset, int32_t dstOffset) const {
  const auto now = Clock::get().wallNow();
  // 1 January and 1 July of this year, at midnight of the local zone.
  std::string local = zones_.systemTimeZoneName();
  if (local.empty()) local = "UTC";
  const auto today = date::year_month_day(date::floor<date::days>(now));
  auto localMidnight = [&](date::month m) {
    Clock::WallTime utcMidnight(date::sys_days(today.year() / m / 1).time_since_epoch());
    return utcMidnight - std::chrono::seconds(zones_.offsetAt(local, utcMidnight).value_or(0));
  };
  const auto january = localMidnight(date::January);
  const auto july = localMidnight(date::July);
  auto hasOffsets = [&](const std::string& zone) {
    return zones_.offsetAt(zone, january) == gmtOffset && zones_.offsetAt(zone, july) == dstOffset;
  };

  for (const std::string& known : zones_.knownTimeZoneNames()) {
    auto name = zones_.zoneName(known);
    if (!name || !hasOffsets(*name)) continue;
    auto abbreviation = zones_.abbreviationAt(*name, now);
    if (!abbreviation) return std::nullopt;
    auto representative = zoneForAbbreviation(*abbreviation);
    if (!representative) return std::nullopt;
    // The table's zone stands for its abbreviation in one region only (CST
    // is also China's): it is used only when it has the offsets asked for.
    if (hasOffsets(*representative)) return representative;
    return name;
  }
  return std::nullopt;
}

}  // namespace zonara
