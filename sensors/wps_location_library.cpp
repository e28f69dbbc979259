#include "sensors/wps_location_library.h"

namespace zonara {

WPS_ReturnCode WpsLocationLibrary::registerUser(const WPS_SimpleAuthentication& registrar,
                                                const WPS_SimpleAuthentication& user) {
  return WPS_register_user(&registrar, &user);
}

WPS_ReturnCode WpsLocationLibrary::tiling(const std::string& folder, unsigned long perSession, unsigned long total) {
  return WPS_tiling(folder.c_str(), perSession, total, nullptr, nullptr);
}

WPS_ReturnCode WpsLocationLibrary::location(const WPS_SimpleAuthentication& authentication, double* longitude,
                                            double* latitude) {
  bool ipBased = false;
  return locationWithSource(authentication, longitude, latitude, &ipBased);
}

WPS_ReturnCode WpsLocationLibrary::locationWithSource(const WPS_SimpleAuthentication& authentication,
                                                      double* longitude, double* latitude, bool* ipBased) {
  WPS_Location* found = nullptr;
  const WPS_ReturnCode rc = WPS_location(&authentication, WPS_NO_STREET_ADDRESS_LOOKUP, &found);
  if (rc == WPS_OK && found) {
    *longitude = found->longitude;
    *latitude = found->latitude;
    *ipBased = found->source == WPS_SOURCE_IP_ADDRESS;
  }
  WPS_free_location(found);
  return rc == WPS_OK && !found ? WPS_ERROR : rc;
}

WPS_ReturnCode WpsLocationLibrary::ipLocation(double* longitude, double* latitude) {
  WPS_IPLocation* found = nullptr;
  const WPS_ReturnCode rc = WPS_ip_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &found);
  if (rc == WPS_OK && found) {
    *longitude = found->longitude;
    *latitude = found->latitude;
  }
  WPS_free_ip_location(found);
  return rc == WPS_OK && !found ? WPS_ERROR : rc;
}

bool WpsLocationLibrary::usesAccounts() { return WPS_server_protocol() == WPS_PROTOCOL_XML; }

void WpsLocationLibrary::setServerURL(const std::string& url) { (void)WPS_set_server_url(url.c_str()); }

}  // namespace zonara
