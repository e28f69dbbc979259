#include "wps/api/protocol/protocol.h"

#include <cinttypes>
#include <cstdio>

#include "wps/api/position_check.h"
#include "wps/api/protocol/config.h"
#include "wps/spi/conversions.h"
#include "wps/spi/logger.h"

namespace WPS {
namespace API {

using SPI::DOMDocument;
using SPI::DOMNode;
using SPI::DOMNodeList;
using SPI::SAXParser;
using SPI::ScannedAccessPoint;
using SPI::ScannedCellTower;
using SPI::Time;

namespace {

// Capacity hints for the request texts; they change no output.
constexpr size_t kLocationRequestCapacity = 1024;
constexpr size_t kAuthenticationCapacity = 192;
constexpr size_t kElementCapacity = 128;
constexpr size_t kLookupCapacity = 64;

std::string decimal(long long value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%lld", value);
  return buffer;
}

std::string macText(const SPI::MAC& mac) {
  // The six bytes in order, first printed octet first: "0012A3B4C5D6".
  return mac.toString();
}

// Milliseconds from `then` to `now`, as the protocol writes an age.
long long ageMilliseconds(const Time& now, const Time& then) {
  return (static_cast<long long>(now.seconds) - then.seconds) * 1000 +
         (static_cast<long long>(now.milliseconds) - then.milliseconds);
}

std::string accessPointElement(const ScannedAccessPoint& ap, const Time* now) {
  std::string s;
  s.reserve(kElementCapacity);
  s += "<access-point><mac>";
  s += macText(ap.mac);
  s += "</mac><signal-strength>";
  s += decimal(ap.rssi);
  s += "</signal-strength>";
  if (now != nullptr && ap.time.seconds != 0) {
    s += "<age>";
    s += decimal(ageMilliseconds(*now, ap.time));
    s += "</age>";
  }
  s += "</access-point>";
  return s;
}

// The document's root element, or null when the text is not a document.
struct ParsedResponse {
  std::unique_ptr<DOMDocument> document;
  std::unique_ptr<DOMNode> root;

  ~ParsedResponse() {
    // Nodes refer into the document: release them first.
    root.reset();
    document.reset();
  }
};

bool parseResponse(const std::string& text, ParsedResponse& out) {
  std::unique_ptr<SAXParser> parser = SAXParser::newInstance();
  out.document = parser->parse(text.data(), text.size());
  if (!out.document) return false;
  out.root = out.document->getDocumentElement();
  return out.root != nullptr;
}

bool inProtocolNamespace(const DOMNode& node, const std::string& name) {
  return node.getLocalName() == name && node.getNamespaceURI() == kProtocolNamespace;
}

}  // namespace

const std::string& header() {
  static const std::string text = "<?xml version='1.0'?>";
  return text;
}

std::string version(const std::string& v) {
  static const std::string prefix = std::string("xmlns='") + kProtocolNamespace + "' version='";
  return prefix + v + "'";
}

std::string authenticationRQ(const SimpleAuthentication& authentication) {
  std::string s;
  s.reserve(kAuthenticationCapacity);
  s += "<authentication version='2.0'><simple><username>";
  s += authentication.username;
  s += "</username><realm>";
  s += authentication.realm;
  s += "</realm></simple></authentication>";
  return s;
}

std::string streetAddressLookupRQ(WPS_StreetAddressLookup lookup) {
  std::string s;
  s.reserve(kLookupCapacity);
  s += " street-address-lookup='";
  switch (static_cast<int>(lookup)) {
    case 0:
      s += "none";
      break;
    case 1:
      s += "limited";
      break;
    case 2:
      s += "full";
      break;
    default:
      break;  // unknown values keep the attribute, with an empty value
  }
  s += "'";
  return s;
}

std::string accessPointRQ(const ScannedAccessPoint& ap) { return accessPointElement(ap, nullptr); }

std::string accessPointRQ(const ScannedAccessPoint& ap, const Time& now) { return accessPointElement(ap, &now); }

std::string cellTowerRQ(const ScannedCellTower& tower, const Time& now) {
  std::string s;
  s.reserve(kElementCapacity);
  s += "<cell-tower><mcc>";
  s += decimal(tower.mcc);
  s += "</mcc><mnc>";
  s += decimal(tower.mnc);
  s += "</mnc><lac>";
  s += decimal(tower.lac);
  s += "</lac><ci>";
  s += decimal(tower.ci);
  s += "</ci><rssi>";
  s += decimal(tower.rssi);
  s += "</rssi><timing-advance>";
  s += decimal(tower.timingAdvance);
  s += "</timing-advance>";
  // The age depends on `now` being known, not on the tower's own scan time.
  if (now.seconds != 0) {
    s += "<age>";
    s += decimal(ageMilliseconds(now, tower.time));
    s += "</age>";
  }
  s += "</cell-tower>";
  return s;
}

std::string RegistrationRQ(const SimpleAuthentication& account, const SimpleAuthentication& newUser) {
  std::string s;
  s.reserve(kLocationRequestCapacity / 2);
  s += header();
  s += "<RegistrationRQ ";
  s += version("2.3");
  s += ">";
  s += authenticationRQ(account);
  s += "<simple><username>";
  s += newUser.username;
  s += "</username><realm>";
  s += newUser.realm;
  s += "</realm></simple>";
  s += "</RegistrationRQ>";
  return s;
}

std::string IPLocationRQ(const SimpleAuthentication& authentication, WPS_StreetAddressLookup lookup) {
  std::string s;
  s.reserve(kLocationRequestCapacity / 2);
  s += header();
  s += "<IPLocationRQ ";
  s += version("2.3");
  s += streetAddressLookupRQ(lookup);
  s += ">";
  s += authenticationRQ(authentication);
  s += "</IPLocationRQ>";
  return s;
}

std::string LocationRQ(const SimpleAuthentication& authentication,
                       WPS_StreetAddressLookup lookup,
                       const std::vector<ScannedAccessPoint>& accessPoints,
                       const std::vector<ScannedCellTower>& cellTowers) {
  const Time now = Time::now();
  std::string s;
  s.reserve(kLocationRequestCapacity);
  s += header();
  s += "<LocationRQ ";
  s += version(cellTowers.empty() ? "2.6" : "2.7");
  s += streetAddressLookupRQ(lookup);
  s += ">";
  s += authenticationRQ(authentication);
  // Access points go without age in a location request.
  for (const ScannedAccessPoint& ap : accessPoints) s += accessPointRQ(ap);
  for (const ScannedCellTower& tower : cellTowers) s += cellTowerRQ(tower, now);
  s += "</LocationRQ>";
  return s;
}

std::string TilingRQ(const SimpleAuthentication& authentication,
                     const std::vector<ScannedAccessPoint>& accessPoints,
                     const std::vector<ScannedCellTower>& cellTowers,
                     unsigned long maxSize) {
  const Time now = Time::now();
  std::string s;
  s.reserve(kLocationRequestCapacity);
  s += header();
  s += "<TilingRQ ";
  s += version("2.7");
  s += " maxSize='";
  s += std::to_string(maxSize);
  s += "'>";
  s += authenticationRQ(authentication);
  s += "<access-points>";
  for (const ScannedAccessPoint& ap : accessPoints) s += accessPointRQ(ap, now);
  s += "</access-points>";
  if (!cellTowers.empty()) {
    s += "<cell-towers>";
    for (const ScannedCellTower& tower : cellTowers) s += cellTowerRQ(tower, now);
    s += "</cell-towers>";
  }
  s += "</TilingRQ>";
  return s;
}

// ---- Reading ----

DOMNodes selectNodes(const DOMNode* node, const std::string& name) {
  DOMNodes result;
  if (node == nullptr) return result;
  std::unique_ptr<DOMNodeList> children = node->getChildNodes();
  const unsigned long length = children->getLength();
  for (unsigned long i = 0; i < length; ++i) {
    std::unique_ptr<DOMNode> child = children->getItem(i);
    if (child && inProtocolNamespace(*child, name)) result.push_back(std::move(child));
  }
  return result;
}

std::unique_ptr<DOMNode> selectSingleNode(const DOMNode* node, const std::string& name) {
  if (node == nullptr) return nullptr;
  std::unique_ptr<DOMNodeList> children = node->getChildNodes();
  const unsigned long length = children->getLength();
  for (unsigned long i = 0; i < length; ++i) {
    std::unique_ptr<DOMNode> child = children->getItem(i);
    if (child && inProtocolNamespace(*child, name)) return child;
  }
  return nullptr;
}

bool hasErrorNode(const DOMNode* node) { return selectSingleNode(node, "error") != nullptr; }

std::string parseValue(const DOMNode* node, const std::string& name) {
  std::unique_ptr<DOMNode> child = selectSingleNode(node, name);
  return child ? child->getNodeValue() : std::string();
}

double parseDouble(const DOMNode* node, const std::string& name) {
  std::unique_ptr<DOMNode> child = selectSingleNode(node, name);
  if (!child) return 0.0;
  return SPI::atof(child->getNodeValue().c_str());
}

void parseLatLon(const DOMNode* node, double& lat, double& lon) {
  lat = parseDouble(node, "latitude");
  lon = parseDouble(node, "longitude");
}

void parseNameCode(const DOMNode* node, const std::string& name, NameCode& nc) {
  std::unique_ptr<DOMNode> child = selectSingleNode(node, name);
  if (!child) return;
  nc.name = child->getNodeValue();
  nc.code = child->getAttributeNS("", "code");
  // Only two-letter codes are kept.
  if (nc.code.size() != 2) nc.code.clear();
}

void parseStreetAddress(const DOMNode* node, StreetAddress& sa) {
  std::unique_ptr<DOMNode> address = selectSingleNode(node, "street-address");
  if (!address) return;
  const DOMNode* a = address.get();
  sa.streetNumber = parseValue(a, "street-number");
  sa.city = parseValue(a, "city");
  sa.postalCode = parseValue(a, "postal-code");
  sa.county = parseValue(a, "county");
  sa.province = parseValue(a, "province");
  sa.region = parseValue(a, "region");
  parseNameCode(a, "state", sa.state);
  parseNameCode(a, "country", sa.country);
  for (const std::unique_ptr<DOMNode>& line : selectNodes(a, "address-line")) {
    sa.addressLine.push_back(line->getNodeValue());
  }
}

namespace {

// Checks a position read from an answer; logs and refuses one that cannot be
// a place on Earth.
bool acceptPosition(const char* element, double latitude, double longitude, double error) {
  const char* problem = positionProblem(latitude, longitude, error);
  if (problem == nullptr) return true;
  SPI::Logger::getLogger("WPS.API.Protocol")
      .error("Refusing the server's %s %g, %g (error %g): %s", element, latitude, longitude, error, problem);
  return false;
}

}  // namespace

// ---- Parsers ----

bool parseRegistrationRS(const std::string& response) {
  ParsedResponse parsed;
  if (!parseResponse(response, parsed)) return false;
  return !hasErrorNode(parsed.root.get());
}

bool parseIPLocationRS(const std::string& response, IPLocation& ipLocation) {
  ParsedResponse parsed;
  if (!parseResponse(response, parsed)) return false;
  if (hasErrorNode(parsed.root.get())) return false;
  std::unique_ptr<DOMNode> node = selectSingleNode(parsed.root.get(), "ip-location");
  if (!node) return false;
  double latitude = 0, longitude = 0;
  parseLatLon(node.get(), latitude, longitude);
  if (!acceptPosition("ip-location", latitude, longitude, 0.0)) return false;
  ipLocation.ip = parseValue(node.get(), "ip");
  ipLocation.latitude = latitude;
  ipLocation.longitude = longitude;
  return true;
}

bool parseLocationRS(const std::string& response, Location& location) {
  ParsedResponse parsed;
  if (!parseResponse(response, parsed)) return false;
  if (hasErrorNode(parsed.root.get())) return false;
  std::unique_ptr<DOMNode> node = selectSingleNode(parsed.root.get(), "location");
  if (!node) return false;
  double latitude = 0, longitude = 0;
  parseLatLon(node.get(), latitude, longitude);
  const double hpe = parseDouble(node.get(), "hpe");
  if (!acceptPosition("location", latitude, longitude, hpe)) return false;
  location.hpe = hpe;
  std::string nap = node->getAttributeNS("", "nap");
  long napValue = nap.empty() ? 0 : SPI::atol(nap.c_str());
  if (napValue < 0 || napValue > INT32_MAX) napValue = 0;
  location.nap = static_cast<int>(napValue);
  location.latitude = latitude;
  location.longitude = longitude;
  parseStreetAddress(node.get(), location.streetAddress);
  return true;
}

bool parseTilingRS(const std::string& response, TileInfoList& tiles) {
  ParsedResponse parsed;
  if (!parseResponse(response, parsed)) return false;
  if (hasErrorNode(parsed.root.get())) return false;
  tiles.clear();
  for (const std::unique_ptr<DOMNode>& tile : selectNodes(parsed.root.get(), "tile")) {
    std::unique_ptr<DOMNode> url = selectSingleNode(tile.get(), "url");
    if (!url) continue;
    std::string location = url->getNodeValue();
    TileInfo info;
    info.version = tile->getAttributeNS("", "version");
    info.id = tile->getAttributeNS("", "id");
    // A tile is usable only with somewhere to fetch it from and a name to
    // store it under; a tile without a version could never be compared with
    // the copy on disk.
    if (location.empty() || info.id.empty() || info.version.empty()) continue;
    info.url = location + "/tiling";
    tiles.push_back(std::move(info));
  }
  return true;
}

}  // namespace API
}  // namespace WPS
