// What the helper needs from location sensing: the current coordinates and a
// way to ask for a fresh check. The positioning sensor and the sensor
// aggregator implement these.
//
// Thread safety: called on the main thread only.
#pragma once

#include <optional>

namespace zonara {

class LocationSource {
 public:
  virtual ~LocationSource() = default;
  // Decimal degrees, east positive; nullopt while no position is known.
  [[nodiscard]] virtual std::optional<double> currentLongitude() const = 0;
  // Decimal degrees, north positive; nullopt while no position is known.
  [[nodiscard]] virtual std::optional<double> currentLatitude() const = 0;
};

class LocationTrigger {
 public:
  virtual ~LocationTrigger() = default;
  // Starts a location check; its outcome arrives later as the local
  // notification "TelluroSensorNotification".
  virtual void triggerNotification() = 0;
};

}  // namespace zonara
