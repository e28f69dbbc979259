// A positioning server on the loopback interface for scenario tests: answers
// location, registration and tiling requests and serves tile files, over real
// HTTP (HttpTestServer).
//
// Paths (relative to `url()`, which is what WPS_set_server_url takes):
//   POST /location      the configured location (LocationRS), or an error
//                       document when none is set;
//   POST /ip-location   the configured Internet address and its position
//                       (IPLocationRS), or an error document when none is set;
//   POST /registration  accepted (RegistrationRS) unless refused;
//   POST /tiling        a TilingRS listing the offered tiles, each with the url
//                       url("/tiles/<id>_<version>");
//   GET  /tiles/<id>_<version>/tiling
//                       the tile's bytes (the client appends "/tiling").
// Anything else is answered 404. Every request is recorded.
//
// Thread safety: all members may be called from any thread while the server
// runs; answers use the configuration current when the request arrives.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/testing/http_test_server.h"

namespace WPS {
namespace API {
namespace testing {

class FakePositioningServer {
 public:
  struct Tile {
    std::string id;
    std::string version;
    std::string bytes;  // the file served
    int status = 200;   // a status other than 200 is served with an empty body
    std::chrono::milliseconds delay{0};
    uint64_t streamedBytes = 0;  // > 0: served as that many filler bytes, streamed (`bytes` unused)
  };

  FakePositioningServer();
  ~FakePositioningServer();
  FakePositioningServer(const FakePositioningServer&) = delete;
  FakePositioningServer& operator=(const FakePositioningServer&) = delete;

  // "http://127.0.0.1:<port>" (no trailing slash).
  [[nodiscard]] std::string url() const;

  // A tile file of `accessPoints` for `realm` (one tile for all of them).
  // Aborts the test program when the writer refuses them.
  [[nodiscard]] static std::string makeTileFile(const std::vector<LocatedAccessPoint>& accessPoints,
                                                const std::string& realm);

  // The answer to /location: the given fix, or (nullopt) an error document.
  void setLocation(std::optional<LocatedAccessPoint> where, double hpe = 25.0, unsigned nap = 5);
  // When set, /location answers where `locator` places the request (whose
  // body holds the scanned access points): a fix, or (nullopt) an error
  // document; the configured location is then not used. Called on a server
  // thread under the server's lock: it must not call back into the server.
  using Locator = std::function<std::optional<LocatedAccessPoint>(const zonara::testing::HttpRequest&)>;
  void setLocator(Locator locator);
  void setRegistrationAccepted(bool accepted);
  // The answer to /ip-location: this address at this place, or (nullopt, the
  // start) an error document.
  struct IPLocation {
    std::string ip;
    double latitude = 0;
    double longitude = 0;
  };
  void setIPLocation(std::optional<IPLocation> where);

  // Adds (or replaces, by id and version) a tile. Tiles are offered in the
  // order they were added unless setOfferedTiles says otherwise.
  void addTile(Tile tile);
  // The tiles (by "<id>_<version>") the next tiling answers list, in order;
  // names of unknown tiles are listed as well (their download gives 404).
  void setOfferedTiles(std::vector<std::string> names);
  // A raw body answering /tiling instead of the generated one (nullopt
  // restores it), and its status.
  void setTilingReply(std::optional<std::string> body, int status = 200);

  // Requests received for `path` (as HttpRequest::path()).
  [[nodiscard]] std::vector<zonara::testing::HttpRequest> requestsTo(const std::string& path) const;
  [[nodiscard]] size_t countTo(const std::string& path) const { return requestsTo(path).size(); }
  // Number of tile downloads received (any tile).
  [[nodiscard]] size_t downloadCount() const;
  [[nodiscard]] zonara::testing::HttpTestServer& http() { return *http_; }

 private:
  zonara::testing::HttpResponse answer(const zonara::testing::HttpRequest& request);
  [[nodiscard]] std::string tilingReply() const WPS_REQUIRES(mu_);

  mutable SPI::StdMutex mu_;
  std::optional<LocatedAccessPoint> location_ WPS_GUARDED_BY(mu_);
  Locator locator_ WPS_GUARDED_BY(mu_);
  double hpe_ WPS_GUARDED_BY(mu_) = 25.0;
  unsigned nap_ WPS_GUARDED_BY(mu_) = 5;
  bool registrationAccepted_ WPS_GUARDED_BY(mu_) = true;
  std::optional<IPLocation> ipLocation_ WPS_GUARDED_BY(mu_);
  std::vector<Tile> tiles_ WPS_GUARDED_BY(mu_);
  std::optional<std::vector<std::string>> offered_ WPS_GUARDED_BY(mu_);
  std::optional<std::string> tilingBody_ WPS_GUARDED_BY(mu_);
  int tilingStatus_ WPS_GUARDED_BY(mu_) = 200;
  std::unique_ptr<zonara::testing::HttpTestServer> http_;  // last: stops first
};

}  // namespace testing
}  // namespace API
}  // namespace WPS
