// Scenarios of the whole system: the real helper process with private buses,
// a stand-in desktop notification service and logind, loopback positioning,
// time-zone and IP-location services, a scan file and a recording
// set-time-zone command (app/testing/helper_system.h).
#include <gtest/gtest.h>

#include <chrono>

#include "app/testing/helper_system.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::HelperSystem;
using Service = HelperSystem::Service;
using Clock = std::chrono::steady_clock;

std::chrono::milliseconds patience(std::chrono::milliseconds base) { return HelperSystem::timeout(base); }

const std::string kLaunched = "Zonara|Launched";
std::string changedTo(const std::string& zone) { return "Zonara|Timezone changed to: " + zone; }

// Start-up in real time: the silent refresh finds the position at once but
// tells no one; the first trigger comes 3.5 s after start and the aggregator's
// quiet period of 4 s follows, so the zone is applied no earlier than 7.5 s
// after start, exactly once, with one notification besides "Launched".
TEST(ScenarioTest, StartUpFindsTheZoneAfterTheQuietPeriodAndNotifiesOnce) {
  HelperSystem system;
  ASSERT_TRUE(system.ok()) << system.error();
  const auto started = Clock::now();
  ASSERT_TRUE(system.startHelper()) << system.error();
  ASSERT_TRUE(system.waitForHelperName(true, patience(10s)));

  // The silent refresh asks the positioning server; nothing is applied yet.
  ASSERT_TRUE(HelperSystem::waitUntil([&] { return system.positioningServer().countTo("/location") >= 1; },
                                      patience(7s)))
      << system.helperLogFile();
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.timezoneRequests(), 0u);

  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  const auto applied = Clock::now() - started;
  EXPECT_GE(applied, 7500ms);
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_EQ(system.systemZone(), "Europe/Paris");

  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  HelperSystem::sleepFor(500ms);  // a wrong extra message would be here by now
  EXPECT_EQ(system.notificationTexts(), (std::vector<std::string>{kLaunched, changedTo("Europe/Paris")}));
  EXPECT_EQ(system.helperProperty("DetectedTimezone"), "Europe/Paris");
  EXPECT_EQ(system.logCount("aggregator found telluroChanged"), 1u);
  EXPECT_EQ(system.stopHelper(), 0);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  // Before anything starts a thread.
  const bool isolated = zonara::testing::NetworkNamespace::enterAtStart();
  ::testing::InitGoogleTest(&argc, argv);
  if (!isolated) std::fprintf(stderr, "note: no network namespace here; network-change scenarios are skipped\n");
  return RUN_ALL_TESTS();
}
