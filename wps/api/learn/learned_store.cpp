#include "wps/api/learn/learned_store.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <utility>

#include "wps/api/position_check.h"
#include "wps/api/tiles/md4.h"
#include "wps/api/tiles/tile.h"
#include "wps/api/tiles/tile_writer.h"

namespace WPS {
namespace API {
namespace {

constexpr char kMagic[] = "ZLRN";
constexpr uint32_t kVersion = 1;
constexpr double kEarthRadius = 6371000.0;  // metres
// Cells that count as one place: about a kilometre of latitude.
constexpr double kPlaceCellDegrees = 0.01;

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

double distanceMetres(double lat1, double lon1, double lat2, double lon2) {
  constexpr double kRad = 3.14159265358979323846 / 180.0;
  const double dLat = (lat2 - lat1) * kRad, dLon = (lon2 - lon1) * kRad;
  const double a = std::sin(dLat / 2) * std::sin(dLat / 2) +
                   std::cos(lat1 * kRad) * std::cos(lat2 * kRad) * std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2 * kEarthRadius * std::asin(std::min(1.0, std::sqrt(a)));
}

int64_t nowMs() {
  const SPI::Time now = SPI::Time::now();
  return int64_t{now.seconds} * 1000 + now.milliseconds;
}

// Little-endian writing and reading of the serialised form.
class Writer {
 public:
  void bytes(const void* data, size_t length) {
    const auto* p = static_cast<const unsigned char*>(data);
    out_.insert(out_.end(), p, p + length);
  }
  void u32(uint32_t v) { integer(v, 4); }
  void u64(uint64_t v) { integer(v, 8); }
  void f64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    u64(bits);
  }
  std::vector<unsigned char>& out() { return out_; }

 private:
  void integer(uint64_t v, unsigned length) {
    for (unsigned i = 0; i < length; ++i) out_.push_back(static_cast<unsigned char>(v >> (8 * i)));
  }
  std::vector<unsigned char> out_;
};

class Reader {
 public:
  Reader(const std::vector<unsigned char>& in, size_t end) : in_(in), end_(end) {}
  bool bytes(void* data, size_t length) {
    if (end_ - pos_ < length) return false;
    std::memcpy(data, in_.data() + pos_, length);
    pos_ += length;
    return true;
  }
  bool u32(uint32_t& v) {
    uint64_t w = 0;
    if (!integer(w, 4)) return false;
    v = static_cast<uint32_t>(w);
    return true;
  }
  bool u64(uint64_t& v) { return integer(v, 8); }
  bool i64(int64_t& v) {
    uint64_t w = 0;
    if (!integer(w, 8)) return false;
    v = static_cast<int64_t>(w);
    return true;
  }
  bool f64(double& v) {
    uint64_t bits = 0;
    if (!integer(bits, 8)) return false;
    std::memcpy(&v, &bits, sizeof v);
    return std::isfinite(v);
  }
  [[nodiscard]] size_t remaining() const { return end_ - pos_; }

 private:
  bool integer(uint64_t& v, unsigned length) {
    if (end_ - pos_ < length) return false;
    v = 0;
    for (unsigned i = 0; i < length; ++i) v |= uint64_t{in_[pos_ + i]} << (8 * i);
    pos_ += length;
    return true;
  }
  const std::vector<unsigned char>& in_;
  size_t end_;
  size_t pos_ = 0;
};

constexpr size_t kEntryBytes = 8 + 8 + 8 + 8 + 8 + 4 + 8;
constexpr size_t kIgnoredBytes = 8 + 8;

}  // namespace

bool passesPrivacyFilters(const SPI::ScannedAccessPoint& accessPoint) {
  if (accessPoint.ssid.empty() || endsWith(accessPoint.ssid, "_nomap")) return false;
  const uint64_t firstOctet = accessPoint.mac.value() >> 40;
  return (firstOctet & 0x02) == 0;
}

LearnedStore::LearnedStore(std::string realm, size_t capacity) : realm_(std::move(realm)), capacity_(capacity) {}

uint64_t LearnedStore::identity(const SPI::MAC& mac) const {
  unsigned char digest[kMD4DigestSize];
  MD4("learned " + realm_ + " " + mac.toString(), digest);
  uint64_t id = 0;
  for (int i = 0; i < 8; ++i) id = (id << 8) | digest[i];
  return id;
}

const LearnedStore::Entry* LearnedStore::find(const SPI::MAC& mac) const {
  const auto it = entries_.find(identity(mac));
  return it == entries_.end() ? nullptr : &it->second;
}

bool LearnedStore::ignored(const SPI::MAC& mac) const {
  const auto it = ignoredUntil_.find(identity(mac));
  return it != ignoredUntil_.end() && it->second > nowMs();
}

size_t LearnedStore::learn(const SPI::AccessPointList& scanned, const Location& fix) {
  if (realm_.empty() || fix.ipBased) return 0;
  if (!(fix.hpe > 0.0) || fix.hpe > kMaxTeachingAccuracy) return 0;
  if (positionProblem(fix.latitude, fix.longitude, fix.hpe) != nullptr) return 0;
  const int64_t now = nowMs();
  forgetExpiredIgnores(now);
  std::set<uint64_t> seen;
  size_t recorded = 0;
  for (const SPI::ScannedAccessPoint& ap : scanned) {
    if (!passesPrivacyFilters(ap) || !seen.insert(ap.mac.value()).second) continue;
    const uint64_t id = identity(ap.mac);
    if (ignoredUntil_.count(id) != 0) continue;
    const auto known = entries_.find(id);
    if (known != entries_.end() &&
        distanceMetres(known->second.latitude, known->second.longitude, fix.latitude, fix.longitude) >
            kSamePlaceMetres) {
      entries_.erase(known);
      ignoredUntil_[id] = now + kIgnoreMs;
      continue;
    }
    record(ap.mac, fix, now);
    ++recorded;
  }
  forgetLeastRecentlySeen();
  return recorded;
}

void LearnedStore::record(const SPI::MAC& mac, const Location& fix, int64_t now) {
  Entry& entry = entries_[identity(mac)];
  ++entry.sightings;
  const double n = entry.sightings;
  entry.latitude += (fix.latitude - entry.latitude) / n;
  entry.longitude += (fix.longitude - entry.longitude) / n;
  entry.accuracy += (fix.hpe - entry.accuracy) / n;
  entry.lastSeenMs = now;
  int32_t originLatitude = 0, originLongitude = 0;
  cellOrigin(entry.latitude, entry.longitude, originLatitude, originLongitude);
  entry.tileKey = tileSearchKey(mac, realm_, originLatitude, originLongitude);
}

void LearnedStore::forgetLeastRecentlySeen() {
  if (entries_.size() <= capacity_) return;
  std::vector<std::pair<int64_t, uint64_t>> byAge;
  byAge.reserve(entries_.size());
  for (const auto& [id, entry] : entries_) byAge.emplace_back(entry.lastSeenMs, id);
  const size_t excess = entries_.size() - capacity_;
  std::nth_element(byAge.begin(), byAge.begin() + static_cast<std::ptrdiff_t>(excess - 1), byAge.end());
  for (size_t i = 0; i < excess; ++i) entries_.erase(byAge[i].second);
}

void LearnedStore::forgetExpiredIgnores(int64_t now) {
  std::erase_if(ignoredUntil_, [now](const auto& item) { return item.second <= now; });
}

size_t LearnedStore::clear() {
  const size_t forgotten = entries_.size();
  entries_.clear();
  ignoredUntil_.clear();
  return forgotten;
}

size_t LearnedStore::places() const {
  std::set<std::pair<int64_t, int64_t>> cells;
  for (const auto& [id, entry] : entries_) {
    cells.emplace(static_cast<int64_t>(std::floor(entry.latitude / kPlaceCellDegrees)),
                  static_cast<int64_t>(std::floor(entry.longitude / kPlaceCellDegrees)));
  }
  // Occupied cells joined with their eight neighbours; each group is a place.
  size_t groups = 0;
  std::set<std::pair<int64_t, int64_t>> visited;
  for (const auto& start : cells) {
    if (!visited.insert(start).second) continue;
    ++groups;
    std::vector<std::pair<int64_t, int64_t>> pending{start};
    while (!pending.empty()) {
      const auto [lat, lon] = pending.back();
      pending.pop_back();
      for (int64_t dLat = -1; dLat <= 1; ++dLat) {
        for (int64_t dLon = -1; dLon <= 1; ++dLon) {
          const std::pair<int64_t, int64_t> next{lat + dLat, lon + dLon};
          if (cells.count(next) != 0 && visited.insert(next).second) pending.push_back(next);
        }
      }
    }
  }
  return groups;
}

void LearnedStore::cellOrigin(double latitude, double longitude, int32_t& originLatitude, int32_t& originLongitude) {
  originLatitude = API::cellOrigin(latitude, kCellDegrees, kPrecisionCode);
  originLongitude = API::cellOrigin(longitude, kCellDegrees, kPrecisionCode);
}

uint32_t LearnedStore::reliabilityCount(uint32_t sightings) {
  // One sighting: 19 (a weight of about 0.1); twelve or more: 30 (full weight).
  return kReliabilityCountBase + std::min<uint32_t>(std::max<uint32_t>(sightings, 1), 12);
}

double LearnedStore::signalExponent(uint32_t sightings) {
  // From 1/2 for one sighting down to 1/6 from twelve on: a rarely seen access
  // point weighs less and widens the error estimate.
  const double seen = std::min<uint32_t>(std::max<uint32_t>(sightings, 1), 12);
  return 0.5 - (seen - 1) / 11.0 * (0.5 - kSignalExponentBase);
}

std::vector<LocatedAccessPoint> LearnedStore::tileRecords() const {
  std::vector<LocatedAccessPoint> records;
  records.reserve(entries_.size());
  for (const auto& [id, entry] : entries_) {
    LocatedAccessPoint ap;
    ap.mac = SPI::MAC::fromValue(entry.tileKey);
    ap.latitude = entry.latitude;
    ap.longitude = entry.longitude;
    ap.reliabilityCount = reliabilityCount(entry.sightings);
    ap.signalExponent = signalExponent(entry.sightings);
    records.push_back(ap);
  }
  // A fixed order, so the same store always gives the same file.
  std::sort(records.begin(), records.end(),
            [](const LocatedAccessPoint& a, const LocatedAccessPoint& b) { return a.mac < b.mac; });
  return records;
}

std::vector<unsigned char> LearnedStore::serialize() const {
  Writer w;
  w.bytes(kMagic, 4);
  w.u32(kVersion);
  unsigned char realmDigest[kMD4DigestSize];
  MD4(std::string(kMagic) + realm_, realmDigest);
  w.bytes(realmDigest, sizeof realmDigest);
  w.u32(static_cast<uint32_t>(entries_.size()));
  w.u32(static_cast<uint32_t>(ignoredUntil_.size()));
  for (const auto& [id, entry] : entries_) {
    w.u64(id);
    w.u64(entry.tileKey);
    w.f64(entry.latitude);
    w.f64(entry.longitude);
    w.f64(entry.accuracy);
    w.u32(entry.sightings);
    w.u64(static_cast<uint64_t>(entry.lastSeenMs));
  }
  for (const auto& [id, until] : ignoredUntil_) {
    w.u64(id);
    w.u64(static_cast<uint64_t>(until));
  }
  unsigned char check[kMD4DigestSize];
  MD4(std::string(w.out().begin(), w.out().end()), check);
  w.bytes(check, sizeof check);
  return std::move(w.out());
}

bool LearnedStore::parse(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < 4 + 4 + kMD4DigestSize + 8 + kMD4DigestSize) return false;
  const size_t body = bytes.size() - kMD4DigestSize;
  if (cmpMD4Hash(std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(body)), bytes.data() + body) !=
      0) {
    return false;
  }
  Reader r(bytes, body);
  char magic[4];
  uint32_t version = 0, count = 0, ignoredCount = 0;
  unsigned char realmDigest[kMD4DigestSize];
  if (!r.bytes(magic, 4) || std::memcmp(magic, kMagic, 4) != 0 || !r.u32(version) || version != kVersion ||
      !r.bytes(realmDigest, sizeof realmDigest) || cmpMD4Hash(std::string(kMagic) + realm_, realmDigest) != 0 ||
      !r.u32(count) || !r.u32(ignoredCount) ||
      r.remaining() != uint64_t{count} * kEntryBytes + uint64_t{ignoredCount} * kIgnoredBytes) {
    return false;
  }
  std::unordered_map<uint64_t, Entry> entries;
  std::unordered_map<uint64_t, int64_t> ignored;
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t id = 0;
    Entry e;
    if (!r.u64(id) || !r.u64(e.tileKey) || !r.f64(e.latitude) || !r.f64(e.longitude) || !r.f64(e.accuracy) ||
        !r.u32(e.sightings) || !r.i64(e.lastSeenMs) || e.sightings == 0 ||
        positionProblem(e.latitude, e.longitude, e.accuracy) != nullptr) {
      return false;
    }
    entries[id] = e;
  }
  for (uint32_t i = 0; i < ignoredCount; ++i) {
    uint64_t id = 0;
    int64_t until = 0;
    if (!r.u64(id) || !r.i64(until)) return false;
    ignored[id] = until;
  }
  entries_ = std::move(entries);
  ignoredUntil_ = std::move(ignored);
  forgetLeastRecentlySeen();
  return true;
}

}  // namespace API
}  // namespace WPS
