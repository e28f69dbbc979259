// Soak run of the real helper: a few hundred network changes, each moving the
// system between Paris and Tokyo so every change applies a new zone, while
// the helper's resident set (VmRSS) and peak (VmHWM) are sampled.
//
//   helper_soak [CHANGES=300] [TIME_SCALE=40] [SAMPLE_EVERY=25]
//
// Needs to make a user and network namespace (as the fault and scenario tests
// do); prints one line per sample and a summary. Exit status 0 when every
// change was applied.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "system_tests/network_soak.h"

using namespace std::chrono_literals;
using zonara::testing::HelperSystem;

int main(int argc, char** argv) {
  if (!zonara::testing::NetworkNamespace::enterAtStart()) {
    std::fprintf(stderr, "helper_soak: cannot make a network namespace here\n");
    return 1;
  }
  const int changes = argc > 1 ? std::atoi(argv[1]) : 300;
  const double scale = argc > 2 ? std::atof(argv[2]) : 40;
  const int every = argc > 3 ? std::atoi(argv[3]) : 25;
  if (changes < 1 || scale < 1 || every < 1) {
    std::fprintf(stderr, "usage: helper_soak [CHANGES>=1] [TIME_SCALE>=1] [SAMPLE_EVERY>=1]\n");
    return 2;
  }

  HelperSystem::Options options;
  options.timeScale = scale;
  options.learnPlaces = false;  // two cities seconds apart, far faster than travel
  HelperSystem system(options);
  if (!system.ok() || !system.startHelper() || !system.waitForAppliedZones(1, 20s)) {
    std::fprintf(stderr, "helper_soak: the helper did not start: %s (log %s)\n", system.error().c_str(),
                 system.helperLogFile().c_str());
    return 1;
  }
  std::printf("%d network changes at time scale %g\n", changes, scale);
  std::printf("%8s %9s %12s %12s\n", "changes", "seconds", "VmRSS KiB", "VmHWM KiB");
  const zonara::testing::SoakResult result =
      zonara::testing::RunNetworkSoak(system, changes, every, 10s, [](const zonara::testing::SoakSample& s) {
        std::printf("%8d %9.1f %12ld %12ld\n", s.change, s.seconds, s.rssKiB, s.peakKiB);
        std::fflush(stdout);
      });
  if (!result.error.empty()) {
    std::fprintf(stderr, "helper_soak: %s (log %s)\n", result.error.c_str(), system.helperLogFile().c_str());
  }
  if (result.samples.size() >= 2) {
    const auto& first = result.samples.front();
    const auto& half = result.samples[result.samples.size() / 2];
    const auto& last = result.samples.back();
    std::printf("changes done: %d in %.1f s (%.0f ms each)\n", result.changes, last.seconds,
                result.changes ? 1000 * last.seconds / result.changes : 0.0);
    std::printf("VmRSS: start %ld KiB, half-way %ld KiB, end %ld KiB (second half %+ld KiB)\n", first.rssKiB,
                half.rssKiB, last.rssKiB, last.rssKiB - half.rssKiB);
    std::printf("peak RSS (VmHWM): %ld KiB\n", last.peakKiB);
  }
  (void)system.stopHelper();
  return result.error.empty() ? 0 : 1;
}
