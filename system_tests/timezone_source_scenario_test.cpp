// The real helper with no time-zone service configured (the default): zones
// come from the boundary data on the computer, and no service is asked.
#include <gtest/gtest.h>

#include <chrono>

#include "system_tests/helper_system.h"
#include "timezone/testing/built_boundary_file.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::HelperSystem;

std::chrono::milliseconds patience(std::chrono::milliseconds base) { return HelperSystem::timeout(base); }

HelperSystem::Options withoutTimezoneService() {
  HelperSystem::Options options;
  options.timeScale = 4;
  options.timezoneService = false;
  return options;
}

TEST(TimezoneSourceScenarioTest, WithoutAServiceTheBoundaryDataGivesTheZone) {
  ZONARA_NEED_BOUNDARY_DATA(data);
  HelperSystem system(withoutTimezoneService());
  ASSERT_TRUE(system.ok()) << system.error();
  ASSERT_FALSE(system.preferences().copyValue("TimezoneServiceURL"));
  ASSERT_TRUE(system.startHelper({{"ZONARA_TZ_DATA", data}})) << system.error();

  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_EQ(system.systemZone(), "Europe/Paris");
  EXPECT_EQ(system.logCount("time-zone boundary data: "), 1u) << system.helperLogFile();
  EXPECT_GE(system.logCount("timezone from the boundary data ("), 1u) << system.helperLogFile();
  EXPECT_EQ(system.logCount("urlString = "), 0u);
  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  EXPECT_EQ(system.notificationTexts().back(), "Zonara|Timezone changed to: Europe/Paris");
  // The description of the position makes a look-up of its own: also local.
  EXPECT_EQ(system.helperProperty("CurrentLocation"), "N48.8566, W2.3522 (Europe/Paris)");
  EXPECT_EQ(system.timezoneRequests(), 0u);
  EXPECT_EQ(system.stopHelper(), 0);
}

TEST(TimezoneSourceScenarioTest, WithoutServiceAndDataNoZoneIsAppliedAndTheLogSaysWhy) {
  HelperSystem system(withoutTimezoneService());
  ASSERT_TRUE(system.ok()) << system.error();
  ASSERT_TRUE(system.startHelper({{"ZONARA_TZ_DATA", system.root() + "/missing.dat"}})) << system.error();
  ASSERT_TRUE(system.waitForLog("foundtimezone for (", patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.logCount("ZONARA_TZ_DATA names " + system.root() + "/missing.dat"), 1u) << system.helperLogFile();
  EXPECT_GE(system.logCount("no time-zone boundary data and no TimezoneServiceURL"), 1u) << system.helperLogFile();
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.systemZone(), "UTC");
  EXPECT_EQ(system.timezoneRequests(), 0u);
  EXPECT_EQ(system.stopHelper(), 0);
}

}  // namespace
}  // namespace zonara
