// The monitor and the network sensor over a scripted dynamic store.
#include "sensors/system_configuration_monitor.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/run_loop.h"
#include "platform/system_log.h"
#include "platform/testing/system_log_capture.h"
#include "sensors/network_sensor.h"
#include "wps/spi/simulated_clock.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

class FakeDynamicStore final : public DynamicStore {
 public:
  bool open(ChangeCallback callback) override {
    callback_ = std::move(callback);
    return !failOpen;
  }
  bool attach(RunLoop&) override { return !failAttach; }
  bool setNotificationKeys(const std::vector<std::string>& keys, const std::vector<std::string>& patterns) override {
    registrations.push_back(patterns);
    (void)keys;
    return !failKeys;
  }
  std::optional<PrefValue::Dictionary> copyValue(const std::string& key) override {
    auto it = values.find(key);
    if (it == values.end()) return std::nullopt;
    return it->second;
  }
  std::vector<std::string> interfaces() override { return names; }
  int errorCode() const override { return 42; }
  std::string errorString() const override { return "no store"; }

  void change(const std::vector<std::string>& keys) { callback_(keys); }

  bool failOpen = false, failAttach = false, failKeys = false;
  std::vector<std::vector<std::string>> registrations;
  std::map<std::string, PrefValue::Dictionary> values;
  std::vector<std::string> names;

 private:
  ChangeCallback callback_;
};

const std::string kWifi = "State:/Network/Interface/wlan0/AirPort";
const std::string kWifiLink = "State:/Network/Interface/wlan0/Link";
const std::string kWired = "State:/Network/Interface/eth0/Link";
const std::string kWiredIP = "State:/Network/Interface/eth0/IPv4";

PrefValue::Dictionary airport(int power, int busy) {
  return {{"Power Status", PrefValue::integer(power)}, {"Busy", PrefValue::integer(busy)}};
}

TEST(SystemConfigurationMonitor, FailuresRaiseTheirTexts) {
  NotificationCenter center;
  struct Case {
    void (*arrange)(FakeDynamicStore&);
    const char* text;
  } cases[] = {
      {[](FakeDynamicStore& s) { s.failOpen = true; },
       "-[CSystemConfigurationMonitor init] SCDynamicStoreCreate() failed (42, no store)."},
      {[](FakeDynamicStore& s) { s.failAttach = true; },
       "-[CSystemConfigurationMonitor init] SCDynamicStoreCreateRunLoopSource() failed (42, no store)."},
      {[](FakeDynamicStore& s) { s.failKeys = true; },
       "-[CSystemConfigurationMonitor test] SCDynamicStoreSetNotificationKeys() failed (42, no store)."},
  };
  for (const Case& c : cases) {
    auto store = std::make_unique<FakeDynamicStore>();
    c.arrange(*store);
    try {
      CSystemConfigurationMonitor monitor(std::move(store), center);
      monitor.notifyForPattern("x");
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), c.text);
    }
  }
}

TEST(SystemConfigurationMonitor, PatternsAreASetAndChangesArriveAsOneNotification) {
  NotificationCenter center;
  auto owned = std::make_unique<FakeDynamicStore>();
  FakeDynamicStore& store = *owned;
  CSystemConfigurationMonitor monitor(std::move(owned), center);
  monitor.notifyForPattern(kWifi);
  monitor.notifyForPattern(kWifi);
  ASSERT_EQ(store.registrations.size(), 2u);
  EXPECT_EQ(store.registrations[1], std::vector<std::string>{kWifi});

  std::vector<std::vector<std::string>> received;
  center.addObserver(kSystemConfigurationMonitorNotification, [&](const Notification& n) {
    EXPECT_EQ(n.object, &monitor);
    received.push_back(CSystemConfigurationMonitor::changedKeysFromNotification(n));
  });
  store.change({kWired, kWifi, kWifiLink});
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], (std::vector<std::string>{kWired, kWifi, kWifiLink}));
  EXPECT_FALSE(monitor.valueForPattern("State:/Network/Interface/none/Link"));
}

TEST(SystemConfigurationMonitor, SharedInstanceLivesWhileSomeoneHoldsIt) {
  NotificationCenter center;
  int made = 0;
  CSystemConfigurationMonitor::setStoreFactory(
      [&made] {
        ++made;
        return std::make_unique<FakeDynamicStore>();
      },
      &center);
  {
    std::shared_ptr<CSystemConfigurationMonitor> held = CSystemConfigurationMonitor::monitor();
    EXPECT_EQ(CSystemConfigurationMonitor::monitor(), held);
    EXPECT_EQ(made, 1);
  }
  (void)CSystemConfigurationMonitor::monitor();
  EXPECT_EQ(made, 2);
  CSystemConfigurationMonitor::setStoreFactory(nullptr);
}

// Records each location check with the virtual time it was asked at.
class RecordingCheck final : public LocationCheck {
 public:
  void performLocationCheck() override { times.push_back(Clock::get().now()); }
  std::vector<Clock::TimePoint> times;
};

class NetworkSensorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto owned = std::make_unique<FakeDynamicStore>();
    store_ = owned.get();
    store_->names = {"eth0", "wlan0"};
    store_->values[kWired] = {{"Active", PrefValue::boolean(true)}};
    store_->values[kWifiLink] = {{"Active", PrefValue::boolean(true)}};
    store_->values[kWifi] = airport(1, 1);
    monitor_ = std::make_shared<CSystemConfigurationMonitor>(std::move(owned), center_);
    sensor_ = std::make_unique<NetworkSensor>(monitor_, check_, center_);
  }
  testing::SystemLogCapture log_;
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  NotificationCenter center_;
  FakeDynamicStore* store_ = nullptr;
  std::shared_ptr<CSystemConfigurationMonitor> monitor_;
  RecordingCheck check_;
  std::unique_ptr<NetworkSensor> sensor_;
};

TEST_F(NetworkSensorTest, DiscoversTheWirelessAndWiredInterfacesAndWatchesTheirKeys) {
  EXPECT_EQ(sensor_->airportInterface(), "wlan0");
  EXPECT_EQ(sensor_->airportKey(), kWifi);
  EXPECT_EQ(sensor_->airportLinkKey(), kWifiLink);
  EXPECT_EQ(sensor_->ethernetInterface(), "eth0");
  EXPECT_EQ(sensor_->ethernetKey(), kWired);
  EXPECT_EQ(sensor_->ethernetIPKey(), kWiredIP);
  std::vector<std::string> patterns = store_->registrations.back();
  std::sort(patterns.begin(), patterns.end());
  EXPECT_EQ(patterns, (std::vector<std::string>{kWiredIP, kWired, kWifi, kWifiLink}));
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{"we found the ethernet network interface = eth0",
                                            "we found the airport network interface = wlan0"}));
}

TEST_F(NetworkSensorTest, OnlyAPoweredIdleWirelessInterfaceFirstInTheChangeAsksForACheckAfterOneSecond) {
  struct Case {
    const char* name;
    PrefValue::Dictionary value;
    std::vector<std::string> changed;
    bool checks;
  } cases[] = {
      {"powered and idle", airport(1, 0), {kWifi}, true},
      {"still busy", airport(1, 1), {kWifi}, false},
      {"powered off", airport(0, 0), {kWifi}, false},
      {"missing values count as 0", {}, {kWifi}, false},
      {"wired link first", airport(1, 0), {kWired, kWifi}, false},
      {"wireless link", airport(1, 0), {kWifiLink}, false},
      {"wireless first of several", airport(1, 0), {kWifi, kWired}, true},
  };
  for (const Case& c : cases) {
    check_.times.clear();
    store_->values[kWifi] = c.value;
    const Clock::TimePoint before = Clock::get().now();
    store_->change(c.changed);
    ASSERT_EQ(check_.times.size(), c.checks ? 1u : 0u) << c.name;
    if (c.checks) {
      EXPECT_EQ(check_.times[0] - before, 1000ms) << c.name;
    }
  }
  EXPECT_EQ(log_.last(),
            "NetworkSensor change detected, path = " + kWifi + ", change = {Busy = 0; Power Status = 1; }");
}

TEST(NetworkSensorDiscovery, TheLaterInterfaceWinsAndNothingIsFoundWithoutEntities) {
  NotificationCenter center;
  RecordingCheck check;
  auto owned = std::make_unique<FakeDynamicStore>();
  FakeDynamicStore& store = *owned;
  store.names = {"eth0", "eth1", "wlan0", "wlan1", "tun0"};
  for (const char* n : {"eth0", "eth1", "wlan0", "wlan1"})
    store.values[DynamicStore::interfaceEntityKey(n, "Link")] = {{"Active", PrefValue::boolean(false)}};
  store.values[DynamicStore::interfaceEntityKey("wlan0", "AirPort")] = airport(0, 0);
  store.values[DynamicStore::interfaceEntityKey("wlan1", "AirPort")] = airport(0, 0);
  auto monitor = std::make_shared<CSystemConfigurationMonitor>(std::move(owned), center);
  NetworkSensor sensor(monitor, check, center);
  EXPECT_EQ(sensor.airportInterface(), "wlan1");
  EXPECT_EQ(sensor.ethernetInterface(), "eth1");

  NotificationCenter otherCenter;
  auto empty = std::make_unique<FakeDynamicStore>();
  FakeDynamicStore& emptyStore = *empty;
  emptyStore.names = {"tun0"};
  NetworkSensor none(std::make_shared<CSystemConfigurationMonitor>(std::move(empty), otherCenter), check,
                     otherCenter);
  EXPECT_FALSE(none.airportInterface());
  EXPECT_FALSE(none.ethernetInterface());
  EXPECT_TRUE(emptyStore.registrations.empty());
}

}  // namespace
}  // namespace zonara
