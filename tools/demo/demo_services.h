// The services the demonstration's helper talks to, made from a small table
// of cities and a data set of access points, all on the loopback interface:
//
//   - a positioning server (FakePositioningServer) that locates a request
//     from the access points it lists, registers users, and offers the
//     tile files the demonstration built;
//   - a geolocation JSON API server (GeolocationServer) that knows the same
//     access points and places the computer's address in one city;
//   - a time-zone service answering "/timezone?lat=..&lng=.." in the
//     GeoNames XML form with the zone of the nearest city;
//   - an IP-location page ("/app/locate_my_ip") placing the computer's
//     Internet address in one city.
//
// None of this is a real service: it exists so the helper can be shown doing
// its whole job on a machine with no Wi-Fi and no network access.
//
// Thread safety: the tables are immutable once loaded and may be read from
// any thread; the servers answer on their own threads.
#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/testing/http_test_server.h"

namespace zonara::demo {

struct City {
  std::string id;    // short name used in file names: "paris"
  double latitude = 0;
  double longitude = 0;
  std::string zone;  // tz name: "Europe/Paris"
  std::string name;  // for people: "New York"
};

// Cities, one a line: "ID LATITUDE LONGITUDE ZONE NAME..." (the name is the
// rest of the line and may hold spaces). Blank lines and lines starting with
// '#' are skipped.
class CityTable {
 public:
  // Reads the table; on a malformed line returns nullopt and sets `error`
  // ("line N: ..."). An empty table is an error too.
  [[nodiscard]] static std::optional<CityTable> parse(std::istream& in, std::string& error);

  [[nodiscard]] const std::vector<City>& cities() const { return cities_; }
  [[nodiscard]] const City* find(const std::string& id) const;
  // The city called `name` ("New York"), or nullptr.
  [[nodiscard]] const City* named(const std::string& name) const;
  // The city closest to the point (flat distance in degrees, longitudes
  // compared across the date line). The table is never empty.
  [[nodiscard]] const City& nearest(double latitude, double longitude) const;

 private:
  std::vector<City> cities_;
};

// The GeoNames-style answer for `city`: its zone and the zone's offsets in
// hours on 1 January and 1 July of `year` (the service calls them gmtOffset
// and dstOffset). nullopt when the system does not know the zone.
[[nodiscard]] std::optional<std::string> TimeZoneAnswer(const City& city, double latitude, double longitude,
                                                        int year);

// The IP-location page, in the shape the helper reads:
// "... Latitude/Longitude ... class=output>LAT/LON ...".
[[nodiscard]] std::string IPLocationPage(const City& city);

// Where a positioning server would place a set of access points: the mean of
// the known ones' positions. Unknown MACs are ignored; none known: nullopt.
class AccessPointLocator {
 public:
  // Adds the access points of a CSV in the form `wps-tool tile build` reads
  // (MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT). False and
  // `error` set when the file is malformed; nothing is added then.
  [[nodiscard]] bool addCSV(std::istream& in, std::string& error);
  [[nodiscard]] size_t size() const { return accessPoints_.size(); }
  [[nodiscard]] const std::vector<WPS::API::LocatedAccessPoint>& accessPoints() const { return accessPoints_; }

  struct Fix {
    double latitude = 0;
    double longitude = 0;
    unsigned known = 0;  // access points of the request that were known
  };
  // `macs` as a request lists them (twelve hexadecimal digits, any case, or
  // with separators).
  [[nodiscard]] std::optional<Fix> locate(const std::vector<std::string>& macs) const;

 private:
  std::vector<WPS::API::LocatedAccessPoint> accessPoints_;
};

// Told of each request a service answers, in a line for people; may be
// empty. Called on the server's threads.
using ServiceReport = std::function<void(const std::string&)>;

// The time-zone service: "/timezone?lat=..&lng=.." answered with the zone of
// the city of `table` nearest the point; anything else is not found.
[[nodiscard]] testing::HttpResponse AnswerTimeZoneRequest(const CityTable& table, const testing::HttpRequest& request,
                                                          const ServiceReport& report);

// The IP-location page: "/app/locate_my_ip" answered with `city`'s position,
// or with a page that holds no position when `city` is nullptr; anything
// else is not found.
[[nodiscard]] testing::HttpResponse AnswerIPLocationRequest(const City* city, const testing::HttpRequest& request,
                                                            const ServiceReport& report);

// The HTTP side of the time-zone service and the IP-location page, on one
// loopback server. `report` (may be empty) is told of every request in a
// line for people; it is called on the server's threads, one call at a time.
class CityServices {
 public:
  using Report = ServiceReport;
  // `table` is borrowed and must outlive this object. `ipCity` is the city
  // the IP-location page names. Throws std::runtime_error when the server
  // cannot listen.
  CityServices(const CityTable& table, const City& ipCity, Report report);
  // "http://127.0.0.1:<port>": the TimezoneServiceURL and the IPLocationURL.
  [[nodiscard]] std::string url() const { return http_.url(); }

 private:
  testing::HttpResponse answer(const testing::HttpRequest& request);

  const CityTable& table_;
  const City ipCity_;
  const Report report_;
  testing::HttpTestServer http_;  // last: stops first
};

// The MACs a positioning request lists (the texts of its <mac> elements), in
// order.
[[nodiscard]] std::vector<std::string> RequestMacs(const std::string& body);

// The value of `name` in a URL query ("lat=1&lng=2"), or nullopt.
[[nodiscard]] std::optional<std::string> QueryValue(const std::string& query, const std::string& name);

}  // namespace zonara::demo
