// The positioning protocol's message layer: builders that write each request
// document as one text, and parsers that read the server's responses into the
// library's value types.
//
// Requests are written by concatenation and the exact bytes are the contract:
// one line, the XML declaration and then the elements with no white space
// between them. Names and realms are inserted as they are, without XML
// escaping; callers pass only plain names (letters, digits, dots, hyphens).
//
// Responses are read through the document model of wps/spi/dom.h. Elements are
// matched by local name among the direct children of a node, and only in the
// protocol namespace (kProtocolNamespace); attributes are read without
// namespace.
//
// Thread safety: every function may be called from any thread; the only state
// is the two constant texts of header() and version(), built once.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/wpsapi.h"
#include "wps/spi/dom.h"
#include "wps/spi/scan.h"
#include "wps/spi/time.h"

namespace WPS {
namespace API {

// ---- Request builders (none can fail) ----

// "<?xml version='1.0'?>", with nothing after it.
[[nodiscard]] const std::string& header();
// "xmlns='NAMESPACE' version='V'".
[[nodiscard]] std::string version(const std::string& v);
// "<authentication version='2.0'><simple><username>U</username><realm>R</realm></simple></authentication>".
[[nodiscard]] std::string authenticationRQ(const SimpleAuthentication& authentication);
// " street-address-lookup='none|limited|full'" for 0, 1, 2; an empty value for
// any other number.
[[nodiscard]] std::string streetAddressLookupRQ(WPS_StreetAddressLookup lookup);
// "<access-point><mac>MAC</mac><signal-strength>SS</signal-strength></access-point>".
[[nodiscard]] std::string accessPointRQ(const SPI::ScannedAccessPoint& ap);
// As above plus "<age>MS</age>" (milliseconds from the scan to `now`) before the
// closing tag; exactly the form without age when the scan time is unknown.
[[nodiscard]] std::string accessPointRQ(const SPI::ScannedAccessPoint& ap, const SPI::Time& now);
// "<cell-tower><mcc>..</mcc><mnc>..</mnc><lac>..</lac><ci>..</ci><rssi>..</rssi>
// <timing-advance>..</timing-advance>[<age>..</age>]</cell-tower>"; the age is
// written only when `now` is set.
[[nodiscard]] std::string cellTowerRQ(const SPI::ScannedCellTower& tower, const SPI::Time& now);

// Registration of `newUser` by the registering `account` (version 2.3).
[[nodiscard]] std::string RegistrationRQ(const SimpleAuthentication& account, const SimpleAuthentication& newUser);
// Location of the caller's IP address (version 2.3).
[[nodiscard]] std::string IPLocationRQ(const SimpleAuthentication& authentication, WPS_StreetAddressLookup lookup);
// Location from a scan (version 2.6, or 2.7 with cell towers). Access points
// carry no age; cell towers carry their age at the current time.
[[nodiscard]] std::string LocationRQ(const SimpleAuthentication& authentication,
                                     WPS_StreetAddressLookup lookup,
                                     const std::vector<SPI::ScannedAccessPoint>& accessPoints,
                                     const std::vector<SPI::ScannedCellTower>& cellTowers);
// Tiles around a scan (version 2.7), access points and towers with their ages.
[[nodiscard]] std::string TilingRQ(const SimpleAuthentication& authentication,
                                   const std::vector<SPI::ScannedAccessPoint>& accessPoints,
                                   const std::vector<SPI::ScannedCellTower>& cellTowers,
                                   unsigned long maxSize);

// ---- Response parsers (each takes the whole response text) ----

// True when the text parses and its root has no error element.
[[nodiscard]] bool parseRegistrationRS(const std::string& response);
// True when an "ip-location" element was found and read into `ipLocation`
// (ip, latitude, longitude; no street address).
[[nodiscard]] bool parseIPLocationRS(const std::string& response, IPLocation& ipLocation);
// True when a "location" element was found and read into `location` (hpe, nap,
// latitude, longitude, street address). Other fields are left as they are.
[[nodiscard]] bool parseLocationRS(const std::string& response, Location& location);
// True when the text parses and its root has no error element; `tiles` is then
// cleared and filled with every tile that has a url, an id and a version.
[[nodiscard]] bool parseTilingRS(const std::string& response, TileInfoList& tiles);

// On failure every parser returns false and leaves its output as far as it
// had filled it: not well-formed XML ("Error parsing xml" is logged), an error
// element under the root, or a missing top element. Missing inner elements
// never fail a parse: texts become empty and numbers 0.

// ---- Reading functions used by the parsers ----

using DOMNodes = std::vector<std::unique_ptr<SPI::DOMNode>>;

// The direct children of `node` in the protocol namespace with local name
// `name`, in document order. There is no path syntax.
[[nodiscard]] DOMNodes selectNodes(const SPI::DOMNode* node, const std::string& name);
// The first such child, or null.
[[nodiscard]] std::unique_ptr<SPI::DOMNode> selectSingleNode(const SPI::DOMNode* node, const std::string& name);
// True when `node` has a direct child "error" in the protocol namespace.
[[nodiscard]] bool hasErrorNode(const SPI::DOMNode* node);
// The text of the child `name`; empty when there is none.
[[nodiscard]] std::string parseValue(const SPI::DOMNode* node, const std::string& name);
// The text of the child `name` as a number; 0.0 when missing or unreadable.
[[nodiscard]] double parseDouble(const SPI::DOMNode* node, const std::string& name);
// lat = parseDouble(node, "latitude"), lon = parseDouble(node, "longitude").
void parseLatLon(const SPI::DOMNode* node, double& lat, double& lon);
// Reads the child `name` into `nc`: its text as the name and its "code"
// attribute as the code, kept only when exactly two characters long. Leaves
// `nc` unchanged when there is no such child.
void parseNameCode(const SPI::DOMNode* node, const std::string& name, NameCode& nc);
// Reads the child "street-address" into `sa`; leaves `sa` unchanged when there
// is none. Address lines are appended to those `sa` already holds.
void parseStreetAddress(const SPI::DOMNode* node, StreetAddress& sa);

}  // namespace API
}  // namespace WPS
