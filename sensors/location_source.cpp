#include "sensors/location_source.h"

namespace zonara {

const char* positionSourceName(PositionSource source) {
  switch (source) {
    case PositionSource::DeviceTiles: return "device tiles";
    case PositionSource::LearnedPlaces: return "learned places";
    case PositionSource::PositioningServer: return "positioning server";
    case PositionSource::IPAddress: return "IP address";
  }
  return "unknown source";
}

}  // namespace zonara
