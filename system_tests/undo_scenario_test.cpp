// Taking a change back and asking first, with the real helper: the user
// presses the notification's buttons through the stand-in notification
// service (as a desktop reports them, with ActionInvoked), or runs
// `zonara undo`; the history and `zonara status` tell what happened.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "system_tests/helper_system.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::HelperSystem;

std::chrono::milliseconds patience(std::chrono::milliseconds base) { return HelperSystem::timeout(base); }

#define START_SYSTEM(system)                                   \
  ASSERT_TRUE((system).ok()) << (system).error();              \
  ASSERT_TRUE((system).startHelper()) << (system).error();     \
  ASSERT_TRUE((system).waitForHelperName(true, patience(10s))) \
      << (system).helperLogFile()

HelperSystem::Options scaled(double scale) {
  HelperSystem::Options options;
  options.timeScale = scale;
  return options;
}

std::string lastText(const HelperSystem& system) {
  const std::vector<std::string> texts = system.notificationTexts();
  return texts.empty() ? "" : texts.back();
}

// The computer leaves its network and joins one again in the same place.
void rejoin(HelperSystem& system) {
  const std::string searching = "path = State:/Network/Interface/zw0/AirPort, change = {Busy = 1;";
  const size_t seen = system.logCount(searching);
  ASSERT_TRUE(system.wirelessSearch());
  ASSERT_TRUE(system.waitForLog(searching, patience(5s), seen + 1)) << system.helperLogFile();
  ASSERT_TRUE(system.wirelessJoin());
}

// "Undo" on the notification sets the previous zone again; `zonara undo`
// then has nothing to undo; a new network lets the zone come back, which
// `zonara undo` takes back too. The history holds every step and
// `zonara status` the last one.
TEST(UndoScenarioTest, UndoFromTheNotificationAndFromTheTerminal) {
  HelperSystem system(scaled(5));
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();
  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  EXPECT_EQ(system.notifications().back().actionKeys, std::vector<std::string>{"undo"});
  EXPECT_EQ(system.notifications().back().actionLabels, std::vector<std::string>{"Undo"});

  std::string why;
  ASSERT_TRUE(system.pressNotificationAction("undo", &why)) << why;
  ASSERT_TRUE(system.waitForAppliedZones(2, patience(5s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), (std::vector<std::string>{"Europe/Paris", "UTC"}));
  EXPECT_EQ(system.systemZone(), "UTC");
  ASSERT_TRUE(system.waitForNotifications(3, patience(5s)));
  EXPECT_EQ(lastText(system), "Zonara|Timezone changed back to: UTC");
  EXPECT_FALSE(system.pressNotificationAction("undo"));  // answered: the service closed it

  HelperSystem::ProgramRun nothing = system.captureZonara({"undo"});
  EXPECT_EQ(nothing.status, 1) << nothing.err;
  EXPECT_EQ(nothing.err, "zonara: there is no time-zone change to undo\n");

  // A new preference makes the helper decide again on the same answer: the
  // undone zone stays undone.
  ASSERT_EQ(system.captureZonara({"set", "AskBeforeChange", "false"}).status, 0);
  ASSERT_TRUE(system.waitForLog("not setting Europe/Paris: the change to Europe/Paris was undone", patience(15s)))
      << system.helperLogFile();
  EXPECT_EQ(system.appliedZones().size(), 2u);

  if (system.hasWirelessInterface()) {
    rejoin(system);
    ASSERT_TRUE(system.waitForAppliedZones(3, patience(15s))) << system.helperLogFile();
    EXPECT_EQ(system.systemZone(), "Europe/Paris");
    HelperSystem::ProgramRun undone = system.captureZonara({"undo"});
    EXPECT_EQ(undone.status, 0) << undone.err;
    EXPECT_EQ(undone.out, "Time zone changed back to UTC\n");
    EXPECT_EQ(system.systemZone(), "UTC");
  }

  HelperSystem::ProgramRun status = system.captureZonara({"status"});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.out.find("Last position: 48.85660, 2.35220 (accuracy "), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("Zone found: Europe/Paris\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("Distance to the nearest border: "), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("Last decision: undone UTC\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("Reason: the user undid the change to Europe/Paris\n"), std::string::npos) << status.out;

  HelperSystem::ProgramRun history = system.captureZonara({"history"});
  EXPECT_EQ(history.status, 0) << history.err;
  std::ifstream file(system.historyFile());
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_EQ(history.out, text);
  EXPECT_NE(text.find("\t48.85660,2.35220\tEurope/Paris\t"), std::string::npos) << text;
  EXPECT_NE(text.find("\tapplied\t"), std::string::npos) << text;
  EXPECT_NE(text.find("\t-\t-\t-\tUTC\t-\tundone\tthe user undid the change to Europe/Paris\n"), std::string::npos)
      << text;
  EXPECT_EQ(system.stopHelper(), 0);

  // Without the helper there is nothing to undo.
  HelperSystem::ProgramRun stopped = system.captureZonara({"undo"});
  EXPECT_EQ(stopped.status, 3);
  EXPECT_EQ(stopped.err, "zonara: ZonaraHelper is not running; nothing to undo\n");
}

// With AskBeforeChange the helper asks; "Keep" leaves the zone alone until
// the network changes, when it asks again; "Change" applies it.
TEST(UndoScenarioTest, AskingFirstKeepThenChange) {
  HelperSystem system(scaled(5));
  system.preferences().setValue("AskBeforeChange", PrefValue::boolean(true));
  ASSERT_TRUE(system.preferences().synchronize());
  START_SYSTEM(system);
  const std::string question = "Zonara|Change time zone to Europe/Paris?";
  ASSERT_TRUE(HelperSystem::waitUntil([&] { return lastText(system) == question; }, patience(10s)))
      << system.helperLogFile();
  EXPECT_EQ(system.notifications().back().actionKeys, (std::vector<std::string>{"change", "keep"}));
  EXPECT_EQ(system.notifications().back().actionLabels, (std::vector<std::string>{"Change", "Keep"}));
  EXPECT_TRUE(system.appliedZones().empty());

  std::string why;
  if (system.hasWirelessInterface()) {
    ASSERT_TRUE(system.pressNotificationAction("keep", &why)) << why;
    ASSERT_TRUE(system.waitForLog("the user keeps the time zone instead of Europe/Paris", patience(5s)));
    const size_t shown = system.notifications().size();
    // Deciding again on the same answer (a preference written) asks nothing.
    ASSERT_EQ(system.captureZonara({"set", "AskBeforeChange", "true"}).status, 0);
    ASSERT_TRUE(system.waitForLog("not setting Europe/Paris: the user chose to keep", patience(15s)))
        << system.helperLogFile();
    EXPECT_EQ(system.notifications().size(), shown);
    rejoin(system);
    ASSERT_TRUE(system.waitForNotifications(shown + 1, patience(15s))) << system.helperLogFile();
    EXPECT_EQ(lastText(system), question);
    EXPECT_TRUE(system.appliedZones().empty());
  }
  ASSERT_TRUE(system.pressNotificationAction("change", &why)) << why;
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(5s))) << system.helperLogFile();
  EXPECT_EQ(system.systemZone(), "Europe/Paris");
  ASSERT_TRUE(HelperSystem::waitUntil(
      [&] { return lastText(system) == "Zonara|Timezone changed to: Europe/Paris"; }, patience(5s)));
  EXPECT_EQ(system.notifications().back().actionKeys, std::vector<std::string>{"undo"});
  EXPECT_EQ(system.stopHelper(), 0);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  return zonara::testing::NetworkNamespace::runTests(argc, argv, "the network-change steps are left out");
}
