#include "wps/api/protocol/protocol.h"

#include <gtest/gtest.h>

#include "wps/api/protocol/config.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace API {
namespace {

using SPI::MAC;
using SPI::ScannedAccessPoint;
using SPI::ScannedCellTower;
using SPI::Time;

const std::string NS = kProtocolNamespace;
const std::string AUTH =
    "<authentication version='2.0'><simple><username>USER</username><realm>REALM</realm></simple></authentication>";

SimpleAuthentication user() { return SimpleAuthentication("USER", "REALM"); }

ScannedAccessPoint ap(uint64_t mac, int16_t rssi, Time t = {}) {
  return ScannedAccessPoint(MAC::fromValue(mac), rssi, "net", t);
}

ScannedCellTower tower(uint16_t mcc, uint16_t mnc, int32_t lac, int32_t ci, int32_t ta, int16_t rssi, Time t) {
  ScannedCellTower c;
  c.mcc = mcc;
  c.mnc = mnc;
  c.lac = lac;
  c.ci = ci;
  c.timingAdvance = ta;
  c.rssi = rssi;
  c.time = t;
  return c;
}

TEST(RequestBuilders, Fragments) {
  EXPECT_EQ(header(), "<?xml version='1.0'?>");
  EXPECT_EQ(version("2.6"), "xmlns='" + NS + "' version='2.6'");
  EXPECT_EQ(authenticationRQ(user()), AUTH);
  // Names are written verbatim, without escaping.
  EXPECT_EQ(authenticationRQ(SimpleAuthentication("a&b", "")),
            "<authentication version='2.0'><simple><username>a&b</username><realm></realm></simple></authentication>");

  const struct {
    int value;
    const char* text;
  } lookups[] = {{0, " street-address-lookup='none'"},
                 {1, " street-address-lookup='limited'"},
                 {2, " street-address-lookup='full'"},
                 {3, " street-address-lookup=''"},
                 {-1, " street-address-lookup=''"}};
  for (const auto& c : lookups) {
    EXPECT_EQ(streetAddressLookupRQ(static_cast<WPS_StreetAddressLookup>(c.value)), c.text) << c.value;
  }
}

TEST(RequestBuilders, AccessPointAndCellTowerElements) {
  const Time now(1700000010, 250);
  const std::string noAge = "<access-point><mac>0012A3B4C5D6</mac><signal-strength>-61</signal-strength></access-point>";
  EXPECT_EQ(accessPointRQ(ap(0x0012A3B4C5D6, -61)), noAge);
  // Unknown scan time: the form without age even when `now` is known.
  EXPECT_EQ(accessPointRQ(ap(0x0012A3B4C5D6, -61), now), noAge);
  // Age in milliseconds, borrowing across the second boundary.
  EXPECT_EQ(accessPointRQ(ap(0x0012A3B4C5D6, -61, Time(1700000008, 750)), now),
            "<access-point><mac>0012A3B4C5D6</mac><signal-strength>-61</signal-strength><age>1500</age>"
            "</access-point>");
  EXPECT_EQ(accessPointRQ(ap(0xFFFFFFFFFFFF, 5)),
            "<access-point><mac>FFFFFFFFFFFF</mac><signal-strength>5</signal-strength></access-point>");

  ScannedCellTower t = tower(65535, 1, -2, 2147483647, 3, -90, Time(1700000009, 0));
  const std::string body =
      "<cell-tower><mcc>65535</mcc><mnc>1</mnc><lac>-2</lac><ci>2147483647</ci><rssi>-90</rssi>"
      "<timing-advance>3</timing-advance>";
  EXPECT_EQ(cellTowerRQ(t, now), body + "<age>1250</age></cell-tower>");
  // The age of a tower depends on `now` only: no `now`, no age...
  EXPECT_EQ(cellTowerRQ(t, Time()), body + "</cell-tower>");
  // ...while a tower with an unknown scan time still gets one (from time 0).
  t.time = Time();
  EXPECT_EQ(cellTowerRQ(t, Time(2, 5)), body + "<age>2005</age></cell-tower>");
}

TEST(RequestBuilders, LocationRequestMatchesTheDocumentedExample) {
  SPI::SimulatedClock clock(Time(1700000000, 0));
  SPI::ScopedClock installed(clock);
  EXPECT_EQ(LocationRQ(user(), WPS_FULL_STREET_ADDRESS_LOOKUP, {ap(0x0012A3B4C5D6, -61, Time(1699999999, 0))}, {}),
            "<?xml version='1.0'?><LocationRQ xmlns='" + NS +
                "' version='2.6' street-address-lookup='full'>" + AUTH +
                "<access-point><mac>0012A3B4C5D6</mac><signal-strength>-61</signal-strength></access-point>"
                "</LocationRQ>");
}

TEST(RequestBuilders, LocationRequestWithCellTowersIsVersion27) {
  SPI::SimulatedClock clock(Time(1700000000, 100));
  SPI::ScopedClock installed(clock);
  std::string rq = LocationRQ(user(), WPS_NO_STREET_ADDRESS_LOOKUP,
                              {ap(0x000000000001, -50, Time(1699999990, 0)), ap(0x000000000002, -70)},
                              {tower(310, 26, 1234, 5678, 0, -80, Time(1699999999, 600))});
  EXPECT_EQ(rq,
            "<?xml version='1.0'?><LocationRQ xmlns='" + NS + "' version='2.7' street-address-lookup='none'>" + AUTH +
                "<access-point><mac>000000000001</mac><signal-strength>-50</signal-strength></access-point>"
                "<access-point><mac>000000000002</mac><signal-strength>-70</signal-strength></access-point>"
                "<cell-tower><mcc>310</mcc><mnc>26</mnc><lac>1234</lac><ci>5678</ci><rssi>-80</rssi>"
                "<timing-advance>0</timing-advance><age>500</age></cell-tower></LocationRQ>");
  // No white space anywhere between elements.
  EXPECT_EQ(rq.find_first_of("\n\r\t"), std::string::npos);
  EXPECT_EQ(rq.find("> <"), std::string::npos);
}

TEST(RequestBuilders, RegistrationAndIPLocationRequests) {
  EXPECT_EQ(RegistrationRQ(user(), SimpleAuthentication("new-user", "new.realm")),
            "<?xml version='1.0'?><RegistrationRQ xmlns='" + NS + "' version='2.3'>" + AUTH +
                "<simple><username>new-user</username><realm>new.realm</realm></simple></RegistrationRQ>");
  for (int lookup = 0; lookup <= 3; ++lookup) {
    const char* values[] = {"none", "limited", "full", ""};
    EXPECT_EQ(IPLocationRQ(user(), static_cast<WPS_StreetAddressLookup>(lookup)),
              "<?xml version='1.0'?><IPLocationRQ xmlns='" + NS + "' version='2.3' street-address-lookup='" +
                  values[lookup] + "'>" + AUTH + "</IPLocationRQ>");
  }
}

TEST(RequestBuilders, TilingRequest) {
  SPI::SimulatedClock clock(Time(1700000000, 0));
  SPI::ScopedClock installed(clock);
  const std::string start = "<?xml version='1.0'?><TilingRQ xmlns='" + NS + "' version='2.7' maxSize='460800'>" + AUTH;
  EXPECT_EQ(TilingRQ(user(), {}, {}, 460800), start + "<access-points></access-points></TilingRQ>");
  EXPECT_EQ(TilingRQ(user(), {ap(0x0012A3B4C5D6, -61), ap(0xABCDEF012345, -80, Time(1699999998, 0))}, {}, 460800),
            start +
                "<access-points>"
                "<access-point><mac>0012A3B4C5D6</mac><signal-strength>-61</signal-strength></access-point>"
                "<access-point><mac>ABCDEF012345</mac><signal-strength>-80</signal-strength><age>2000</age>"
                "</access-point></access-points></TilingRQ>");
  EXPECT_EQ(TilingRQ(user(), {}, {tower(1, 2, 3, 4, 5, -6, Time(1699999999, 0))}, 460800),
            start +
                "<access-points></access-points><cell-towers><cell-tower><mcc>1</mcc><mnc>2</mnc><lac>3</lac>"
                "<ci>4</ci><rssi>-6</rssi><timing-advance>5</timing-advance><age>1000</age></cell-tower>"
                "</cell-towers></TilingRQ>");
}

// ---- Parsers ----

std::string response(const std::string& inner, const std::string& ns = NS) {
  return "<?xml version='1.0'?><LocationRS xmlns='" + ns + "' version='2.6'>" + inner + "</LocationRS>";
}

const std::string kFullLocation = response(
    "<location nap='7'><latitude>42.3601</latitude><longitude>-71.0589</longitude><hpe>35.5</hpe>"
    "<street-address distance-to-point='12'><street-number>100</street-number>"
    "<address-line>Main Street</address-line><address-line>Suite 2</address-line>"
    "<city>Boston</city><postal-code>02108</postal-code><county>Suffolk</county>"
    "<province></province><region>New England</region>"
    "<state code='MA'>Massachusetts</state><country code='US'>United States</country>"
    "<x:address-line xmlns:x='urn:other'>not ours</x:address-line>"
    "</street-address></location>");

TEST(ResponseParsers, LocationResponseIsReadCompletely) {
  Location loc;
  ASSERT_TRUE(parseLocationRS(kFullLocation, loc));
  EXPECT_DOUBLE_EQ(loc.latitude, 42.3601);
  EXPECT_DOUBLE_EQ(loc.longitude, -71.0589);
  EXPECT_DOUBLE_EQ(loc.hpe, 35.5);
  EXPECT_EQ(loc.nap, 7);
  const StreetAddress& sa = loc.streetAddress;
  EXPECT_EQ(sa.streetNumber, "100");
  EXPECT_EQ(sa.addressLine, (std::vector<std::string>{"Main Street", "Suite 2"}));
  EXPECT_EQ(sa.city, "Boston");
  EXPECT_EQ(sa.postalCode, "02108");
  EXPECT_EQ(sa.county, "Suffolk");
  EXPECT_EQ(sa.province, "");
  EXPECT_EQ(sa.region, "New England");
  EXPECT_EQ(sa.state, (NameCode{"Massachusetts", "MA"}));
  EXPECT_EQ(sa.country, (NameCode{"United States", "US"}));
}

TEST(ResponseParsers, LocationResponseEdgeCases) {
  const struct {
    const char* name;
    std::string text;
    bool ok;
    double hpe;
    int nap;
    NameCode state;
  } cases[] = {
      {"nap not a number", response("<location nap='abc'><hpe>5</hpe></location>"), true, 5.0, 0, {}},
      {"nap absent, hpe absent", response("<location><latitude>1</latitude></location>"), true, 0.0, 0, {}},
      {"negative nap", response("<location nap='-4'/>"), true, 0.0, 0, {}},
      {"three-letter state code",
       response("<location nap='3'><street-address><state code='MAS'>Mass</state></street-address></location>"),
       true, 0.0, 3, {"Mass", ""}},
      {"one-letter state code",
       response("<location><street-address><state code='M'>Mass</state></street-address></location>"), true, 0.0,
       0, {"Mass", ""}},
      {"namespaced code attribute is not the code",
       response("<location><street-address><state xmlns:y='urn:y' y:code='MA'>Mass</state></street-address>"
                "</location>"),
       true, 0.0, 0, {"Mass", ""}},
      {"location in no namespace", "<LocationRS><location nap='3'/></LocationRS>", false, 0, 0, {}},
      {"location in another namespace", response("<location xmlns='urn:other' nap='3'/>"), false, 0, 0, {}},
      {"root in another namespace, location in ours",
       "<r xmlns='urn:other'><location xmlns='" + NS + "' nap='2'/></r>", true, 0.0, 2, {}},
      {"location not a direct child", response("<wrap><location nap='3'/></wrap>"), false, 0, 0, {}},
      {"error element", response("<error>no</error><location nap='3'/>"), false, 0, 0, {}},
      {"error after location", response("<location nap='3'/><error/>"), false, 0, 0, {}},
      {"no location element", response(""), false, 0, 0, {}},
      {"not xml", "HTTP/1.1 502 Bad Gateway", false, 0, 0, {}},
      {"empty", "", false, 0, 0, {}},
  };
  for (const auto& c : cases) {
    Location loc;
    EXPECT_EQ(parseLocationRS(c.text, loc), c.ok) << c.name;
    if (!c.ok) {
      EXPECT_EQ(loc, Location()) << c.name;  // untouched
      continue;
    }
    EXPECT_EQ(loc.hpe, c.hpe) << c.name;
    EXPECT_EQ(loc.nap, c.nap) << c.name;
    EXPECT_EQ(loc.streetAddress.state, c.state) << c.name;
  }
}

// Positions that are no place on Earth are refused in both answers that carry
// one, leave the output untouched and are logged.
TEST(ResponseParsers, PositionsOutsideTheEarthAreRefused) {
  const struct {
    const char* name;
    const char* latitude;
    const char* longitude;
    const char* hpe;
    bool ok;
  } cases[] = {
      {"ordinary", "48.85", "2.35", "30", true},
      {"the corners", "-90", "180", "0", true},
      {"latitude nan", "nan", "2", "30", false},
      {"longitude -nan", "48", "-nan", "30", false},
      {"latitude inf", "inf", "2", "30", false},
      {"latitude past the north pole", "90.0001", "2", "30", false},
      {"latitude past the south pole", "-91", "2", "30", false},
      {"longitude past 180", "48", "180.5", "30", false},
      {"longitude past -180", "48", "-540", "30", false},
      {"hpe negative", "48", "2", "-1", false},
      {"hpe -inf", "48", "2", "-inf", false},
      {"hpe nan", "48", "2", "nan", false},
      {"hpe inf", "48", "2", "inf", false},
  };
  for (const auto& c : cases) {
    SPI::LogCapture log("WPS.API.Protocol");
    const std::string position = std::string("<latitude>") + c.latitude + "</latitude><longitude>" + c.longitude +
                                  "</longitude>";
    Location loc;
    EXPECT_EQ(parseLocationRS(response("<location nap='3'>" + position + "<hpe>" + c.hpe + "</hpe></location>"), loc),
              c.ok)
        << c.name;
    if (!c.ok) {
      EXPECT_EQ(loc, Location()) << c.name;
    }
    // The IP answer carries no error estimate: its position alone decides.
    const bool ipOk = c.ok || std::string(c.name).rfind("hpe", 0) == 0;
    IPLocation ip;
    EXPECT_EQ(parseIPLocationRS(response("<ip-location><ip>192.0.2.1</ip>" + position + "</ip-location>"), ip), ipOk)
        << c.name;
    if (!ipOk) {
      EXPECT_EQ(ip, IPLocation()) << c.name;
    }
    EXPECT_EQ(log.containsFragment("Refusing the server's"), !c.ok) << c.name;
  }
}

// A street name with non-ASCII letters arrives whole in a process that never
// set a locale (the "C" locale, as in this test program).
TEST(ResponseParsers, Utf8StreetNamesArriveWhole) {
  const std::string street = "Marienplatz, M\xC3\xBCnchen";
  Location loc;
  ASSERT_TRUE(parseLocationRS(response("<location><latitude>48.137</latitude><longitude>11.575</longitude>"
                                       "<street-address><address-line>" + street + "</address-line>"
                                       "<city>M\xC3\xBCnchen</city></street-address></location>"),
                              loc));
  EXPECT_EQ(loc.streetAddress.addressLine, (std::vector<std::string>{street}));
  EXPECT_EQ(loc.streetAddress.city, "M\xC3\xBCnchen");
}

TEST(ResponseParsers, ParseNameCodeLeavesOutputWithoutElement) {
  Location loc;
  loc.streetAddress.country = {"Keep", "KP"};
  loc.streetAddress.addressLine = {"earlier"};
  ASSERT_TRUE(parseLocationRS(response("<location><street-address><address-line>x</address-line>"
                                       "</street-address></location>"),
                              loc));
  EXPECT_EQ(loc.streetAddress.country, (NameCode{"Keep", "KP"}));
  EXPECT_EQ(loc.streetAddress.addressLine, (std::vector<std::string>{"earlier", "x"}));
}

TEST(ResponseParsers, IPLocationResponse) {
  IPLocation ip;
  ASSERT_TRUE(parseIPLocationRS(response("<ip-location><ip>192.0.2.7</ip><latitude>48.85</latitude>"
                                         "<longitude>2.35</longitude><street-address><city>Paris</city>"
                                         "</street-address></ip-location>"),
                                ip));
  EXPECT_EQ(ip.ip, "192.0.2.7");
  EXPECT_DOUBLE_EQ(ip.latitude, 48.85);
  EXPECT_DOUBLE_EQ(ip.longitude, 2.35);
  EXPECT_TRUE(ip.streetAddress.empty());  // never read from this response

  const std::string failures[] = {response("<error/><ip-location><ip>1</ip></ip-location>"),
                                  response("<location/>"), "<ip-location><ip>1</ip></ip-location>", "{}"};
  for (const std::string& text : failures) {
    IPLocation out;
    EXPECT_FALSE(parseIPLocationRS(text, out)) << text;
    EXPECT_EQ(out, IPLocation()) << text;
  }
}

TEST(ResponseParsers, RegistrationResponse) {
  EXPECT_TRUE(parseRegistrationRS(response("")));
  EXPECT_TRUE(parseRegistrationRS(response("<error xmlns='urn:other'/>")));  // not the protocol's error
  EXPECT_FALSE(parseRegistrationRS(response("<error>taken</error>")));
  EXPECT_FALSE(parseRegistrationRS("<RegistrationRS"));
}

TEST(ResponseParsers, TilingResponse) {
  TileInfoList tiles = {TileInfo{"old", "1", "x"}};
  ASSERT_TRUE(parseTilingRS(
      response("<tile id='1234' version='5'><url>http://tiles.telluro.example/t/1234</url></tile>"
               "<tile id='99' version='2'/>"                              // no url: left out
               "<tile id='98' version='2'><url></url></tile>"             // empty url: left out
               "<tile version='2'><url>http://a</url></tile>"             // no id: left out
               "<tile id='97'><url>http://b</url></tile>"                 // no version: left out
               "<tile id='96' version='3'><x:url xmlns:x='urn:o'>http://c</x:url></tile>"  // foreign url
               "<tile id='5' version='6'><url>http://d</url></tile>"),
      tiles));
  EXPECT_EQ(tiles, (TileInfoList{TileInfo{"1234", "5", "http://tiles.telluro.example/t/1234/tiling"},
                                 TileInfo{"5", "6", "http://d/tiling"}}));

  ASSERT_TRUE(parseTilingRS(response(""), tiles));
  EXPECT_TRUE(tiles.empty());

  tiles = {TileInfo{"keep", "1", "x"}};
  EXPECT_FALSE(parseTilingRS(response("<error/><tile id='1' version='1'><url>u</url></tile>"), tiles));
  EXPECT_FALSE(parseTilingRS("garbage", tiles));
  EXPECT_EQ(tiles.size(), 1u);  // untouched by a failed parse
}

TEST(ResponseParsers, NonXmlFailsEveryParserAndIsLogged) {
  const std::string texts[] = {"", "<", "plain text", "<a></b>", "\xFF\xFE<\0a>"};
  for (const std::string& text : texts) {
    SPI::LogCapture log("WPS.SPI.SAXParser.LibxmlSAXParser");
    Location loc;
    IPLocation ip;
    TileInfoList tiles;
    EXPECT_FALSE(parseLocationRS(text, loc));
    EXPECT_FALSE(parseIPLocationRS(text, ip));
    EXPECT_FALSE(parseRegistrationRS(text));
    EXPECT_FALSE(parseTilingRS(text, tiles));
    EXPECT_EQ(log.messages().size(), 4u);
    EXPECT_TRUE(log.contains("Error parsing xml"));
  }
}

TEST(ResponseParsers, LargeResponsesAreReadWhole) {
  std::string many;
  for (int i = 0; i < 5000; ++i) many += "<tile id='" + std::to_string(i) + "' version='1'><url>u</url></tile>";
  TileInfoList tiles;
  ASSERT_TRUE(parseTilingRS(response(many), tiles));
  ASSERT_EQ(tiles.size(), 5000u);
  EXPECT_EQ(tiles.back().id, "4999");

  std::string lines;
  for (int i = 0; i < 2000; ++i) lines += "<address-line>" + std::to_string(i) + "</address-line>";
  Location loc;
  ASSERT_TRUE(parseLocationRS(response("<location><street-address>" + lines + "</street-address></location>"), loc));
  EXPECT_EQ(loc.streetAddress.addressLine.size(), 2000u);

  // Nesting beyond the parser's limit is refused, not a crash.
  std::string deep;
  for (int i = 0; i < 50000; ++i) deep += "<location>";
  EXPECT_FALSE(parseLocationRS(response(deep), loc));
}

TEST(ReadingFunctions, SelectOnlyDirectChildrenInTheProtocolNamespace) {
  auto doc = SPI::SAXParser::newInstance()->parse(kFullLocation.data(), kFullLocation.size());
  ASSERT_TRUE(doc);
  auto root = doc->getDocumentElement();
  auto location = selectSingleNode(root.get(), "location");
  ASSERT_TRUE(location);
  EXPECT_FALSE(selectSingleNode(root.get(), "latitude"));  // grandchild
  EXPECT_FALSE(selectSingleNode(root.get(), "LocationRS/location"));  // no path syntax
  EXPECT_FALSE(selectSingleNode(nullptr, "location"));
  EXPECT_EQ(selectNodes(location.get(), "latitude").size(), 1u);
  auto address = selectSingleNode(location.get(), "street-address");
  ASSERT_TRUE(address);
  EXPECT_EQ(selectNodes(address.get(), "address-line").size(), 2u);  // the foreign one is not counted
  EXPECT_EQ(parseValue(address.get(), "city"), "Boston");
  EXPECT_EQ(parseValue(address.get(), "nothing"), "");
  EXPECT_EQ(parseDouble(location.get(), "nothing"), 0.0);
  EXPECT_EQ(parseDouble(address.get(), "city"), 0.0);  // not a number
  EXPECT_FALSE(hasErrorNode(root.get()));
  double lat = 1, lon = 1;
  parseLatLon(address.get(), lat, lon);
  EXPECT_EQ(lat, 0.0);
  EXPECT_EQ(lon, 0.0);
}

}  // namespace
}  // namespace API
}  // namespace WPS
