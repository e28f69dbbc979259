/* Calls the public functions from C, as a C program would. */
#include <stddef.h>

#include "wps/api/wpsapi.h"

/* One location request against `url` with the given account. On WPS_OK the
 * coordinates and access-point count are copied out; the record is released
 * in every case it was handed out. */
int wpsapi_c_locate(const char* url, const char* user, const char* realm, double* latitude, double* longitude,
                    unsigned* nap, int* handed_out) {
  WPS_SimpleAuthentication auth;
  WPS_Location* location = NULL;
  WPS_ReturnCode code;

  auth.username = user;
  auth.realm = realm;
  if (WPS_set_server_url(url) != WPS_OK) return -1;
  code = WPS_location(&auth, WPS_NO_STREET_ADDRESS_LOOKUP, &location);
  *handed_out = location != NULL;
  if (location != NULL) {
    *latitude = location->latitude;
    *longitude = location->longitude;
    *nap = location->nap;
    WPS_free_location(location);
  }
  WPS_free_location(NULL);
  WPS_free_ip_location(NULL);
  WPS_set_server_url(NULL);
  return code;
}
