#include "tools/demo/demo_services.h"

#include <date/date.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "platform/time_zone_database.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/scan.h"

namespace zonara::demo {

using testing::HttpRequest;
using testing::HttpResponse;

namespace {

bool parseDouble(const std::string& text, double& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return *end == '\0' && std::isfinite(out);
}

// Hours as the service writes them: "1.0", "-5.0", "5.5".
std::string hours(int32_t seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds / 3600.0);
  return text;
}

std::string coordinate(double degrees) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", degrees);
  return text;
}

}  // namespace

std::optional<CityTable> CityTable::parse(std::istream& in, std::string& error) {
  CityTable table;
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    std::istringstream fields(line);
    std::string id, latitude, longitude;
    if (!(fields >> id) || id[0] == '#') continue;
    City city;
    city.id = id;
    fields >> latitude >> longitude >> city.zone;
    std::getline(fields >> std::ws, city.name);
    city.name.erase(city.name.find_last_not_of(" \t\r") + 1);
    if (!parseDouble(latitude, city.latitude) || !parseDouble(longitude, city.longitude) ||
        std::fabs(city.latitude) > 90 || std::fabs(city.longitude) > 180 || city.zone.empty() ||
        city.name.empty()) {
      error = "line " + std::to_string(number) + ": expected ID LATITUDE LONGITUDE ZONE NAME";
      return std::nullopt;
    }
    if (table.find(city.id)) {
      error = "line " + std::to_string(number) + ": city " + city.id + " listed twice";
      return std::nullopt;
    }
    table.cities_.push_back(std::move(city));
  }
  if (table.cities_.empty()) {
    error = "no cities";
    return std::nullopt;
  }
  return table;
}

const City* CityTable::find(const std::string& id) const {
  for (const City& city : cities_) {
    if (city.id == id) return &city;
  }
  return nullptr;
}

const City* CityTable::named(const std::string& name) const {
  for (const City& city : cities_) {
    if (city.name == name) return &city;
  }
  return nullptr;
}

const City& CityTable::nearest(double latitude, double longitude) const {
  const City* best = &cities_.front();
  double bestDistance = INFINITY;
  for (const City& city : cities_) {
    double dLongitude = std::fabs(city.longitude - longitude);
    if (dLongitude > 180) dLongitude = 360 - dLongitude;
    const double dLatitude = city.latitude - latitude;
    const double distance = dLatitude * dLatitude + dLongitude * dLongitude;
    if (distance < bestDistance) {
      bestDistance = distance;
      best = &city;
    }
  }
  return *best;
}

std::optional<std::string> TimeZoneAnswer(const City& city, double latitude, double longitude, int year) {
  DateTzDatabase zones;
  const auto at = [&](unsigned month) {
    return Clock::WallTime(
        date::sys_days(date::year(year) / date::month(month) / 1).time_since_epoch());
  };
  const std::optional<int32_t> january = zones.offsetAt(city.zone, at(1));
  const std::optional<int32_t> july = zones.offsetAt(city.zone, at(7));
  if (!january || !july) return std::nullopt;
  // The service's gmtOffset is the offset in January, dstOffset the one in
  // July (whatever the hemisphere); rawOffset the standard one.
  const int32_t standard = std::min(*january, *july);
  return "<geonames><timezone tzversion=\"demo\"><countryName>" + city.name + "</countryName><lat>" +
         coordinate(latitude) + "</lat><lng>" + coordinate(longitude) + "</lng><timezoneId>" + city.zone +
         "</timezoneId><dstOffset>" + hours(*july) + "</dstOffset><gmtOffset>" + hours(*january) +
         "</gmtOffset><rawOffset>" + hours(standard) + "</rawOffset></timezone></geonames>";
}

std::string IPLocationPage(const City& city) {
  return "<html><head><title>Where is my IP</title></head><body><table>"
         "<tr><td>City</td><td class=output>" +
         city.name + "</td></tr><tr><td>Latitude/Longitude</td><td class=output>" + coordinate(city.latitude) +
         "/" + coordinate(city.longitude) + "</td></tr></table></body></html>";
}

bool AccessPointLocator::addCSV(std::istream& in, std::string& error) {
  std::vector<WPS::API::LocatedAccessPoint> read;
  if (!WPS::API::parseAccessPointsCSV(in, read, error)) return false;
  accessPoints_.insert(accessPoints_.end(), read.begin(), read.end());
  return true;
}

std::optional<AccessPointLocator::Fix> AccessPointLocator::locate(const std::vector<std::string>& macs) const {
  Fix fix;
  for (const std::string& text : macs) {
    WPS::SPI::MAC mac;
    if (!WPS::SPI::MAC::parse(text, mac)) continue;
    for (const auto& ap : accessPoints_) {
      if (ap.mac.value() != mac.value()) continue;
      fix.latitude += ap.latitude;
      fix.longitude += ap.longitude;
      ++fix.known;
      break;
    }
  }
  if (fix.known == 0) return std::nullopt;
  fix.latitude /= fix.known;
  fix.longitude /= fix.known;
  return fix;
}

std::vector<std::string> RequestMacs(const std::string& body) {
  std::vector<std::string> macs;
  const std::string open = "<mac>", close = "</mac>";
  for (size_t at = body.find(open); at != std::string::npos; at = body.find(open, at)) {
    at += open.size();
    const size_t end = body.find(close, at);
    if (end == std::string::npos) break;
    macs.push_back(body.substr(at, end - at));
  }
  return macs;
}

std::optional<std::string> QueryValue(const std::string& query, const std::string& name) {
  size_t start = 0;
  while (start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    if (pair.size() > name.size() && pair.compare(0, name.size(), name) == 0 && pair[name.size()] == '=') {
      return pair.substr(name.size() + 1);
    }
    start = end + 1;
  }
  return std::nullopt;
}

HttpResponse AnswerTimeZoneRequest(const CityTable& table, const HttpRequest& request,
                                   const ServiceReport& report) {
  const auto tell = [&report](const std::string& line) {
    if (report) report(line);
  };
  if (request.path() != "/timezone") {
    tell("time-zone service: nothing at " + request.path());
    return HttpResponse(404, "");
  }
  double latitude = 0, longitude = 0;
  const std::optional<std::string> lat = QueryValue(request.query(), "lat");
  const std::optional<std::string> lng = QueryValue(request.query(), "lng");
  if (!lat || !lng || !parseDouble(*lat, latitude) || !parseDouble(*lng, longitude)) {
    tell("time-zone service: a request without a usable lat and lng: " + request.target);
    return HttpResponse(200, "<geonames><status message=\"invalid lat/lng\" value=\"14\"/></geonames>");
  }
  const City& city = table.nearest(latitude, longitude);
  const int year =
      static_cast<int>(date::year_month_day(date::floor<date::days>(std::chrono::system_clock::now())).year());
  std::optional<std::string> body = TimeZoneAnswer(city, latitude, longitude, year);
  if (!body) {
    tell("time-zone service: this system does not know the zone " + city.zone);
    return HttpResponse(200, "<geonames><status message=\"no zone\" value=\"15\"/></geonames>");
  }
  tell("time-zone service: " + *lat + "," + *lng + " is near " + city.name + ": " + city.zone);
  return HttpResponse(200, *body).withHeader("Content-Type", "text/xml; charset=UTF-8");
}

HttpResponse AnswerIPLocationRequest(const City* city, const HttpRequest& request, const ServiceReport& report) {
  const auto tell = [&report](const std::string& line) {
    if (report) report(line);
  };
  if (request.path() != "/app/locate_my_ip") {
    tell("IP-location page: nothing at " + request.path());
    return HttpResponse(404, "");
  }
  if (!city) {
    tell("IP-location page: this Internet address is nowhere known");
    return HttpResponse(200, "<html><body>Location unknown</body></html>").withHeader("Content-Type", "text/html");
  }
  tell("IP-location page: this Internet address is in " + city->name);
  return HttpResponse(200, IPLocationPage(*city)).withHeader("Content-Type", "text/html");
}

CityServices::CityServices(const CityTable& table, const City& ipCity, Report report)
    : table_(table),
      ipCity_(ipCity),
      report_(std::move(report)),
      http_([this](const HttpRequest& request) { return answer(request); }) {}

HttpResponse CityServices::answer(const HttpRequest& request) {
  const std::string path = request.path();
  if (path == "/app/locate_my_ip") return AnswerIPLocationRequest(&ipCity_, request, report_);
  if (path == "/timezone") return AnswerTimeZoneRequest(table_, request, report_);
  if (report_) report_("city services: nothing at " + path);
  return HttpResponse(404, "");
}

}  // namespace zonara::demo
