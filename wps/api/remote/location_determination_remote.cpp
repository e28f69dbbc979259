#include "wps/api/remote/location_determination_remote.h"

#include "wps/api/protocol/location_client.h"
#include "wps/api/protocol/protocol.h"
#include "wps/spi/time.h"

namespace WPS {
namespace API {

namespace {

bool missingCredentials(const SimpleAuthentication& authentication) {
  return authentication.username.empty() || authentication.realm.empty();
}

}  // namespace

std::unique_ptr<LocationDeterminationRemote> LocationDeterminationRemote::newInstance() {
  return std::unique_ptr<LocationDeterminationRemote>(new LocationDeterminationRemote());
}

LocationDeterminationRemote::LocationDeterminationRemote()
    : logger_(SPI::Logger::getLogger("WPS.API.LocationDeterminationRemote")) {}

int LocationDeterminationRemote::sendRequest(const std::string& path, const std::string& request,
                                             std::string& response) {
  logger_.debug("opening request object");
  std::unique_ptr<SPI::XmlHttpRequest> http =
      LocationClient::getInstance().openHttpRequest(SPI::XmlHttpRequest::POST, path, false);
  if (!http) return WPS_ERROR;

  logger_.debug("about to send request: %s", request.c_str());
  int rc = http->send(request.data(), request.size());
  if (rc != 0) {
    logger_.error("couldn't send request, error %d", rc);
    return WPS_ERROR_SERVER_UNAVAILABLE;
  }

  const int status = http->getStatusCode();
  logger_.debug("status code: %d status text: %s", status, http->getStatusText().c_str());
  if (status != 200) logger_.error("server answered %s with %d %s", path.c_str(), status, http->getStatusText().c_str());
  switch (status) {
    case 200:
      break;
    case 401:
    case 403:
      return WPS_ERROR_UNAUTHORIZED;
    case 407:
      return WPS_ERROR_PROXY_UNAUTHORIZED;
    default:
      return WPS_ERROR_SERVER_UNAVAILABLE;
  }

  logger_.debug("about to get response text");
  const char* data = nullptr;
  unsigned long length = 0;
  rc = http->getResponseText(data, length);
  if (rc != 0) {
    logger_.error("couldn't get response text, error %d", rc);
    return WPS_ERROR_SERVER_UNAVAILABLE;
  }
  response.assign(data, length);
  logger_.debug("received response: %s", response.c_str());
  return WPS_OK;
}

int LocationDeterminationRemote::getLocationRemotely(const SimpleAuthentication& authentication,
                                                     WPS_StreetAddressLookup lookup,
                                                     const std::vector<SPI::ScannedAccessPoint>& accessPoints,
                                                     const std::vector<SPI::ScannedCellTower>& cellTowers,
                                                     Location& location) {
  if (LocationClient::getInstance().speaksGeolocationApi()) return geolocation_.locate(accessPoints, location);
  if (missingCredentials(authentication)) return WPS_ERROR_UNAUTHORIZED;
  std::string response;
  int rc = sendRequest(kLocationPath, LocationRQ(authentication, lookup, accessPoints, cellTowers), response);
  logger_.debug("location request result: %d", rc);
  if (rc != WPS_OK) return rc;
  logger_.debug("parsing location response");
  if (!parseLocationRS(response, location)) return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  location.time = SPI::Time::now();
  return WPS_OK;
}

int LocationDeterminationRemote::getIPLocationRemotely(const SimpleAuthentication& authentication,
                                                       WPS_StreetAddressLookup lookup, IPLocation& ipLocation) {
  if (LocationClient::getInstance().speaksGeolocationApi()) return geolocation_.locateByIp(ipLocation);
  if (missingCredentials(authentication)) return WPS_ERROR_UNAUTHORIZED;
  logger_.debug("about to get ip-location from server");
  std::string response;
  int rc = sendRequest(kIPLocationPath, IPLocationRQ(authentication, lookup), response);
  logger_.debug("ip-location request result: %d", rc);
  if (rc != WPS_OK) return rc;
  logger_.debug("parsing ip-location response");
  if (!parseIPLocationRS(response, ipLocation)) return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  return WPS_OK;
}

int LocationDeterminationRemote::registerUser(const SimpleAuthentication& account,
                                              const SimpleAuthentication& newUser) {
  if (LocationClient::getInstance().speaksGeolocationApi()) {
    logger_.debug("a geolocation API server has no accounts: nothing to register");
    return WPS_OK;
  }
  logger_.debug("about to register a user on server");
  std::string response;
  int rc = sendRequest(kRegistrationPath, RegistrationRQ(account, newUser), response);
  logger_.debug("registration request result: %d", rc);
  if (rc != WPS_OK) return rc;
  logger_.debug("parsing registration response");
  if (!parseRegistrationRS(response)) return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED;
  return WPS_OK;
}

}  // namespace API
}  // namespace WPS
