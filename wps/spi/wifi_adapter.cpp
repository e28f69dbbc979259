#include "wps/spi/wifi_adapter.h"

#include <cstdlib>

#include "wps/spi/linux_wifi_adapter.h"
#include "wps/spi/logger.h"
#include "wps/spi/nl80211_driver.h"
#include "wps/spi/scan_file_driver.h"

namespace WPS {
namespace SPI {

std::vector<std::unique_ptr<WifiAdapter>> WifiAdapter::enumerateAdapters() {
  Logger& logger = Logger::getLogger("WPS.SPI.WifiAdapter");
  std::vector<std::unique_ptr<WifiAdapter>> adapters;

  std::unique_ptr<WirelessDriver> driver;
  const char* scanFile = std::getenv("WPS_SCAN_FILE");
  if (scanFile != nullptr && *scanFile != '\0') {
    // A scan file replaces the hardware: chosen even when it is missing, so a
    // wrong path shows up as a failing open rather than a silent switch to the
    // real card.
    driver = std::make_unique<ScanFileDriver>(scanFile);
  } else {
    auto nl80211 = std::make_unique<Nl80211Driver>();
    if (nl80211->isAvailable()) driver = std::move(nl80211);
  }

  if (!driver) {
    logger.error("No wireless available");
    return adapters;
  }
  adapters.push_back(std::make_unique<LinuxWifiAdapter>(std::move(driver)));
  return adapters;
}

}  // namespace SPI
}  // namespace WPS
