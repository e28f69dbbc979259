// A known access point as stored in a tile: where it is and how far its
// readings can be trusted.
//
// Thread safety: a plain value.
#pragma once

#include <cstdint>

#include "wps/spi/scan.h"

namespace WPS {
namespace API {

struct LocatedAccessPoint {
  SPI::MAC mac;
  double latitude = 0.0;   // degrees
  double longitude = 0.0;  // degrees
  // Integer reliability figure from the tile (18 and up for a found access
  // point); drives the access point's weight in local positioning.
  uint32_t reliabilityCount = 0;
  // Exponent applied to the received power when weighting (1/6 .. 1/2 for a
  // found access point).
  double signalExponent = 0.0;

  // True for the all-zero value that stands for "not found".
  [[nodiscard]] bool empty() const {
    return mac.value() == 0 && latitude == 0.0 && longitude == 0.0 && reliabilityCount == 0 &&
           signalExponent == 0.0;
  }
};

}  // namespace API
}  // namespace WPS
