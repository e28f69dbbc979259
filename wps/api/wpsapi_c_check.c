/* Compiled as C: the public header must stay usable from C. */
#include "wps/api/wpsapi.h"

#include <stddef.h>

/* Field order of the public records, as C sees it. */
int wpsapi_c_layout_ok(void) {
  WPS_Location location = {0};
  WPS_IPLocation ip = {0};
  WPS_SimpleAuthentication auth = {"user", "realm"};
  WPS_StreetAddressLookup lookup = WPS_FULL_STREET_ADDRESS_LOOKUP;
  WPS_ReturnCode code = WPS_ERROR_PROXY_UNAUTHORIZED;
  (void)location;
  (void)ip;
  return offsetof(WPS_Location, latitude) == 0 && offsetof(WPS_Location, longitude) > offsetof(WPS_Location, latitude) &&
         offsetof(WPS_Location, hpe) > offsetof(WPS_Location, longitude) &&
         offsetof(WPS_Location, nap) > offsetof(WPS_Location, hpe) &&
         offsetof(WPS_Location, speed) > offsetof(WPS_Location, nap) &&
         offsetof(WPS_Location, bearing) > offsetof(WPS_Location, speed) &&
         offsetof(WPS_Location, street_address) > offsetof(WPS_Location, bearing) &&
         offsetof(WPS_Location, source) > offsetof(WPS_Location, street_address) &&
         WPS_SOURCE_WIFI == 0 && WPS_SOURCE_IP_ADDRESS == 1 && WPS_PROTOCOL_GEOLOCATION_API == 2 &&
         offsetof(WPS_IPLocation, ip) == 0 && offsetof(WPS_IPLocation, street_address) > offsetof(WPS_IPLocation, longitude) &&
         offsetof(WPS_SimpleAuthentication, realm) > offsetof(WPS_SimpleAuthentication, username) &&
         auth.username != NULL && lookup == 2 && code == 7 && WPS_ERROR == 99 && WPS_CONTINUE == 1 && WPS_STOP == 0;
}
