// The public functions that set up the process rather than ask for a
// location. They need none of the library's components and do not take the
// library lock.
#include "wps/api/wpsapi.h"
#include "wps/spi/logger.h"

extern "C" {

WPS_ReturnCode WPS_set_preferences_domain(const char* domain) {
  if (domain == nullptr) return WPS_ERROR;
  WPS::SPI::Logger::setApplicationDomain(domain);
  return WPS_OK;
}

}  // extern "C"
