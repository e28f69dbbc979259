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
// positioning library once for the IP address's position; either runs on a
// worker thread, whose answer is handed to the main thread. A new position
// triggers the aggregator, except the silent refresh's own (not from the IP
// address), which is only stored; a position from the IP address is marked
// so.
//
// Thread safety: `performLocationCheck`, `willSleep`, `didWake` and
// `triggerSensor` on the main thread; the position accessors from any
// thread. Lookup results arrive on lookup threads and are handled there or
// handed to the main thread as described in the .cpp. Nothing here blocks
// the main thread for long: a check asked for while one is in progress waits
// on a main-loop timer, the IP-location page is read on the worker.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/background_worker.h"
#include "platform/clock.h"
#include "platform/http_fetcher.h"
#include "platform/mutex.h"
#include "platform/reachability.h"
#include "platform/run_loop.h"
#include "sensors/location_source.h"
#include "sensors/telluro_helper.h"

namespace zonara {

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
  [[nodiscard]] std::optional<PositionQuality> currentQuality() const override;

  // The quick check: once no check is in progress (looked at every 0.1 s by
  // a main-loop timer; the call itself returns at once), looks up with the
  // 1.0 s time-out.
  void performLocationCheck() override;
  // Outcome of the quick check.
  void finishQuickLocationCheck(const std::optional<TelluroLocation>& location);
  // Stores a position and triggers the aggregator, or clears the position
  // and starts the IP-location fallback. Main thread.
  void triggerSensor(const std::optional<TelluroLocation>& location);
  // Outcome of the silent refresh: stores a position without triggering;
  // without one, starts the fallback. Any thread.
  void finishRefresh(const std::optional<TelluroLocation>& location);
  // The IP-location fallback on the worker; a position it finds goes to
  // `triggerSensor` on the main thread (stored, and the aggregator triggered).
  void startIPLocationCheck();
  // The page itself (or, without one, the positioning library's IP
  // position), blocking: the position it gives, or nullopt after ten failed
  // attempts or once `stop` is requested.
  [[nodiscard]] std::optional<TelluroLocation> performIPLocationCheck(const std::stop_token& stop = {});
  // Whether the IP-location fallback is queued or running (tests).
  [[nodiscard]] bool ipLocationCheckRunning() const { return worker_.busy(); }
  // Reads "Latitude/Longitude ... class=output ... >LAT/LON" from a page;
  // nullopt unless both numbers are there and finite, latitude within
  // [-90, 90] and longitude within [-180, 180].
  [[nodiscard]] static std::optional<TelluroLocation> scrapeIPLocationPage(const std::string& page);

  [[nodiscard]] static bool isConnected(uint32_t flags);
  [[nodiscard]] TelluroStatus telluroStatus() const override;
  [[nodiscard]] bool statusIsEqualToStatus(const TelluroStatus& other) const override;

  // Sleep and wake: a wake at least 3 whole minutes after the sleep clears
  // the position and starts a check (`performLocationCheck`).
  void willSleep();
  void didWake();

  [[nodiscard]] bool ready() const { return ready_; }

  // Settings for the checks from now on (a check in progress may still use
  // the old ones). Any thread.
  void setConfig(Config config);
  [[nodiscard]] Config config() const;

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
  void reapThreads(bool all) ZONARA_REQUIRES(mu_);
  // Wraps a member for the helper's callback; ignored while shutting down.
  TelluroHelper::Callback callbackTo(void (TelluroSensor::*method)(const std::optional<TelluroLocation>&));

  TelluroHelper& helper_;
  Reachability& reachability_;
  HttpFetcher& fetcher_;
  LocationTrigger& trigger_;

  std::atomic<bool> ready_{true};
  mutable Mutex mu_;
  Config config_ ZONARA_GUARDED_BY(mu_);
  std::optional<double> currentLongitude_ ZONARA_GUARDED_BY(mu_);
  std::optional<double> currentLatitude_ ZONARA_GUARDED_BY(mu_);
  std::optional<PositionQuality> currentQuality_ ZONARA_GUARDED_BY(mu_);
  std::optional<Clock::WallTime> sleepDate_ ZONARA_GUARDED_BY(mu_);
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::vector<Worker> workers_ ZONARA_GUARDED_BY(mu_);
  std::vector<RunLoop::TimerId> pendingChecks_;  // checks waiting for the one in progress
  std::atomic<bool> shuttingDown_{false};
  // Last: stopped first, while everything its jobs use is still there.
  BackgroundWorker worker_;
};

}  // namespace zonara
