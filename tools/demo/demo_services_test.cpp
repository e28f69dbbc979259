// The demonstration's stand-in services and its data set, read by the same
// code the helper uses: the positioning library's public functions over a
// scan file, the time-zone lookup and the IP-location page reader.
#include "tools/demo/demo_services.h"

#include <date/date.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/http_fetcher.h"
#include "platform/testing/source_dir.h"
#include "platform/time_zone_database.h"
#include "sensors/telluro_sensor.h"
#include "timezone/geolocation_helper.h"
#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/wpsapi.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara::demo {
namespace {

namespace fs = std::filesystem;

const fs::path kDemoData = fs::path(zonara::testing::SourceDir()) / "tools/demo";

CityTable parseTable(const std::string& text) {
  std::istringstream in(text);
  std::string error;
  std::optional<CityTable> table = CityTable::parse(in, error);
  EXPECT_TRUE(table) << error;
  return table ? *table : CityTable();
}

CityTable shippedCities() {
  std::ifstream in(kDemoData / "cities.txt");
  std::string error;
  std::optional<CityTable> table = CityTable::parse(in, error);
  if (!table) ADD_FAILURE() << "cities.txt: " << error;
  return table ? *table : CityTable();
}

// The text of the first <name> element of `xml`, or "".
std::string element(const std::string& xml, const std::string& name) {
  const size_t start = xml.find("<" + name + ">");
  const size_t end = xml.find("</" + name + ">");
  if (start == std::string::npos || end == std::string::npos) return "";
  return xml.substr(start + name.size() + 2, end - start - name.size() - 2);
}

TEST(CityTableTest, ReadsCitiesWithNamesOfSeveralWordsAndSkipsComments) {
  const CityTable table = parseTable(
      "# ID LAT LON ZONE NAME\n"
      "\n"
      "newyork 40.7128 -74.0060 America/New_York New York\n"
      "  sydney   -33.8688\t151.2093  Australia/Sydney   Sydney  \n");
  ASSERT_EQ(table.cities().size(), 2u);
  const City* ny = table.find("newyork");
  ASSERT_TRUE(ny);
  EXPECT_EQ(ny->name, "New York");
  EXPECT_EQ(ny->zone, "America/New_York");
  EXPECT_DOUBLE_EQ(ny->longitude, -74.0060);
  EXPECT_EQ(table.find("sydney")->name, "Sydney");
  EXPECT_DOUBLE_EQ(table.find("sydney")->latitude, -33.8688);
  EXPECT_EQ(table.find("paris"), nullptr);
}

TEST(CityTableTest, RefusesMalformedTablesNamingTheLine) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"", "no cities"},
      {"# only a comment\n", "no cities"},
      {"paris 48.8 2.3 Europe/Paris\n", "line 1: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"paris 48.8 2.3\n", "line 1: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"paris north 2.3 Europe/Paris Paris\n", "line 1: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"# c\nparis 48.8x 2.3 Europe/Paris Paris\n", "line 2: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"pole 91 0 UTC Beyond\n", "line 1: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"far 0 180.5 UTC Beyond\n", "line 1: expected ID LATITUDE LONGITUDE ZONE NAME"},
      {"a 1 1 UTC A\nb 2 2 UTC B\na 3 3 UTC C\n", "line 3: city a listed twice"},
  };
  for (const auto& c : cases) {
    std::istringstream in(c.text);
    std::string error;
    EXPECT_FALSE(CityTable::parse(in, error)) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
  }
}

TEST(CityTableTest, NearestCityLooksAcrossTheDateLine) {
  const CityTable table = parseTable(
      "suva -18.14 178.44 Pacific/Fiji Suva\n"
      "auckland -36.85 174.76 Pacific/Auckland Auckland\n"
      "honolulu 21.31 -157.86 Pacific/Honolulu Honolulu\n");
  EXPECT_EQ(table.nearest(-18.0, -179.9).id, "suva");  // 1.7 degrees east of Suva, across the line
  EXPECT_EQ(table.nearest(-36.0, 175.0).id, "auckland");
  EXPECT_EQ(table.nearest(20.0, -150.0).id, "honolulu");
  EXPECT_EQ(table.nearest(-18.14, 178.44).id, "suva");
}

TEST(TimeZoneAnswerTest, GivesTheZoneWithItsJanuaryAndJulyOffsetsInHours) {
  const struct {
    const char* zone;
    const char* gmt;
    const char* dst;
    const char* raw;
  } cases[] = {
      {"Europe/Paris", "1.0", "2.0", "1.0"},
      {"America/New_York", "-5.0", "-4.0", "-5.0"},
      {"Australia/Sydney", "11.0", "10.0", "10.0"},  // summer time in January
      {"Asia/Kolkata", "5.5", "5.5", "5.5"},
      {"Asia/Tokyo", "9.0", "9.0", "9.0"},
  };
  for (const auto& c : cases) {
    const City city{"x", 1.5, 2.25, c.zone, "Somewhere"};
    const std::optional<std::string> answer = TimeZoneAnswer(city, 1.5, 2.25, 2026);
    ASSERT_TRUE(answer) << c.zone;
    EXPECT_EQ(element(*answer, "timezoneId"), c.zone);
    EXPECT_EQ(element(*answer, "gmtOffset"), c.gmt) << c.zone;
    EXPECT_EQ(element(*answer, "dstOffset"), c.dst) << c.zone;
    EXPECT_EQ(element(*answer, "rawOffset"), c.raw) << c.zone;
    EXPECT_EQ(element(*answer, "lat"), "1.5000");
    EXPECT_EQ(element(*answer, "lng"), "2.2500");
  }
  EXPECT_FALSE(TimeZoneAnswer(City{"x", 0, 0, "Mars/Olympus_Mons", "Olympus"}, 0, 0, 2026));
}

TEST(RequestMacsTest, ListsTheMacElementsInOrder) {
  EXPECT_EQ(RequestMacs("<?xml version='1.0'?><LocationRQ><access-point><mac>0012A3B4C5D6</mac><signal-strength>-61"
                        "</signal-strength></access-point><access-point><mac>AABBCCDDEEFF</mac></access-point>"
                        "</LocationRQ>"),
            (std::vector<std::string>{"0012A3B4C5D6", "AABBCCDDEEFF"}));
  EXPECT_EQ(RequestMacs("<mac></mac><mac>01</mac><mac>unterminated"), (std::vector<std::string>{"", "01"}));
  EXPECT_TRUE(RequestMacs("<LocationRQ/>").empty());
}

TEST(QueryValueTest, FindsWholeNamesOnly) {
  EXPECT_EQ(QueryValue("lat=1.5&lng=-2&style=full", "lng"), "-2");
  EXPECT_EQ(QueryValue("lat=1.5&lng=-2", "lat"), "1.5");
  EXPECT_EQ(QueryValue("xlat=3&lat=4", "lat"), "4");
  EXPECT_EQ(QueryValue("lat=&lng=2", "lat"), "");
  EXPECT_FALSE(QueryValue("latitude=3", "lat"));
  EXPECT_FALSE(QueryValue("", "lat"));
}

TEST(AccessPointLocatorTest, AveragesTheKnownAccessPointsOfARequest) {
  AccessPointLocator locator;
  std::istringstream csv(
      "MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT\n"
      "00:11:22:33:44:01,10.0,20.0,40,0.5\n"
      "00:11:22:33:44:02,12.0,24.0,40,0.5\n");
  std::string error;
  ASSERT_TRUE(locator.addCSV(csv, error)) << error;
  EXPECT_EQ(locator.size(), 2u);

  // As a request lists them (upper-case digits) and in other spellings.
  std::optional<AccessPointLocator::Fix> fix = locator.locate({"001122334401", "aa00bb00cc00", "00-11-22-33-44-02"});
  ASSERT_TRUE(fix);
  EXPECT_DOUBLE_EQ(fix->latitude, 11.0);
  EXPECT_DOUBLE_EQ(fix->longitude, 22.0);
  EXPECT_EQ(fix->known, 2u);
  EXPECT_FALSE(locator.locate({"AA00BB00CC00", "not a mac"}));
  EXPECT_FALSE(locator.locate({}));

  std::istringstream broken("MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT\n00:11:22:33:44:03,95,0,1,0.5\n");
  EXPECT_FALSE(locator.addCSV(broken, error));
  EXPECT_EQ(locator.size(), 2u);
}

TEST(IPLocationPageTest, TheHelperReadsTheCityFromIt) {
  const City city{"sp", -23.5505, -46.6333, "America/Sao_Paulo", "Sao Paulo"};
  const std::optional<TelluroLocation> read = TelluroSensor::scrapeIPLocationPage(IPLocationPage(city));
  ASSERT_TRUE(read);
  EXPECT_DOUBLE_EQ(read->latitude, -23.5505);
  EXPECT_DOUBLE_EQ(read->longitude, -46.6333);
}

// The two services the demonstration and the whole-system tests share: what
// each answers, and that every request is reported.
TEST(CityServiceAnswersTest, AnswerTheirOwnPathsAndReportEachRequest) {
  const CityTable table = parseTable(
      "paris 48.8566 2.3522 Europe/Paris Paris\n"
      "sydney -33.8688 151.2093 Australia/Sydney Sydney\n");
  EXPECT_EQ(table.named("Sydney"), table.find("sydney"));
  EXPECT_EQ(table.named("sydney"), nullptr);
  const City* sydney = table.named("Sydney");
  const auto request = [](const std::string& target) {
    testing::HttpRequest r;
    r.method = "GET";
    r.target = target;
    return r;
  };
  struct Case {
    const char* name;
    std::function<testing::HttpResponse(const testing::HttpRequest&, const ServiceReport&)> answer;
    const char* target;
    int status;
    const char* bodyHolds;  // "" = nothing asked of the body
    const char* report;
  };
  const auto zones = [&](const testing::HttpRequest& r, const ServiceReport& report) {
    return AnswerTimeZoneRequest(table, r, report);
  };
  const auto page = [&](const City* city) {
    return [city](const testing::HttpRequest& r, const ServiceReport& report) {
      return AnswerIPLocationRequest(city, r, report);
    };
  };
  const Case cases[] = {
      {"zone of the nearest city", zones, "/timezone?lat=-33.9&lng=151.2&username=demo", 200,
       "<timezoneId>Australia/Sydney</timezoneId>", "time-zone service: -33.9,151.2 is near Sydney: Australia/Sydney"},
      {"no usable position", zones, "/timezone?lat=north&lng=2", 200, "value=\"14\"",
       "time-zone service: a request without a usable lat and lng: /timezone?lat=north&lng=2"},
      {"time-zone service elsewhere", zones, "/app/locate_my_ip", 404, "",
       "time-zone service: nothing at /app/locate_my_ip"},
      {"page of a city", page(sydney), "/app/locate_my_ip", 200, "class=output>-33.8688/151.2093<",
       "IP-location page: this Internet address is in Sydney"},
      {"page without a city", page(nullptr), "/app/locate_my_ip", 200, "Location unknown",
       "IP-location page: this Internet address is nowhere known"},
      {"page elsewhere", page(sydney), "/timezone", 404, "", "IP-location page: nothing at /timezone"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> reports;
    const testing::HttpResponse response =
        c.answer(request(c.target), [&](const std::string& line) { reports.push_back(line); });
    EXPECT_EQ(response.status, c.status) << c.name;
    EXPECT_NE(response.body.find(c.bodyHolds), std::string::npos) << c.name << ": " << response.body;
    EXPECT_EQ(reports, std::vector<std::string>{c.report}) << c.name;
    // Without a report the answer is the same.
    EXPECT_EQ(c.answer(request(c.target), {}).body, response.body) << c.name;
  }
  EXPECT_FALSE(TelluroSensor::scrapeIPLocationPage(
      AnswerIPLocationRequest(nullptr, request("/app/locate_my_ip"), {}).body));
}

// The shipped data set, through the code the helper runs.
class ShippedDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cities_ = shippedCities();
    ASSERT_GE(cities_.cities().size(), 5u);
    for (const City& city : cities_.cities()) {
      std::ifstream in(kDemoData / "access-points" / (city.id + ".csv"));
      ASSERT_TRUE(in) << city.id;
      std::string error;
      ASSERT_TRUE(locator_.addCSV(in, error)) << city.id << ": " << error;
    }
  }
  CityTable cities_;
  AccessPointLocator locator_;
};

TEST_F(ShippedDataTest, TheTimeZoneLookupFindsEveryCitysZoneThroughTheService) {
  std::vector<std::string> reports;
  std::mutex reportsMu;
  CityServices services(cities_, cities_.cities().front(), [&](const std::string& line) {
    std::lock_guard<std::mutex> lock(reportsMu);
    reports.push_back(line);
  });
  CurlHttpFetcher fetcher;
  zonara::testing::TempDir scratch("zones-");
  const fs::path dir = scratch.path();
  std::ofstream(dir / "localtime") << "UTC\n";
  DateTzDatabase zones((dir / "localtime").string());
  GeolocationHelper helper(fetcher, zones, GeolocationHelper::Config{services.url(), "demo"});
  for (const City& city : cities_.cities()) {
    // A point a few hundred metres off the centre, as a position fix is.
    EXPECT_EQ(helper.timezoneForLongitude(city.longitude + 0.003, city.latitude - 0.002), city.zone) << city.name;
  }
  // The IP-location page names the city it was given: the first of the table.
  std::optional<std::string> page = fetcher.fetch(services.url() + "/app/locate_my_ip", std::chrono::seconds(5));
  ASSERT_TRUE(page);
  std::optional<TelluroLocation> ip = TelluroSensor::scrapeIPLocationPage(*page);
  ASSERT_TRUE(ip);
  EXPECT_EQ(cities_.nearest(ip->latitude, ip->longitude).id, cities_.cities().front().id);

  std::lock_guard<std::mutex> lock(reportsMu);
  ASSERT_EQ(reports.size(), cities_.cities().size() + 1);
  EXPECT_NE(reports[0].find(cities_.cities()[0].zone), std::string::npos) << reports[0];
}

// Each city's scan, as scripts/demo writes it, located by the positioning
// library's public function against the stand-in positioning server.
TEST_F(ShippedDataTest, EachCitysScanIsLocatedInThatCityByThePositioningLibrary) {
  WPS::API::testing::FakePositioningServer server;
  server.setLocator([this](const testing::HttpRequest& request) -> std::optional<WPS::API::LocatedAccessPoint> {
    std::optional<AccessPointLocator::Fix> fix = locator_.locate(RequestMacs(request.body));
    if (!fix) return std::nullopt;
    WPS::API::LocatedAccessPoint where;
    where.latitude = fix->latitude;
    where.longitude = fix->longitude;
    return where;
  });
  zonara::testing::TempDir scratch("scans-");
  const fs::path dir = scratch.path();
  ASSERT_EQ(WPS_set_server_url(server.url().c_str()), WPS_OK);
  const WPS_SimpleAuthentication user{"demo-user", "vostrel.zz"};
  for (const City& city : cities_.cities()) {
    const fs::path scan = dir / (city.id + ".txt");
    const std::string command = "sh '" + (kDemoData / "scan-file").string() + "' '" +
                                (kDemoData / "access-points" / (city.id + ".csv")).string() + "' '" + city.name +
                                "' > '" + scan.string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    setenv("WPS_SCAN_FILE", scan.c_str(), 1);
    WPS_Location* location = nullptr;
    ASSERT_EQ(WPS_location(&user, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK) << city.name;
    ASSERT_TRUE(location);
    EXPECT_EQ(cities_.nearest(location->latitude, location->longitude).id, city.id);
    EXPECT_LT(std::hypot(location->latitude - city.latitude, location->longitude - city.longitude), 0.01)
        << city.name;
    WPS_free_location(location);
  }
  unsetenv("WPS_SCAN_FILE");
  EXPECT_EQ(WPS_set_server_url(nullptr), WPS_OK);
  EXPECT_EQ(server.countTo("/location"), cities_.cities().size());
}

}  // namespace
}  // namespace zonara::demo
