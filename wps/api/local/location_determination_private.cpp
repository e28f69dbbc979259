#include "wps/api/local/location_determination_private.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "wps/api/collection/tier2_collection.h"
#include "wps/api/learn/learned_places.h"
#include "wps/api/local/access_point_database.h"

namespace WPS {
namespace API {

using namespace local;

namespace {

// The module-wide traces, newest first.
std::vector<Location>& rawTrace() {
  static std::vector<Location> trace;
  return trace;
}
std::vector<Location>& smoothedTrace() {
  static std::vector<Location> trace;
  return trace;
}

// Milliseconds from `earlier` to `later` as an unsigned count: a time after
// `later` counts as infinitely long ago.
uint32_t elapsedMs(const SPI::Time& later, const SPI::Time& earlier) {
  const int64_t diff = later - earlier;
  if (diff < 0 || diff > int64_t{std::numeric_limits<uint32_t>::max()}) return std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(diff);
}

bool bothNonZero(const Location& l) { return l.latitude != 0.0 && l.longitude != 0.0; }
bool isZero(const Location& l) { return l.latitude == 0.0 && l.longitude == 0.0; }

// The time of the smoothed fix at `index`, taken from the parallel raw trace.
SPI::Time traceTime(size_t index) {
  const auto& raw = rawTrace();
  return index < raw.size() ? raw[index].time : smoothedTrace()[index].time;
}

template <typename T>
T lowerMedian(std::vector<T> values) {
  std::sort(values.begin(), values.end());
  return values[(values.size() - 1) / 2];
}

Location positionOf(const LocationDeterminationPrivate::APInfo& ap) {
  Location l;
  l.latitude = ap.latitude;
  l.longitude = ap.longitude;
  return l;
}

double distanceMetres(double lat1, double lon1, double lat2, double lon2) {
  const double p1 = lat1 * kDegToRad, p2 = lat2 * kDegToRad;
  const double dl = (lon2 - lon1) * kDegToRad;
  const double d = kEarthRadius * std::acos(std::sin(p1) * std::sin(p2) + std::cos(p1) * std::cos(p2) * std::cos(dl));
  return std::isfinite(d) ? d : 0.0;
}

}  // namespace

LocationDeterminationPrivate::LocationDeterminationPrivate(const char* path)
    : LocationDeterminationLocal(path), logger_(SPI::Logger::getLogger("WPS.API.LocationDeterminationLocal")) {}

const std::vector<Location>& LocationDeterminationPrivate::posTrace() { return rawTrace(); }
const std::vector<Location>& LocationDeterminationPrivate::smoothedPosTrace() { return smoothedTrace(); }

void LocationDeterminationPrivate::resetTracesForTesting() {
  rawTrace().clear();
  smoothedTrace().clear();
}

void LocationDeterminationPrivate::addToTrace(const Location& fix) {
  auto& trace = rawTrace();
  if (trace.size() >= kTraceLength) trace.pop_back();
  trace.insert(trace.begin(), fix);
}

void LocationDeterminationPrivate::addToSmoothedTrace(const Location& fix) {
  auto& trace = smoothedTrace();
  if (trace.size() >= kTraceLength) trace.pop_back();
  trace.insert(trace.begin(), fix);
}

// ---------------------------------------------------------------------------
// Distances and coordinates

double LocationDeterminationPrivate::calcDistance(const Location& a, const Location& b) {
  return distanceMetres(a.latitude, a.longitude, b.latitude, b.longitude);
}
double LocationDeterminationPrivate::calcDistance(const Location& a, const LocatedAccessPoint& b) {
  return distanceMetres(a.latitude, a.longitude, b.latitude, b.longitude);
}
double LocationDeterminationPrivate::calcDistance(const LocatedAccessPoint& a, const LocatedAccessPoint& b) {
  return distanceMetres(a.latitude, a.longitude, b.latitude, b.longitude);
}
double LocationDeterminationPrivate::calcDistance(const Location& a, const APInfo& b) {
  return distanceMetres(a.latitude, a.longitude, b.latitude, b.longitude);
}

void LocationDeterminationPrivate::convertToCartesian(const Location& location, double& x, double& y, double& z) {
  const double lat = location.latitude * kDegToRad, lon = location.longitude * kDegToRad;
  x = std::cos(lat) * std::cos(lon);
  y = std::cos(lat) * std::sin(lon);
  z = std::sin(lat);
}

void LocationDeterminationPrivate::convertFromCartesian(double& x, double& y, double& z, Location& location) {
  location.longitude = std::atan2(y, x) / kDegToRad;
  location.latitude = std::atan2(z, std::sqrt(x * x + y * y)) / kDegToRad;
}

// ---------------------------------------------------------------------------
// The whole computation

int LocationDeterminationPrivate::determineLocationLocally(const Location* previous,
                                                           const std::vector<SPI::ScannedAccessPoint>& aps,
                                                           const std::vector<SPI::ScannedCellTower>& cells,
                                                           Location& out) {
  if (!database_) {
    out.time = SPI::Time::now();
    return kCannotDetermine;
  }
  std::vector<LocatedAccessPoint> located;
  database_->get(aps, cells, located);
  const int result = calculateLocation(previous, aps, located, out);
  out.time = SPI::Time::now();
  if (learned_ != nullptr && result == kLocationFound) {
    // Learned positions are no better than the server fixes they came from.
    out.hpe = std::max(out.hpe, learned_->accuracyFloor(located));
    out.learned = learned_->allLearned(located);
  }
  if (tier2_) {
    std::vector<SPI::ScannedAccessPoint> known, unknown;
    std::for_each(aps.begin(), aps.end(), classify_ap{located, known, unknown});
    tier2_->put(out.latitude, out.longitude, aps, known, unknown);
  }
  return result;
}

void classify_ap::operator()(const SPI::ScannedAccessPoint& ap) const {
  const bool found = std::any_of(located.begin(), located.end(), [&ap](const LocatedAccessPoint& l) {
    return std::equal(l.mac.bytes(), l.mac.bytes() + 6, ap.mac.bytes());
  });
  (found ? known : unknown).push_back(ap);
}

int LocationDeterminationPrivate::calculateLocation(const Location* /*previous*/,
                                                    const std::vector<SPI::ScannedAccessPoint>& aps,
                                                    const std::vector<LocatedAccessPoint>& located, Location& out) {
  const SPI::Time now = SPI::Time::now();
  std::vector<APInfo> list;
  list.reserve(located.size());
  for (const LocatedAccessPoint& l : located) {
    auto scanned = std::find_if(aps.begin(), aps.end(), [&l](const SPI::ScannedAccessPoint& a) { return a.mac == l.mac; });
    if (scanned == aps.end()) continue;
    APInfo info;
    info.mac = l.mac;
    info.latitude = l.latitude;
    info.longitude = l.longitude;
    info.reliabilityCount = l.reliabilityCount;
    info.signalExponent = l.signalExponent;
    info.signal[0] = scanned->rssi;
    info.time[0] = now;
    list.push_back(info);
  }

  traceScannedAPs(list, aps);

  Location raw;
  raw.time = now;
  (void)calcPosition(list, raw);

  out.nap = raw.nap;
  out.hpe = calcError(list);
  smoothingFunc(raw, out, 1);

  if (!list.empty()) {
    out.speed = calcVelocity(raw);
    raw.speed = out.speed;
    if (out.speed == 0.0 && !rawTrace().empty()) {
      // Standing still: keep the heading of the last fix.
      out.bearing = rawTrace().front().bearing;
      raw.bearing = out.bearing;
    } else {
      raw.bearing = calcBearing(raw);
      smoothingFunc(raw, out, 3);
    }
  } else {
    out.speed = raw.speed;
    out.bearing = raw.bearing;
  }

  out.time = raw.time;
  addToTrace(raw);
  addToSmoothedTrace(out);
  return isZero(out) ? kCannotDetermine : kLocationFound;
}

void LocationDeterminationPrivate::traceScannedAPs(const std::vector<APInfo>& list,
                                                   const std::vector<SPI::ScannedAccessPoint>& /*aps*/) {
  const SPI::Time now = SPI::Time::now();
  // One scan older: slots 0..19 move to 1..20, slot 0 is this scan, empty.
  for (APInfo& traced : scanTrace_) {
    for (size_t k = kHistoryShift; k > 0; --k) {
      traced.signal[k] = traced.signal[k - 1];
      traced.time[k] = traced.time[k - 1];
    }
    traced.signal[0] = 0;
    traced.time[0] = now;
  }
  // This scan's readings: known access points get slot 0, new ones enter
  // with this reading alone.
  for (const APInfo& info : list) {
    auto it = std::find_if(scanTrace_.begin(), scanTrace_.end(), [&info](const APInfo& t) { return t.mac == info.mac; });
    if (it == scanTrace_.end()) {
      APInfo entry;
      entry.mac = info.mac;
      scanTrace_.push_back(entry);
      it = scanTrace_.end() - 1;
    }
    it->latitude = info.latitude;
    it->longitude = info.longitude;
    it->reliabilityCount = info.reliabilityCount;
    it->signalExponent = info.signalExponent;
    it->signal[0] = info.signal[0];
    it->time[0] = now;
  }
  // An access point without a reading in the slots that are still moved
  // (the last 21 scans) is forgotten.
  std::erase_if(scanTrace_, [](const APInfo& t) {
    return std::all_of(t.signal, t.signal + kHistoryShift + 1, [](int32_t s) { return s == 0; });
  });
}

int LocationDeterminationPrivate::calcPosition(std::vector<APInfo>& list, Location& out) {
  const SPI::Time now = SPI::Time::now();
  const Reference reference = findReference(list, now);
  gateAroundReference(list, reference, now);
  if (list.empty()) {
    holdRecentFix(now, out);
    return 0;
  }
  weightedCentroid(list, reference.location, out);
  return 0;
}

// R1: the last smoothed fix of the past 20 s; R2, without one: a reference
// from the access points themselves (dropping, among three or more, those
// without a neighbour).
LocationDeterminationPrivate::Reference LocationDeterminationPrivate::findReference(std::vector<APInfo>& list,
                                                                                    SPI::Time now) {
  const auto& smoothed = smoothedTrace();
  for (size_t i = 0; i < smoothed.size(); ++i) {
    if (elapsedMs(now, traceTime(i)) < kRecentMs && bothNonZero(smoothed[i])) return {smoothed[i], traceTime(i)};
  }
  Reference reference{Location(), now};
  if (list.empty()) return reference;
  auto newestNonZeroSmoothed = [&]() {
    for (size_t i = 0; i < smoothed.size(); ++i) {
      if (bothNonZero(smoothed[i])) {
        reference = {smoothed[i], traceTime(i)};
        return true;
      }
    }
    return false;
  };
  if (list.size() == 1) {
    if (!newestNonZeroSmoothed()) reference = {positionOf(list[0]), now};
  } else if (list.size() == 2) {
    const bool apart = calcDistance(positionOf(list[0]), list[1]) >= kTwoAPsApart;
    if (!apart || !newestNonZeroSmoothed()) reference = {positionOf(list[0]), now};
  } else {
    reference = medianOfNeighbours(list, now);
  }
  return reference;
}

// Drops the access points without a neighbour; the reference is the lower
// median of the rest (or, when at most one is left, the last access point
// examined).
LocationDeterminationPrivate::Reference LocationDeterminationPrivate::medianOfNeighbours(std::vector<APInfo>& list,
                                                                                         SPI::Time now) {
  Reference reference{Location(), now};
  for (size_t i = 0; i < list.size();) {
    reference.location = positionOf(list[i]);
    bool neighbour = false;
    for (size_t j = 0; j < list.size() && !neighbour; ++j) {
      if (j == i) continue;
      neighbour = std::fabs(list[i].latitude - list[j].latitude) + std::fabs(list[i].longitude - list[j].longitude) <
                  kIsolationDegrees;
    }
    if (neighbour) {
      ++i;
    } else {
      list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  if (list.size() <= 1) {
    logger_.debug("Error! List of AP cannot be one here!");
    return reference;
  }
  std::vector<double> lats, lons;
  for (const APInfo& ap : list) {
    lats.push_back(ap.latitude);
    lons.push_back(ap.longitude);
  }
  reference.location = Location();
  reference.location.latitude = lowerMedian(lats);
  reference.location.longitude = lowerMedian(lons);
  return reference;
}

// R3: keeps the access points within a radius of the reference that grows
// with the reference's age; the smallest of three radii that keeps three.
void LocationDeterminationPrivate::gateAroundReference(std::vector<APInfo>& list, const Reference& reference,
                                                       SPI::Time now) {
  uint32_t ageMs = elapsedMs(now, reference.time);
  if (ageMs >= kGatingAgeLimitMs) ageMs = 0;
  const double growth = kGatePerSecond * (ageMs / 1000.0);
  std::vector<double> distances;
  distances.reserve(list.size());
  for (const APInfo& ap : list) distances.push_back(calcDistance(reference.location, ap));
  auto countWithin = [&](double radius) {
    return std::count_if(distances.begin(), distances.end(), [radius](double d) { return d < radius; });
  };
  double radius = kGate1 + growth;
  if (countWithin(radius) < 3) {
    radius = kGate2 + growth;
    if (countWithin(radius) < 3) radius = kGate3 + growth;
  }
  std::vector<APInfo> kept;
  kept.reserve(list.size());
  for (size_t i = 0; i < list.size(); ++i) {
    if (!(distances[i] > radius)) kept.push_back(list[i]);
  }
  list.swap(kept);
}

// R4: nothing passed the gate; the recent smoothed fix, if any, is held,
// otherwise the result is empty.
void LocationDeterminationPrivate::holdRecentFix(SPI::Time now, Location& out) {
  const auto& smoothed = smoothedTrace();
  for (size_t i = 0; i < smoothed.size(); ++i) {
    if (elapsedMs(now, traceTime(i)) < kRecentMs && bothNonZero(smoothed[i])) {
      out.latitude = smoothed[i].latitude;
      out.longitude = smoothed[i].longitude;
      out.hpe = smoothed[i].hpe;
      out.nap = smoothed[i].nap;
      out.speed = smoothed[i].speed;
      out.bearing = smoothed[i].bearing;
      out.time = traceTime(i);
      return;
    }
  }
  out.latitude = out.longitude = out.hpe = out.speed = out.bearing = 0.0;
  out.nap = 0;
  out.time = now;
}

// R5: the centroid of `list` weighted by signal and reliability.
void LocationDeterminationPrivate::weightedCentroid(const std::vector<APInfo>& list, const Location& reference,
                                                    Location& out) {
  std::vector<double> weights;
  weights.reserve(list.size());
  double sum = 0.0;
  for (const APInfo& ap : list) {
    const double w = weightOf(ap, reference);
    weights.push_back(w);
    sum += w;
  }
  if (!(sum > 0.0) || !std::isfinite(sum)) {
    // Every weight vanished (readings far below any real signal): the access
    // points count alike rather than giving a position of NaN.
    std::fill(weights.begin(), weights.end(), 1.0);
    sum = static_cast<double>(weights.size());
  }
  double lat = 0.0, lon = 0.0;
  for (size_t i = 0; i < list.size(); ++i) {
    lat += (weights[i] / sum) * list[i].latitude;
    lon += (weights[i] / sum) * list[i].longitude;
  }
  out.latitude = lat;
  out.longitude = lon;
  out.nap = static_cast<int>(list.size());
}

// The weight of one access point: its signal (averaged over the last five
// scans while the reference moves slowly) raised to its exponent, times the
// reliability of its position.
double LocationDeterminationPrivate::weightOf(const APInfo& ap, const Location& reference) {
  double r = ap.signal[0];
  if (r >= kStrongestPlausibleRSS) {
    logger_.warn("AP RSS was limited to -90dBm");
    r = kImplausibleRSSReplacement;
  }
  if (reference.speed < kAveragingSpeedLimit) {
    auto traced = std::find_if(scanTrace_.begin(), scanTrace_.end(), [&ap](const APInfo& t) { return t.mac == ap.mac; });
    if (traced != scanTrace_.end()) {
      double total = r;
      int count = 1;
      for (size_t k = 1; k <= 4; ++k) {
        if (traced->signal[k] != 0) {
          total += traced->signal[k];
          ++count;
        }
      }
      r = total / count;
    }
  }
  double reliability;
  const uint32_t n = ap.reliabilityCount;
  if (n < kMinReliability) {
    reliability = 0.001;
  } else if (n > kMaxReliability) {
    reliability = 1.0;
  } else {
    reliability = (std::log10(static_cast<double>(n)) - std::log10(18.0)) * 0.999 / (std::log10(30.0) - std::log10(18.0)) + 0.001;
  }
  const double e = std::clamp(ap.signalExponent, kMinExponent, kMaxExponent);
  return std::pow(std::pow(10.0, r / 10.0), e) * reliability;
}

double LocationDeterminationPrivate::calcError(const std::vector<APInfo>& list) {
  if (list.empty()) return kEmptyListError;
  const double n = static_cast<double>(list.size());
  double m = list.front().signalExponent;
  for (const APInfo& ap : list) m = std::min(m, ap.signalExponent);
  const double e =
      ((std::sqrt(1.0 / n) / 0.1721 + std::pow(11.0, (m - 0.16667) / 0.3334) / 2.7546) - 4.0) * 70.85 / 1.7376 + 86.67;
  return std::max(e, 1.0);
}

namespace {

// Readings of one traced access point within the steady window, newest first.
std::vector<double> recentReadings(const LocationDeterminationPrivate::APInfo& traced, const Location& raw) {
  std::vector<double> readings;
  for (size_t k = 0; k < kHistoryLength; ++k) {
    if (traced.signal[k] == 0 || elapsedMs(raw.time, traced.time[k]) > kSteadyWindowMs) break;
    readings.push_back(traced.signal[k]);
  }
  return readings;
}

double standardDeviation(const std::vector<double>& values) {
  double mean = 0.0;
  for (double v : values) mean += v;
  mean /= static_cast<double>(values.size());
  double variance = 0.0;
  for (double v : values) variance += (v - mean) * (v - mean);
  return std::sqrt(variance / static_cast<double>(values.size()));
}

}  // namespace

double LocationDeterminationPrivate::stationarityCap(const Location& raw) const {
  double deviationSum = 0.0;
  int contributing = 0;
  size_t depth = 0;
  for (const APInfo& traced : scanTrace_) {
    const std::vector<double> readings = recentReadings(traced, raw);
    if (readings.size() >= 2) {
      deviationSum += static_cast<double>(readings.size()) * standardDeviation(readings);
      ++contributing;
    }
    size_t slots = 0;
    for (size_t k = 0; k < kHistoryLength; ++k) {
      if (traced.time[k].isSet() && elapsedMs(raw.time, traced.time[k]) <= kDepthWindowMs) ++slots;
    }
    depth = std::max(depth, slots);
  }
  if (scanTrace_.empty() || contributing < 4) return kMaxStepSpeed;
  if (deviationSum / contributing < kSteadyDeviation) return 0.0;
  // Turnover: how often an access point appears or disappears from one scan
  // to the next within the depth, per scan. Access points flickering in and
  // out of scans while the signals move mark a device held still in a fading
  // radio field, not one that walks past them (a walk makes each access point
  // appear and disappear about once).
  double changes = 0.0;
  for (const APInfo& traced : scanTrace_) {
    for (size_t k = 1; k < depth; ++k) {
      if ((traced.signal[k] != 0) != (traced.signal[k - 1] != 0)) changes += 1.0;
    }
  }
  const double ratio = depth == 0 ? 0.0 : changes / static_cast<double>(scanTrace_.size()) / static_cast<double>(depth);
  if (ratio > kTurnoverStill) return 0.0;
  if (ratio > kTurnoverSlow) return kSlowCap;
  return kMaxStepSpeed;
}

double LocationDeterminationPrivate::calcVelocity(const Location& raw) {
  const auto& smoothed = smoothedTrace();
  const auto& trace = rawTrace();
  if (smoothed.empty() || isZero(smoothed.front())) return 0.0;

  // Up to five earlier fixes of each trace, with the new raw fix in front.
  std::vector<Location> rawPoints{raw}, smoothedPoints{raw};
  for (size_t i = 0; i < trace.size() && rawPoints.size() < 6; ++i) {
    if (bothNonZero(trace[i])) rawPoints.push_back(trace[i]);
  }
  for (size_t i = 0; i < smoothed.size() && smoothedPoints.size() < 6; ++i) {
    if (bothNonZero(smoothed[i])) smoothedPoints.push_back(smoothed[i]);
  }
  if (smoothedPoints.size() < 3) return 0.0;
  const SPI::Time newestSmoothed = smoothed.front().time;
  for (const auto* points : {&rawPoints, &smoothedPoints}) {
    for (size_t i = 1; i < points->size(); ++i) {
      if (newestSmoothed - (*points)[i].time > int64_t{kVelocityWindowMs}) return 0.0;
    }
  }

  // Step speeds between consecutive smoothed fixes (their median resists a
  // single jumpy fix); overall speed from the oldest gathered raw fix to the
  // new one.
  std::vector<double> steps;
  for (size_t i = 0; i + 1 < smoothedPoints.size(); ++i) {
    const int64_t dt = smoothedPoints[i].time - smoothedPoints[i + 1].time;
    if (dt == 0) continue;
    const double speed = calcDistance(smoothedPoints[i], smoothedPoints[i + 1]) / (std::fabs(static_cast<double>(dt)) / 1000.0);
    steps.push_back(std::min(speed, kMaxStepSpeed));
  }
  const double median = steps.empty() ? 0.0 : lowerMedian(steps);
  const Location& oldest = rawPoints.back();
  const int64_t elapsed = raw.time - oldest.time;
  const double overall = elapsed > 0 ? calcDistance(oldest, raw) / (elapsed / 1000.0) : 0.0;
  const double v = 0.12 * smoothed.front().speed + 0.88 * ((median + overall) * 0.5 / 1.8);

  // Stationarity from the scan trace.
  const double cap = stationarityCap(raw);
  if (cap == 0.0) return 0.0;

  if (v > cap) return cap * 3600.0 / 1000.0;
  if (v >= 0.0) return v * 3600.0 / 1000.0;
  return 0.0;
}

double LocationDeterminationPrivate::calcBearing(const Location& raw) {
  const auto& smoothed = smoothedTrace();
  if (isZero(raw) || smoothed.size() < 3) return 0.0;
  for (size_t i = 0; i < 3; ++i) {
    if (smoothed[i].speed == 0.0) return 0.0;
  }
  std::vector<double> angles;
  const double p2 = raw.latitude * kDegToRad;
  for (const Location& fix : smoothed) {
    if (!bothNonZero(fix)) continue;
    const double p1 = fix.latitude * kDegToRad;
    const double dl = (raw.longitude - fix.longitude) * kDegToRad;
    angles.push_back(std::atan2(std::sin(dl) * std::cos(p2), std::cos(p1) * std::sin(p2) - std::sin(p1) * std::cos(p2) * std::cos(dl)));
  }
  if (angles.empty()) return 0.0;

  const size_t outside =
      static_cast<size_t>(std::count_if(angles.begin(), angles.end(), [](double a) { return std::fabs(a) > 1.570796325; }));
  if (outside > angles.size() / 2) {
    for (double& a : angles) {
      if (a < 0.0) a += 6.2831853;
    }
  }
  double mean = 0.0, meanSquare = 0.0;
  for (double a : angles) {
    mean += a;
    meanSquare += a * a;
  }
  mean /= static_cast<double>(angles.size());
  meanSquare /= static_cast<double>(angles.size());
  const double variance = meanSquare - mean * mean;
  size_t k = variance > 2.8 ? 2 : variance > 2.5 ? 3 : variance > 2.3 ? 5 : 21;
  k = std::min(k, angles.size());
  std::vector<double> first(angles.begin(), angles.begin() + static_cast<std::ptrdiff_t>(k));
  std::sort(first.begin(), first.end());
  // (k + 1) / 2 is past the end for a single angle; that one is taken then.
  double degrees = first[std::min((k + 1) / 2, k - 1)] * 180.0 / 3.14159265;
  if (degrees < 0.0) degrees += 360.01;
  return degrees;
}

namespace {

// The quantities smoothingFunc smooths.
constexpr int kSmoothPosition = 1;
constexpr int kSmoothSpeed = 2;
constexpr int kSmoothBearing = 3;

// A fix of the raw trace within the smoothing window, with its age relative
// to the new fix.
struct SmoothingSample {
  Location fix;
  uint32_t age;
};

// Copies the smoothed quantity `what` of `raw` to `out`.
void copyQuantity(const Location& raw, Location& out, int what) {
  if (what == kSmoothPosition) {
    out.latitude = raw.latitude;
    out.longitude = raw.longitude;
  } else if (what == kSmoothSpeed) {
    out.speed = raw.speed;
  } else {
    out.bearing = raw.bearing;
  }
}

// True when the quantity `what` of `raw` is unknown (zero); it is then zero
// in `out` as well.
bool clearedWhenUnknown(const Location& raw, Location& out, int what) {
  if (what == kSmoothPosition && isZero(raw)) {
    out.latitude = out.longitude = 0.0;
    return true;
  }
  if (what == kSmoothSpeed && raw.speed == 0.0) {
    out.speed = 0.0;
    return true;
  }
  if (what == kSmoothBearing && raw.bearing == 0.0) {
    out.bearing = 0.0;
    return true;
  }
  return false;
}

// The new fix and the raw fixes (with a position) no older than `span`
// milliseconds before it, at most kHistoryLength in all, newest first.
std::vector<SmoothingSample> samplesWithin(const Location& raw, uint32_t span) {
  std::vector<SmoothingSample> samples{{raw, 0}};
  for (const Location& fix : rawTrace()) {
    if (samples.size() >= kHistoryLength) break;
    const uint32_t age = elapsedMs(raw.time, fix.time);
    if (age > span) break;
    if (fix.latitude == 0.0 || fix.longitude == 0.0) continue;
    samples.push_back({fix, age});
  }
  return samples;
}

// The plain mean of the samples: speed, or position when moving slowly.
void meanOf(const std::vector<SmoothingSample>& samples, uint32_t span, int what, Location& out) {
  double a = 0.0, b = 0.0;
  size_t n = 0;
  for (const SmoothingSample& s : samples) {
    if (s.age > span) continue;
    a += what == kSmoothSpeed ? s.fix.speed : s.fix.latitude;
    b += s.fix.longitude;
    ++n;
  }
  if (what == kSmoothSpeed) {
    out.speed = a / static_cast<double>(n);
  } else {
    out.latitude = a / static_cast<double>(n);
    out.longitude = b / static_cast<double>(n);
  }
}

// Bearings around north are averaged as -90..90 rather than across 0/360
// when most samples point north-ish.
void unwrapBearings(std::vector<SmoothingSample>& samples) {
  const size_t northish = static_cast<size_t>(std::count_if(samples.begin(), samples.end(), [](const SmoothingSample& s) {
    return s.fix.bearing < 90.0 || s.fix.bearing > 270.0;
  }));
  if (northish < (samples.size() + 1) / 2) return;
  for (SmoothingSample& s : samples) {
    if (s.fix.bearing > 180.0) s.fix.bearing -= 360.0;
  }
}

// The samples weighted by a triangle over the window: position (when moving
// fast) or bearing.
void triangleWeightedMeanOf(const std::vector<SmoothingSample>& samples, uint32_t span, int what, Location& out) {
  const double half = span / 2.0;
  double weightSum = 0.0, a = 0.0, b = 0.0;
  for (const SmoothingSample& s : samples) {
    if (s.age >= span) break;
    const double seconds = s.age / 1000.0;
    double w;
    if (what == kSmoothPosition) {
      w = s.age <= half ? 0.08 + 0.04 * seconds : 0.4 - 0.04 * seconds;
      a += w * s.fix.latitude;
      b += w * s.fix.longitude;
    } else {
      w = s.age <= half ? 0.11 * seconds : 0.66 - 0.11 * seconds;
      a += w * s.fix.bearing;
    }
    weightSum += w;
  }
  if (what == kSmoothPosition) {
    out.latitude = weightSum == 0.0 ? 0.0 : a / weightSum;
    out.longitude = weightSum == 0.0 ? 0.0 : b / weightSum;
  } else {
    double bearing = weightSum == 0.0 ? 0.0 : a / weightSum;
    if (bearing < 0.0) bearing += 360.01;
    out.bearing = bearing;
  }
}

}  // namespace

void LocationDeterminationPrivate::smoothingFunc(const Location& raw, Location& out, int what) {
  if (clearedWhenUnknown(raw, out, what)) return;
  const auto& smoothed = smoothedTrace();
  if (smoothed.empty() || elapsedMs(raw.time, smoothed.front().time) >= kSmoothingLimitMs) {
    copyQuantity(raw, out, what);
    return;
  }
  const bool slow = smoothed.front().speed <= kSlowSmoothingSpeed;
  const uint32_t span = what == kSmoothSpeed ? 10000 : what == kSmoothBearing ? 6000 : (slow ? 10000 : 8000);
  if (elapsedMs(raw.time, smoothed.front().time) > span) {
    copyQuantity(raw, out, what);
    return;
  }
  std::vector<SmoothingSample> samples = samplesWithin(raw, span);
  if (what == kSmoothSpeed || (what == kSmoothPosition && slow)) {
    meanOf(samples, span, what, out);
    return;
  }
  if (what == kSmoothBearing) unwrapBearings(samples);
  triangleWeightedMeanOf(samples, span, what, out);
}

Location LocationDeterminationPrivate::limitMaxMovement(const Location& location) {
  if (isZero(location)) return location;
  for (const Location& fix : rawTrace()) {
    if (!bothNonZero(fix)) continue;
    const int64_t dt = location.time - fix.time;
    if (dt <= 0) return location;
    const double distance = calcDistance(fix, location);
    const double allowed = kMaxStepSpeed * (static_cast<double>(dt) / 1000.0);
    if (distance <= allowed || distance == 0.0) return location;
    const double f = allowed / distance;
    Location limited = location;
    limited.latitude = fix.latitude + (location.latitude - fix.latitude) * f;
    limited.longitude = fix.longitude + (location.longitude - fix.longitude) * f;
    return limited;
  }
  return location;
}

}  // namespace API
}  // namespace WPS
