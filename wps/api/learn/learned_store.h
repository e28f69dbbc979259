// What positioning servers taught the computer: the access points seen with a
// good server fix, each at the running mean of the fixes it was seen at, so
// that a return to a known place is located on the computer.
//
// Rules (`learn`):
//  - only a fix from a positioning server (either protocol) with an accuracy
//    of kMaxTeachingAccuracy metres or better teaches; a position found from
//    the IP address teaches nothing;
//  - only access points that pass the privacy filters (passesPrivacyFilters:
//    not hidden, no name ending in "_nomap", not locally administered);
//  - an access point seen again less than kSamePlaceMetres from its recorded
//    position moves to the running mean of its fixes (position and accuracy);
//    seen farther away it is dropped and ignored for kIgnoreMs (it moves: a
//    hotspot on a train, a phone);
//  - at most `capacity` access points; the least recently seen go first.
// Time comes from the library's clock (SPI::Time::now()).
//
// Privacy: nothing here holds a MAC address. An access point is known by its
// identity, a keyed hash of its MAC under the store's realm (a secret of the
// installation), and by its key in the tile of its position (tileSearchKey
// under the same realm: a keyed hash of the first four octets and the last
// two), which is all the tile file needs. Without the realm neither can be
// matched to a MAC.
//
// Serialised form (`serialize`/`parse`), all numbers little-endian:
//   "ZLRN", version (u32 = 1), MD4("ZLRN" + realm) (16 bytes),
//   entry count N (u32), ignored count M (u32),
//   N × { identity u64, tile key u64, latitude f64, longitude f64,
//         accuracy f64, sightings u32, last seen (ms since the epoch) i64 },
//   M × { identity u64, ignored until (ms since the epoch) i64 },
//   MD4 of every byte before it (16 bytes).
// `parse` refuses anything else (another realm, a short or altered file, an
// entry whose position fails the library's position check).
//
// Thread safety: none; the library serialises every use on its lock.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// True when an access point may be recorded or sent at all: a network name
// that is neither empty (hidden) nor ending in "_nomap", and a universally
// administered MAC (the locally administered bit marks phone hotspots and
// randomised addresses).
[[nodiscard]] bool passesPrivacyFilters(const SPI::ScannedAccessPoint& accessPoint);

class LearnedStore {
 public:
  static constexpr double kMaxTeachingAccuracy = 250.0;  // metres
  static constexpr double kSamePlaceMetres = 1000.0;
  static constexpr int64_t kIgnoreMs = int64_t{7} * 24 * 3600 * 1000;
  static constexpr size_t kCapacity = 20000;
  // Learned tiles are cells of this many degrees, with their origin fixed at
  // the cell's south-west corner (less one unit), so an access point's key in
  // its tile never depends on the other access points.
  static constexpr double kCellDegrees = 1.0;
  static constexpr unsigned kPrecisionCode = 7;

  struct Entry {
    uint64_t tileKey = 0;  // key in the tile of its cell (48 bits)
    double latitude = 0.0;
    double longitude = 0.0;
    double accuracy = 0.0;  // metres: the mean of the teaching fixes' accuracies
    uint32_t sightings = 0;
    int64_t lastSeenMs = 0;  // milliseconds since the epoch

    friend bool operator==(const Entry&, const Entry&) = default;
  };

  // `realm` must not be empty: it keys every hash the store holds.
  explicit LearnedStore(std::string realm, size_t capacity = kCapacity);

  // Learns from a server's fix for `scanned`. Returns the number of access
  // points recorded or moved (0 when the fix teaches nothing).
  size_t learn(const SPI::AccessPointList& scanned, const Location& fix);

  // The identity of a MAC under this store's realm.
  [[nodiscard]] uint64_t identity(const SPI::MAC& mac) const;
  // The entry of a MAC, or null (also while it is ignored).
  [[nodiscard]] const Entry* find(const SPI::MAC& mac) const;
  // True while a MAC is being ignored for having moved.
  [[nodiscard]] bool ignored(const SPI::MAC& mac) const;

  [[nodiscard]] size_t size() const { return entries_.size(); }
  [[nodiscard]] const std::unordered_map<uint64_t, Entry>& entries() const { return entries_; }
  // Groups of learned access points: cells of about a kilometre holding any,
  // neighbouring cells joined.
  [[nodiscard]] size_t places() const;
  // Forgets everything; returns the number of access points forgotten.
  size_t clear();

  // The located access points of the tile file: the tile key as the MAC
  // (written with an empty realm for the keys, the store's realm for the
  // trailer), the reliability count and signal exponent from the sightings.
  [[nodiscard]] std::vector<LocatedAccessPoint> tileRecords() const;
  // The tile origin (units of 2^-(kPrecisionCode + 11) degrees) of the cell
  // holding a position.
  static void cellOrigin(double latitude, double longitude, int32_t& originLatitude, int32_t& originLongitude);
  // Reliability count and signal exponent for an access point seen
  // `sightings` times (see docs/local-positioning.md).
  [[nodiscard]] static uint32_t reliabilityCount(uint32_t sightings);
  [[nodiscard]] static double signalExponent(uint32_t sightings);

  [[nodiscard]] std::vector<unsigned char> serialize() const;
  // Replaces the contents with a serialised store of the same realm; false
  // (contents unchanged) when the bytes are not one.
  [[nodiscard]] bool parse(const std::vector<unsigned char>& bytes);

  [[nodiscard]] const std::string& realm() const { return realm_; }

 private:
  void record(const SPI::MAC& mac, const Location& fix, int64_t nowMs);
  void forgetLeastRecentlySeen();
  void forgetExpiredIgnores(int64_t nowMs);

  std::string realm_;
  size_t capacity_;
  std::unordered_map<uint64_t, Entry> entries_;
  std::unordered_map<uint64_t, int64_t> ignoredUntil_;
};

}  // namespace API
}  // namespace WPS
