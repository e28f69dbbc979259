// The location-sensing subsystem put together: the lookup wrapper, the
// positioning sensor, the aggregator and the network sensor over the shared
// system configuration monitor, with the settings read from the helper's
// preferences.
//
// Preferences (all optional):
//   "PositioningServerURL"  server of the positioning library (default: the
//                           library's own, the geolocation JSON API of
//                           BeaconDB); the empty text means no server
//   "ReachabilityHost"      host tested before a second lookup (default: the
//                           host of the positioning server URL)
//   "IPLocationURL"         base URL of the IP-location page, to which
//                           "/app/locate_my_ip" is appended (default: none,
//                           the positioning server is asked for the IP
//                           address's position instead)
//   "LearnPlaces"           keep what servers teach (default true)
//
// Thread safety: main thread.
#pragma once

#include <memory>
#include <string>

#include "platform/http_fetcher.h"
#include "platform/notification_center.h"
#include "platform/preferences_store.h"
#include "platform/reachability.h"
#include "sensors/network_sensor.h"
#include "sensors/sensor_aggregator.h"
#include "sensors/telluro_helper.h"
#include "sensors/telluro_sensor.h"

namespace zonara {

struct LocationSensingSettings {
  std::string positioningServerURL;  // "" = no positioning server
  std::string reachabilityHost;
  std::string ipLocationURL;
  bool learnPlaces = true;  // LearnPlaces: keep what servers teach (default true)

  friend bool operator==(const LocationSensingSettings&, const LocationSensingSettings&) = default;

  // Reads the keys above; a missing PositioningServerURL gives
  // `defaultServerURL`, and the reachability host defaults to the server's.
  [[nodiscard]] static LocationSensingSettings fromPreferences(PreferencesDomain& preferences,
                                                               const std::string& defaultServerURL);
  // "host" of "scheme://user@host:port/path" (brackets of IPv6 removed).
  [[nodiscard]] static std::string hostOfURL(const std::string& url);
};

class LocationSensing {
 public:
  struct Dependencies {
    LocationLibrary* library = nullptr;  // all borrowed
    Reachability* reachability = nullptr;
    HttpFetcher* fetcher = nullptr;
    NotificationCenter* center = nullptr;
    std::string dataFolder;  // "$XDG_DATA_HOME/Zonara"
    LocationSensingSettings settings;
    // False: no network sensor (no dynamic store is opened).
    bool watchNetwork = true;
  };

  // Makes everything; the positioning sensor starts its silent refresh. The
  // monitor's failures propagate as std::runtime_error.
  [[nodiscard]] static std::unique_ptr<LocationSensing> create(const Dependencies& dependencies);
  // Stops the sensors and waits for their threads. Main thread.
  ~LocationSensing();

  [[nodiscard]] SensorAggregator& aggregator() { return *aggregator_; }
  [[nodiscard]] TelluroSensor& telluroSensor() { return *telluroSensor_; }
  [[nodiscard]] NetworkSensor* networkSensor() { return networkSensor_.get(); }
  [[nodiscard]] TelluroHelper& helper() { return *helper_; }

  // System sleep and wake (a long sleep leads to a check, see
  // TelluroSensor::didWake).
  void willSleep();
  void didWake();
  // A fresh look-up of the position (TelluroSensor::performLocationCheck).
  void lookAgain();
  // The positioning sensor's settings from `settings` for the checks from
  // now on. (The positioning server and learned places are the library's,
  // set by the caller.)
  void applySettings(const LocationSensingSettings& settings);

 private:
  LocationSensing() = default;
  std::unique_ptr<SensorAggregator> aggregator_;
  std::unique_ptr<TelluroHelper> helper_;
  std::unique_ptr<TelluroSensor> telluroSensor_;
  std::unique_ptr<NetworkSensor> networkSensor_;
};

}  // namespace zonara
