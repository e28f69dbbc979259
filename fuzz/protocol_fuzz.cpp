// Feeds arbitrary bytes to every response parser of the positioning protocol
// and walks whatever document the XML layer makes of them, calling every
// accessor. Looks for crashes, hangs and memory errors (run under the
// sanitizers); results are not checked.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wps/api/protocol/config.h"
#include "wps/api/protocol/location.h"
#include "wps/api/protocol/protocol.h"
#include "wps/spi/dom.h"

namespace {

// Visits `node` and its descendants up to `depth` levels, touching every
// accessor, and returns a number derived from what it read so the calls are
// not optimised away.
size_t walk(const WPS::SPI::DOMNode& node, int depth) {
  size_t sum = node.getNodeName().size() + node.getNodeValue().size() + node.getNamespaceURI().size() +
               node.getPrefix().size() + node.getLocalName().size() + node.getAttributeNS("", "code").size() +
               node.getAttributeNS(WPS::API::kProtocolNamespace, "id").size();
  if (auto attribute = node.getAttributeNodeNS("", "nap")) sum += attribute->getNodeValue().size();
  if (depth <= 0) return sum;
  auto children = node.getChildNodes();
  const unsigned long length = children->getLength();
  for (unsigned long i = 0; i < length && i < 256; ++i) {
    if (auto child = children->getItem(i)) sum += walk(*child, depth - 1);
  }
  // Past the end is null, never a crash.
  if (children->getItem(length)) sum += 1;
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  WPS::API::Location location;
  (void)WPS::API::parseLocationRS(text, location);
  WPS::API::IPLocation ipLocation;
  (void)WPS::API::parseIPLocationRS(text, ipLocation);
  (void)WPS::API::parseRegistrationRS(text);
  WPS::API::TileInfoList tiles;
  (void)WPS::API::parseTilingRS(text, tiles);

  // The public records made from whatever was read must convert and free.
  WPS::API::Location::free_location(static_cast<WPS_Location*>(location));
  WPS::API::IPLocation::free_ip_location(static_cast<WPS_IPLocation*>(ipLocation));

  auto document = WPS::SPI::SAXParser::newInstance()->parse(text.data(), text.size());
  if (document) {
    if (auto root = document->getDocumentElement()) {
      volatile size_t sink = walk(*root, 8);
      (void)sink;
    }
  }
  return 0;
}

// The seed of the standalone driver (GCC builds) when no file is given: a
// complete location response.
std::vector<unsigned char> protocolFuzzSeed() {
  const std::string seed = std::string("<?xml version='1.0'?><LocationRS xmlns='") +
                           WPS::API::kProtocolNamespace +
                           "' version='2.6'><location nap='7'><latitude>42.36</latitude><longitude>-71.05</longitude>"
                           "<hpe>35</hpe><street-address><street-number>1</street-number><address-line>Main</address-line>"
                           "<city>Boston</city><state code='MA'>Massachusetts</state><country code='US'>US</country>"
                           "</street-address></location><tile id='1' version='2'><url>u</url></tile>"
                           "<ip-location><ip>192.0.2.1</ip></ip-location></LocationRS>";
  return std::vector<unsigned char>(seed.begin(), seed.end());
}
