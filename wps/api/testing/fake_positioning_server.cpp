#include "wps/api/testing/fake_positioning_server.h"

#include <cstdio>
#include <cstdlib>

#include "wps/api/protocol/config.h"
#include "wps/api/tiles/tile_writer.h"

namespace WPS {
namespace API {
namespace testing {

using zonara::testing::HttpRequest;
using zonara::testing::HttpResponse;

namespace {

const std::string kTilesPrefix = "/tiles/";
const std::string kTilesSuffix = "/tiling";

std::string rootOpen(const char* name) {
  return std::string("<?xml version='1.0'?><") + name + " xmlns='" + kProtocolNamespace + "'>";
}

}  // namespace

FakePositioningServer::FakePositioningServer()
    : http_(std::make_unique<zonara::testing::HttpTestServer>(
          [this](const HttpRequest& request) { return answer(request); })) {}

FakePositioningServer::~FakePositioningServer() { http_.reset(); }

std::string FakePositioningServer::url() const { return http_->url(); }

std::string FakePositioningServer::makeTileFile(const std::vector<LocatedAccessPoint>& accessPoints,
                                                const std::string& realm) {
  TileWriterOptions options;
  options.realm = realm;
  options.tileSizeDegrees = 0;
  std::vector<unsigned char> bytes;
  std::string error;
  if (!buildTileFile(accessPoints, options, bytes, error)) {
    std::fprintf(stderr, "FakePositioningServer: cannot build a tile: %s\n", error.c_str());
    std::abort();
  }
  return std::string(bytes.begin(), bytes.end());
}

void FakePositioningServer::setLocator(Locator locator) {
  SPI::StdMutexLock lock(mu_);
  locator_ = std::move(locator);
}

void FakePositioningServer::setLocation(std::optional<LocatedAccessPoint> where, double hpe, unsigned nap) {
  SPI::StdMutexLock lock(mu_);
  location_ = where;
  hpe_ = hpe;
  nap_ = nap;
}

void FakePositioningServer::setRegistrationAccepted(bool accepted) {
  SPI::StdMutexLock lock(mu_);
  registrationAccepted_ = accepted;
}

void FakePositioningServer::setIPLocation(std::optional<IPLocation> where) {
  SPI::StdMutexLock lock(mu_);
  ipLocation_ = std::move(where);
}

void FakePositioningServer::addTile(Tile tile) {
  SPI::StdMutexLock lock(mu_);
  for (Tile& held : tiles_) {
    if (held.id == tile.id && held.version == tile.version) {
      held = std::move(tile);
      return;
    }
  }
  tiles_.push_back(std::move(tile));
}

void FakePositioningServer::setOfferedTiles(std::vector<std::string> names) {
  SPI::StdMutexLock lock(mu_);
  offered_ = std::move(names);
}

void FakePositioningServer::setTilingReply(std::optional<std::string> body, int status) {
  SPI::StdMutexLock lock(mu_);
  tilingBody_ = std::move(body);
  tilingStatus_ = status;
}

std::vector<HttpRequest> FakePositioningServer::requestsTo(const std::string& path) const {
  std::vector<HttpRequest> out;
  for (HttpRequest& request : http_->requests()) {
    if (request.path() == path) out.push_back(std::move(request));
  }
  return out;
}

size_t FakePositioningServer::downloadCount() const {
  size_t n = 0;
  for (const HttpRequest& request : http_->requests()) {
    if (request.path().rfind(kTilesPrefix, 0) == 0) ++n;
  }
  return n;
}

std::string FakePositioningServer::tilingReply() const {
  std::vector<std::string> names;
  if (offered_) {
    names = *offered_;
  } else {
    for (const Tile& tile : tiles_) names.push_back(tile.id + "_" + tile.version);
  }
  std::string body = rootOpen("TilingRS");
  for (const std::string& name : names) {
    const size_t underscore = name.rfind('_');
    const std::string id = underscore == std::string::npos ? name : name.substr(0, underscore);
    const std::string version = underscore == std::string::npos ? "" : name.substr(underscore + 1);
    body += "<tile id='" + id + "' version='" + version + "'><url>" + http_->url(kTilesPrefix + name) +
            "</url></tile>";
  }
  body += "</TilingRS>";
  return body;
}

HttpResponse FakePositioningServer::answer(const HttpRequest& request) {
  SPI::StdMutexLock lock(mu_);
  const std::string path = request.path();
  if (request.method == "POST" && path == "/location") {
    const std::optional<LocatedAccessPoint> where = locator_ ? locator_(request) : location_;
    if (!where) return HttpResponse(200, rootOpen("LocationRS") + "<error>no location</error></LocationRS>");
    char text[256];
    std::snprintf(text, sizeof text,
                  "<location nap='%u'><latitude>%.7f</latitude><longitude>%.7f</longitude><hpe>%.1f</hpe></location>",
                  nap_, where->latitude, where->longitude, hpe_);
    return HttpResponse(200, rootOpen("LocationRS") + text + "</LocationRS>");
  }
  if (request.method == "POST" && path == "/ip-location") {
    if (!ipLocation_) return HttpResponse(200, rootOpen("IPLocationRS") + "<error>no location</error></IPLocationRS>");
    char text[128];
    std::snprintf(text, sizeof text, "</ip><latitude>%.7f</latitude><longitude>%.7f</longitude></ip-location>",
                  ipLocation_->latitude, ipLocation_->longitude);
    return HttpResponse(200, rootOpen("IPLocationRS") + "<ip-location><ip>" + ipLocation_->ip + text + "</IPLocationRS>");
  }
  if (request.method == "POST" && path == "/registration") {
    if (registrationAccepted_) return HttpResponse(200, rootOpen("RegistrationRS") + "</RegistrationRS>");
    return HttpResponse(200, rootOpen("RegistrationRS") + "<error>refused</error></RegistrationRS>");
  }
  if (request.method == "POST" && path == "/tiling") {
    return HttpResponse(tilingStatus_, tilingBody_ ? *tilingBody_ : tilingReply());
  }
  if (request.method == "GET" && path.rfind(kTilesPrefix, 0) == 0 && path.size() > kTilesPrefix.size() + kTilesSuffix.size() &&
      path.compare(path.size() - kTilesSuffix.size(), kTilesSuffix.size(), kTilesSuffix) == 0) {
    const std::string name =
        path.substr(kTilesPrefix.size(), path.size() - kTilesPrefix.size() - kTilesSuffix.size());
    for (const Tile& tile : tiles_) {
      if (tile.id + "_" + tile.version != name) continue;
      HttpResponse response(tile.status, tile.status == 200 ? tile.bytes : std::string());
      response.delay = tile.delay;
      if (tile.status == 200 && tile.streamedBytes > 0) response.streamedBodyBytes = tile.streamedBytes;
      return response;
    }
  }
  return HttpResponse(404, "");
}

}  // namespace testing
}  // namespace API
}  // namespace WPS
