#include "system_tests/network_soak.h"

namespace zonara::testing {

namespace {
const char* const kSeen = "NetworkSensor change detected, path = State:/Network/Interface/zw0/AirPort";
}  // namespace

bool RejoinNetwork(HelperSystem& system, std::chrono::milliseconds timeout) {
  const size_t before = system.logCount(kSeen);
  return system.wirelessSearch() && system.waitForLog(kSeen, timeout, before + 1) && system.wirelessJoin() &&
         system.waitForLog(kSeen, timeout, before + 2);
}

SoakResult RunNetworkSoak(HelperSystem& system, int changes, int sampleEvery, std::chrono::milliseconds perChange,
                          const std::function<void(const SoakSample&)>& onSample) {
  SoakResult result;
  const auto start = std::chrono::steady_clock::now();
  auto sample = [&](int done) {
    SoakSample s;
    s.change = done;
    s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    s.rssKiB = system.helper()->currentRssKiB().value_or(-1);
    s.peakKiB = system.helper()->peakRssKiB().value_or(-1);
    result.samples.push_back(s);
    if (onSample) onSample(s);
  };
  if (!system.helper() || !system.helper()->running()) {
    result.error = "the helper does not run";
    return result;
  }
  sample(0);
  const size_t applied = system.appliedZones().size();
  for (int i = 1; i <= changes; ++i) {
    system.travelTo(i % 2 == 1 ? "Tokyo" : "Paris");
    if (!RejoinNetwork(system, perChange)) {
      result.error = "change " + std::to_string(i) + ": the helper did not see the network change";
      return result;
    }
    if (!system.waitForAppliedZones(applied + static_cast<size_t>(i), perChange)) {
      result.error = "change " + std::to_string(i) + ": no zone applied";
      return result;
    }
    result.changes = i;
    if (i % sampleEvery == 0 || i == changes) sample(i);
    if (!system.helper()->running()) {
      result.error = "the helper ended";
      return result;
    }
  }
  return result;
}

}  // namespace zonara::testing
