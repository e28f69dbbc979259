// The working local location determination: gating of the located access
// points against a reference position, a signal-weighted centroid, an error
// estimate, speed and bearing from the recent fixes, and smoothing over time.
//
// Module-wide state: two traces of the last 41 fixes, raw (`posTrace`) and
// smoothed (`smoothedPosTrace`), newest first, shared by every instance of
// the process and never cleared by `close` (a new instance continues the
// track). Each instance adds its own scan trace: the recent readings of the
// located access points.
//
// Thread safety: none; one computation at a time per process (the library
// lock serialises location requests). Time comes from SPI::Time::now().
#pragma once

#include <cstdint>
#include <vector>

#include "wps/api/local/location_determination_local.h"
#include "wps/api/protocol/location.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// Constants of the computation.
namespace local {
inline constexpr double kEarthRadius = 6372800.0;         // metres
inline constexpr double kDegToRad = 0.0174532925;
inline constexpr size_t kTraceLength = 41;                // fixes kept per trace
inline constexpr size_t kHistoryLength = 42;              // slots of an access point's history
inline constexpr size_t kHistoryShift = 20;               // slots 0..19 move to 1..20 each scan
inline constexpr uint32_t kRecentMs = 20000;              // a reference fix must be younger
inline constexpr uint32_t kGatingAgeLimitMs = 20001;      // older references gate as if new
inline constexpr double kTwoAPsApart = 300.0;             // metres
inline constexpr double kIsolationDegrees = 0.05;         // |Δlat| + |Δlon|
inline constexpr double kGate1 = 75.0, kGate2 = 150.0, kGate3 = 300.0, kGatePerSecond = 10.0;
inline constexpr int kStrongestPlausibleRSS = -20;        // dBm; at or above is implausible
inline constexpr int kImplausibleRSSReplacement = -90;    // dBm
inline constexpr double kAveragingSpeedLimit = 16.095284081764046;  // 10 / 0.6213
inline constexpr uint32_t kMinReliability = 18, kMaxReliability = 30;
inline constexpr double kMinExponent = 0.16667, kMaxExponent = 0.5;
inline constexpr double kEmptyListError = 250.0;
inline constexpr double kMaxStepSpeed = 41.666666666666664;          // 150 / 3.6 m/s
inline constexpr uint32_t kVelocityWindowMs = 25000;
inline constexpr uint32_t kSteadyWindowMs = 11000;
inline constexpr uint32_t kDepthWindowMs = 21000;
inline constexpr double kSteadyDeviation = 2.0;
inline constexpr double kTurnoverStill = 0.38095238095238093;        // 8 / 21
inline constexpr double kTurnoverSlow = 0.35714285714285715;         // 5 / 14
inline constexpr double kSlowCap = 2.0;                              // m/s
inline constexpr double kSlowSmoothingSpeed = 2.2222222222222223;
inline constexpr uint32_t kSmoothingLimitMs = 20001;
}  // namespace local

class LocationDeterminationPrivate : public LocationDeterminationLocal {
 public:
  // One candidate access point of a computation, and an entry of the scan
  // trace.
  struct APInfo {
    SPI::MAC mac;
    double latitude = 0.0;
    double longitude = 0.0;
    uint32_t reliabilityCount = 0;
    double signalExponent = 0.0;
    // Slot 0: the present scan; slots 1 and up: earlier scans, newest first.
    // 0 means no reading.
    int32_t signal[local::kHistoryLength] = {};
    SPI::Time time[local::kHistoryLength] = {};
  };

  explicit LocationDeterminationPrivate(const char* path = "");

  [[nodiscard]] int determineLocationLocally(const Location* previous,
                                             const std::vector<SPI::ScannedAccessPoint>& aps,
                                             const std::vector<SPI::ScannedCellTower>& cells,
                                             Location& out) override;

  // The computation over already located access points (no database needed).
  // Returns 0, or 6 when the final position is exactly (0, 0).
  [[nodiscard]] virtual int calculateLocation(const Location* previous,
                                              const std::vector<SPI::ScannedAccessPoint>& aps,
                                              const std::vector<LocatedAccessPoint>& located, Location& out);
  // Ages the scan trace by one scan and enters the present readings of `list`.
  virtual void traceScannedAPs(const std::vector<APInfo>& list, const std::vector<SPI::ScannedAccessPoint>& aps);
  // Reference selection, gating (erasing from `list`) and the weighted
  // centroid into `out`. Always 0.
  virtual int calcPosition(std::vector<APInfo>& list, Location& out);
  [[nodiscard]] virtual double calcError(const std::vector<APInfo>& list);
  // Speed in km/h for the new raw fix.
  [[nodiscard]] virtual double calcVelocity(const Location& raw);
  // Bearing in degrees for the new raw fix (0 when unknown).
  [[nodiscard]] virtual double calcBearing(const Location& raw);
  // Smooths position (1), speed (2) or bearing (3) of `raw` into `out`.
  virtual void smoothingFunc(const Location& raw, Location& out, int what);
  // `location` moved back towards the newest fix of the trace when reaching
  // it would have needed more than 150 km/h; unchanged otherwise.
  [[nodiscard]] virtual Location limitMaxMovement(const Location& location);

  static void addToTrace(const Location& fix);
  static void addToSmoothedTrace(const Location& fix);

  static void convertToCartesian(const Location& location, double& x, double& y, double& z);
  static void convertFromCartesian(double& x, double& y, double& z, Location& location);

  [[nodiscard]] static double calcDistance(const Location& a, const Location& b);
  [[nodiscard]] static double calcDistance(const Location& a, const LocatedAccessPoint& b);
  [[nodiscard]] static double calcDistance(const LocatedAccessPoint& a, const LocatedAccessPoint& b);
  // Distance from an access point of the list (helper over the overloads).
  [[nodiscard]] static double calcDistance(const Location& a, const APInfo& b);

  // The module-wide traces, newest first.
  [[nodiscard]] static const std::vector<Location>& posTrace();
  [[nodiscard]] static const std::vector<Location>& smoothedPosTrace();
  // Empties both module-wide traces. For tests only: a process keeps its track.
  static void resetTracesForTesting();

  // The scan trace of this instance.
  [[nodiscard]] const std::vector<APInfo>& scanTrace() const { return scanTrace_; }

 private:
  // The position the access points are judged against, and when it held.
  struct Reference {
    Location location;
    SPI::Time time;
  };

  // The stages of calcPosition.
  [[nodiscard]] Reference findReference(std::vector<APInfo>& list, SPI::Time now);
  [[nodiscard]] Reference medianOfNeighbours(std::vector<APInfo>& list, SPI::Time now);
  void gateAroundReference(std::vector<APInfo>& list, const Reference& reference, SPI::Time now);
  void holdRecentFix(SPI::Time now, Location& out);
  void weightedCentroid(const std::vector<APInfo>& list, const Location& reference, Location& out);
  [[nodiscard]] double weightOf(const APInfo& ap, const Location& reference);
  // The speed cap (m/s) the scan trace allows at `raw`: 0 when the signals
  // show a device held still, kSlowCap when access points flicker in and out
  // as around a slow one, otherwise kMaxStepSpeed.
  [[nodiscard]] double stationarityCap(const Location& raw) const;

  SPI::Logger& logger_;
  std::vector<APInfo> scanTrace_;
};

// Splits a scan into the access points the tiles know (MAC among `located`)
// and the others, appending each scanned access point to one of the lists.
struct classify_ap {
  const std::vector<LocatedAccessPoint>& located;
  std::vector<SPI::ScannedAccessPoint>& known;
  std::vector<SPI::ScannedAccessPoint>& unknown;

  void operator()(const SPI::ScannedAccessPoint& ap) const;
};

}  // namespace API
}  // namespace WPS
