// A shortened soak run: many network changes in a row, each applying a new
// zone, must not make the helper's memory grow. bench/helper_soak runs the
// long version and prints the figures.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "platform/testing/sanitizer.h"
#include "system_tests/network_soak.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::HelperSystem;

// The sanitizer's quarantine holds freed memory for a while, so the resident
// set wanders more: fewer, slower changes under it.
constexpr int kChanges = testing::kAddressSanitizer ? 24 : 80;
constexpr long kAllowedGrowthKiB = (testing::kAddressSanitizer ? 24 : 6) * 1024;

TEST(SoakTest, ManyNetworkChangesDoNotMakeTheHelperGrow) {
  HelperSystem::Options options;
  options.timeScale = 40;
  options.learnPlaces = false;  // two cities seconds apart, far faster than travel
  HelperSystem system(options);
  if (!system.hasWirelessInterface()) GTEST_SKIP() << "no network namespace here: cannot change the network";
  ASSERT_TRUE(system.ok()) << system.error();
  ASSERT_TRUE(system.startHelper()) << system.error();
  ASSERT_TRUE(system.waitForAppliedZones(1, HelperSystem::timeout(15s))) << system.helperLogFile();

  const testing::SoakResult result =
      testing::RunNetworkSoak(system, kChanges, 4, HelperSystem::timeout(10s), [](const testing::SoakSample& s) {
        std::printf("change %3d  %6.1f s  VmRSS %6ld KiB  VmHWM %6ld KiB\n", s.change, s.seconds, s.rssKiB,
                    s.peakKiB);
      });
  ASSERT_EQ(result.error, "") << system.helperLogFile();
  ASSERT_EQ(result.changes, kChanges);
  ASSERT_GE(result.samples.size(), 4u);

  // The first half warms up (caches, buffers, the allocator's arenas); the
  // second half may not add more than a generous bound.
  const testing::SoakSample& half = result.samples[result.samples.size() / 2];
  const testing::SoakSample& last = result.samples.back();
  EXPECT_LT(last.rssKiB - half.rssKiB, kAllowedGrowthKiB)
      << "VmRSS " << half.rssKiB << " KiB after " << half.change << " changes, " << last.rssKiB << " KiB after "
      << last.change;
  EXPECT_LT(last.peakKiB - half.peakKiB, kAllowedGrowthKiB);
  RecordProperty("peak_rss_kib", static_cast<int>(last.peakKiB));
  EXPECT_EQ(system.appliedZones().size(), static_cast<size_t>(kChanges) + 1);
  EXPECT_EQ(system.stopHelper(), 0);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  return zonara::testing::NetworkNamespace::runTests(argc, argv, "the soak run is skipped");
}
