// Fuzz target: arbitrary bytes as the IP-location answers -- the IP-location
// page the helper reads its position from, and the positioning server's XML
// IP-location response the library reads.
//
// Checked beyond "no crash, no leak": a position either reader accepts is a
// place on Earth (finite, latitude within [-90, 90], longitude within
// [-180, 180]).
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "sensors/telluro_sensor.h"
#include "wps/api/protocol/location.h"
#include "wps/api/protocol/protocol.h"

namespace {

bool onEarth(double latitude, double longitude) {
  return std::isfinite(latitude) && std::isfinite(longitude) && latitude >= -90 && latitude <= 90 &&
         longitude >= -180 && longitude <= 180;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  const std::optional<zonara::TelluroLocation> page = zonara::TelluroSensor::scrapeIPLocationPage(text);
  if (page && !onEarth(page->latitude, page->longitude)) std::abort();

  WPS::API::IPLocation answer;
  if (WPS::API::parseIPLocationRS(text, answer) && !onEarth(answer.latitude, answer.longitude)) std::abort();
  WPS::API::IPLocation::free_ip_location(static_cast<WPS_IPLocation*>(answer));
  return 0;
}

std::vector<unsigned char> ipLocationFuzzSeed() {
  const std::string seed =
      "<tr><td class=label>Latitude/Longitude</td><td class=output>47.3667 / 8.55</td></tr>";
  return {seed.begin(), seed.end()};
}
