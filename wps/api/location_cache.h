// Recent server answers, so that a scan much like a recent one can be
// answered without asking the server again.
//
// An entry pairs a scan (its access points) with the location found for it.
// Entries are kept oldest first, at most kCapacity of them; they do not expire
// by age.
//
// Thread safety: none of its own. The one process-wide instance is used under
// the library's lock.
#pragma once

#include <deque>
#include <utility>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

class LocationCache {
 public:
  using Scan = std::vector<SPI::ScannedAccessPoint>;
  using Entry = std::pair<Scan, Location>;
  using Entries = std::deque<Entry>;

  static constexpr size_t kCapacity = 50;

  // The entry that best matches `scan`, or end() when none is close enough.
  //
  // A scan of n access points tolerates t = 0 differing MACs when n <= 3, and
  // t = ceil(n / 5) otherwise. Only entries of n - t to n + t access points
  // whose distance (MACs in one scan but not the other) is at most t qualify;
  // the smallest distance wins, the newer entry on a tie, and the first exact
  // match (distance 0, oldest first) ends the search.
  [[nodiscard]] Entries::const_iterator find(const Scan& scan) const;

  // Copies the whole location of find(scan) into `out` and returns true; false
  // (with `out` untouched) when no entry qualifies.
  [[nodiscard]] bool get(const Scan& scan, Location& out) const;

  // Stores (scan, location) as the newest entry. Every entry whose scan holds
  // all the MACs of `scan` is dropped first (a newer, smaller scan replaces a
  // superset); then the oldest entries go until there is room.
  void add(const Scan& scan, const Location& location);

  [[nodiscard]] size_t size() const { return entries_.size(); }
  [[nodiscard]] Entries::const_iterator end() const { return entries_.end(); }
  [[nodiscard]] const Entries& entries() const { return entries_; }

 private:
  Entries entries_;
};

}  // namespace API
}  // namespace WPS
