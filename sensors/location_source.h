// What the helper needs from location sensing: the current coordinates and a
// way to ask for a fresh check. The positioning sensor and the sensor
// aggregator implement these.
//
// Thread safety: called on the main thread only.
#pragma once

#include <optional>

namespace zonara {

// What a position was found from.
enum class PositionSource {
  DeviceTiles,        // Wi-Fi access points placed on the device from the tiles
  LearnedPlaces,      // access points the device learned from earlier server answers
  PositioningServer,  // Wi-Fi access points placed by the positioning server
  IPAddress,          // the computer's IP address: a city at best
};

// "device tiles", "learned places", "positioning server", "IP address".
[[nodiscard]] const char* positionSourceName(PositionSource source);

// How far a position can be trusted.
struct PositionQuality {
  double accuracyMetres = 0;  // radius of the circle the computer is in
  PositionSource source = PositionSource::DeviceTiles;
};

// The accuracy given to a position from the IP address when its provider
// states none: a city-sized circle.
inline constexpr double kUnstatedIPAccuracyMetres = 50000;

class LocationSource {
 public:
  virtual ~LocationSource() = default;
  // Decimal degrees, east positive; nullopt while no position is known.
  [[nodiscard]] virtual std::optional<double> currentLongitude() const = 0;
  // Decimal degrees, north positive; nullopt while no position is known.
  [[nodiscard]] virtual std::optional<double> currentLatitude() const = 0;
  // The current position's accuracy and source; nullopt while no position is
  // known.
  [[nodiscard]] virtual std::optional<PositionQuality> currentQuality() const = 0;
};

class LocationTrigger {
 public:
  virtual ~LocationTrigger() = default;
  // Starts a location check; its outcome arrives later as the local
  // notification "TelluroSensorNotification".
  virtual void triggerNotification() = 0;
};

}  // namespace zonara
