// The exchanges that ask the positioning service something: a location from
// scanned access points and cell towers, a location from the caller's IP
// address, and the registration of a new user. Each posts one request
// document to a fixed path under the LocationClient's server URL, checks the
// HTTP status and reads the reply.
//
// Results (the public WPS_ReturnCode values): 0 success; 4 credentials
// refused (HTTP 401 or 403, or an empty user name or realm, in which case
// nothing is sent); 5 server unavailable (no answer, or any other status); 6
// the reply could not be used (not XML, an error element, no location); 7 the
// proxy refused its credentials (HTTP 407); 99 no request could be made.
// Nothing is retried here.
//
// A server URL that selects the geolocation JSON API (isGeolocationApiUrl)
// sends the location and IP-location exchanges to GeolocationDetermination
// instead, without credentials; registration then sends nothing and answers
// 0.
//
// Thread safety: stateless apart from its logger; each call is one
// synchronous exchange on the calling thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/remote/geolocation_api.h"
#include "wps/api/wpsapi.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

class LocationDeterminationRemote {
 public:
  // Paths of the exchanges, appended to the server URL.
  static constexpr const char* kLocationPath = "/location";
  static constexpr const char* kIPLocationPath = "/ip-location";
  static constexpr const char* kRegistrationPath = "/registration";

  [[nodiscard]] static std::unique_ptr<LocationDeterminationRemote> newInstance();

  // Posts `request` to `path` and stores the body of a 200 reply in
  // `response`. 0, 4, 5, 7 or 99 as described above.
  [[nodiscard]] int sendRequest(const std::string& path, const std::string& request, std::string& response);

  // The server's location for a scan; on success `location` holds it, stamped
  // with the current time.
  [[nodiscard]] int getLocationRemotely(const SimpleAuthentication& authentication, WPS_StreetAddressLookup lookup,
                                        const std::vector<SPI::ScannedAccessPoint>& accessPoints,
                                        const std::vector<SPI::ScannedCellTower>& cellTowers, Location& location);

  // The server's location for the caller's IP address (no time stamp).
  [[nodiscard]] int getIPLocationRemotely(const SimpleAuthentication& authentication, WPS_StreetAddressLookup lookup,
                                          IPLocation& ipLocation);

  // Registers `newUser` with the registering `account`. 6 when the server
  // answers with an error element.
  [[nodiscard]] int registerUser(const SimpleAuthentication& account, const SimpleAuthentication& newUser);

 private:
  LocationDeterminationRemote();
  SPI::Logger& logger_;  // "WPS.API.LocationDeterminationRemote"
  GeolocationDetermination geolocation_;
};

}  // namespace API
}  // namespace WPS
