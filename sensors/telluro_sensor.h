// The positioning sensor: the system's idea of where the machine is (a
// longitude and latitude, or none), refreshed at start, on request of the
// network sensor, and kept across short sleeps.
//
// A check (`performLocationCheck`) first asks the positioning library with a
// 1.0 s time-out. Failing that it waits up to 10 s for the positioning
// service's host to be reachable (a thread of its own, with a give-up timer
// on another thread with its own run loop) and asks again; failing that it
// reads the IP-location page "<IPLocationURL>/app/locate_my_ip" (10
// attempts, 10 s each, 30 s apart), or, with no page configured, asks the
// positioning library once for the IP address's position. A new position
// triggers the aggregator; a position from the IP address is marked so.
//
// Thread safety: `performLocationCheck`, `willSleep`, `didWake` and
// `triggerSensor` on the main thread; the position accessors from any
// thread. Lookup results arrive on lookup threads and are handled there or
// handed to the main thread as described in the .cpp.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/http_fetcher.h"
#include "platform/reachability.h"
#include "sensors/location_source.h"
#include "sensors/telluro_helper.h"

namespace zonara {

class RunLoop;

// The positioning sensor's status: both set, or neither (no position).
struct TelluroStatus {
  std::optional<double> currentLongitude;
  std::optional<double> currentLatitude;
};

// Where the aggregator reads the positioning sensor's status.
class TelluroStatusSource {
 public:
  virtual ~TelluroStatusSource() = default;
  [[nodiscard]] virtual TelluroStatus telluroStatus() const = 0;
  // Equal when both lack a position, or both have one less than 0.01 km
  // apart (only the longitude decides whether a side has a position).
  [[nodiscard]] virtual bool statusIsEqualToStatus(const TelluroStatus& other) const = 0;
};

// What the network sensor asks of the positioning sensor.
class LocationCheck {
 public:
  virtual ~LocationCheck() = default;
  virtual void performLocationCheck() = 0;
};

class TelluroSensor final : public LocationSource, public LocationCheck, public TelluroStatusSource {
 public:
  struct Config {
    // Host whose reachability the connectivity wait tests.
    std::string reachabilityHost;
    // Base URL of the IP-location page ("" = the positioning library's IP
    // location instead).
    std::string ipLocationURL;
  };
  static constexpr const char* kIPLocationPath = "/app/locate_my_ip";

  // Everything is borrowed and must outlive the sensor. `trigger` is told of
  // every new position. Starts the silent refresh at once.
  TelluroSensor(TelluroHelper& helper, Reachability& reachability, HttpFetcher& fetcher, LocationTrigger& trigger,
                Config config);
  // Ends the connectivity wait and the give-up timer and waits for lookups
  // still running; call on the main thread.
  ~TelluroSensor() override;
  TelluroSensor(const TelluroSensor&) = delete;
  TelluroSensor& operator=(const TelluroSensor&) = delete;

  // LocationSource
  [[nodiscard]] std::optional<double> currentLongitude() const override;
  [[nodiscard]] std::optional<double> currentLatitude() const override;
  // True when the current position was found from the IP address.
  [[nodiscard]] bool positionIsIpBased() const;

  // The quick check: waits (polling every 0.1 s) until no check is in
  // progress, then looks up with the 1.0 s time-out.
  void performLocationCheck() override;
  // Outcome of the quick check.
  void finishQuickLocationCheck(const std::optional<TelluroLocation>& location);
  // Stores a position and triggers the aggregator, or clears the position
  // and falls back to the IP-location page. Main thread.
  void triggerSensor(const std::optional<TelluroLocation>& location);
  // Outcome of the silent refresh: stores a position without triggering;
  // without one, falls back to the page without triggering.
  void finishRefresh(const std::optional<TelluroLocation>& location);
  // The IP-location fallback. True when the page gave a position.
  bool performIPLocationCheckAndTrigger(bool trigger);
  // Reads "Latitude/Longitude ... class=output ... >LAT/LON" from a page.
  [[nodiscard]] static std::optional<TelluroLocation> scrapeIPLocationPage(const std::string& page);

  [[nodiscard]] static bool isConnected(uint32_t flags);
  [[nodiscard]] TelluroStatus telluroStatus() const override;
  [[nodiscard]] bool statusIsEqualToStatus(const TelluroStatus& other) const override;

  // Sleep and wake: a wake at least 3 whole minutes after the sleep clears
  // the position.
  void willSleep();
  void didWake();

  [[nodiscard]] bool ready() const { return ready_; }

 private:
  void refreshLocation();
  void setPosition(std::optional<double> longitude, std::optional<double> latitude);
  void setPosition(const TelluroLocation& location);
  void waitForConnectivity();
  // The give-up timer (due at `giveUpAt`) and the ready watch, on a run
  // loop of this thread.
  void createTimer(Clock::TimePoint giveUpAt);
  void fetchLocation();
  void finishFetch(const std::optional<TelluroLocation>& location);
  void reapThreads(bool all);
  // Wraps a member for the helper's callback; ignored while shutting down.
  TelluroHelper::Callback callbackTo(void (TelluroSensor::*method)(const std::optional<TelluroLocation>&));

  TelluroHelper& helper_;
  Reachability& reachability_;
  HttpFetcher& fetcher_;
  LocationTrigger& trigger_;
  const Config config_;

  std::atomic<bool> ready_{true};
  mutable std::mutex mu_;  // the position, sleepDate_, the threads
  std::optional<double> currentLongitude_;
  std::optional<double> currentLatitude_;
  bool positionIsIpBased_ = false;
  std::optional<Clock::WallTime> sleepDate_;
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::vector<Worker> workers_;
  std::atomic<bool> shuttingDown_{false};
};

}  // namespace zonara
