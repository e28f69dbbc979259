#include "wps/api/location_cache.h"

#include <cstdint>

namespace WPS {
namespace API {

namespace {

// Tolerated number of differing MACs for a scan of `n` access points:
// ceil(n × 0.2) above three, none otherwise.
size_t tolerance(size_t n) { return n <= 3 ? 0 : (n + 4) / 5; }

// True when `entry`'s scan holds every MAC of `scan`.
bool less_equal_macs(const LocationCache::Scan& scan, const LocationCache::Entry& entry) {
  return scan <= entry.first;
}

}  // namespace

LocationCache::Entries::const_iterator LocationCache::find(const Scan& scan) const {
  const size_t n = scan.size();
  const size_t t = tolerance(n);
  const size_t smallest = n > t ? n - t : 0;
  const size_t largest = n + t;

  auto result = entries_.end();
  uint32_t best = UINT32_MAX;
  for (auto it = entries_.begin(); it != entries_.end() && best != 0; ++it) {
    const size_t size = it->first.size();
    if (size < smallest || size > largest) continue;
    const int d = SPI::distance(scan, it->first);
    if (d < 0) continue;
    const auto distance = static_cast<uint32_t>(d);
    if (distance > t || distance > best) continue;
    // Ties go to the newer entry.
    result = it;
    best = distance;
  }
  return result;
}

bool LocationCache::get(const Scan& scan, Location& out) const {
  auto it = find(scan);
  if (it == entries_.end()) return false;
  out = it->second;
  return true;
}

void LocationCache::add(const Scan& scan, const Location& location) {
  std::erase_if(entries_, [&scan](const Entry& entry) { return less_equal_macs(scan, entry); });
  while (entries_.size() > kCapacity - 1) entries_.pop_front();
  entries_.emplace_back(scan, location);
}

}  // namespace API
}  // namespace WPS
