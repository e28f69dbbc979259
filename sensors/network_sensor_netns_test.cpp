// The network sensor over real rtnetlink: the test process moves into a
// network namespace of its own (through a user namespace, so no privilege
// is needed) where a veth pair plays a wireless interface (v0, presented as
// wireless through a fake sysfs tree) and a wired one (v1).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/dynamic_store.h"
#include "platform/run_loop.h"
#include "platform/testing/network_namespace.h"
#include "platform/testing/system_log_capture.h"
#include "sensors/network_sensor.h"
#include "sensors/system_configuration_monitor.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

bool g_inNamespace = false;

void ip(const std::string& arguments) {
  const std::string command = "ip " + arguments;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

class RecordingCheck final : public LocationCheck {
 public:
  void performLocationCheck() override { times.push_back(Clock::get().now()); }
  std::vector<Clock::TimePoint> times;
};

class NetlinkNetworkSensorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!g_inNamespace) GTEST_SKIP() << "user and network namespaces are not available here";
    std::filesystem::create_directories(sysfs_ + "/class/net/v0");
    std::filesystem::create_directories(sysfs_ + "/class/net/v1");
    std::ofstream(sysfs_ + "/class/net/v0/uevent") << "DEVTYPE=wlan\nINTERFACE=v0\n";
    std::ofstream(sysfs_ + "/class/net/v1/uevent") << "INTERFACE=v1\n";
    ip("link add v0 type veth peer name v1");
    ip("link set v0 mode dormant");
  }
  void TearDown() override {
    sensor_.reset();
    monitor_.reset();
    if (g_inNamespace) (void)std::system("ip link del v0 2>/dev/null");
  }

  void start() {
    monitor_ = std::make_shared<CSystemConfigurationMonitor>(std::make_unique<NetlinkDynamicStore>(sysfs_), center_);
    sensor_ = std::make_unique<NetworkSensor>(monitor_, check_, center_);
    center_.addObserver(kSystemConfigurationMonitorNotification, [this](const Notification& n) {
      changes_.push_back(CSystemConfigurationMonitor::changedKeysFromNotification(n));
    });
  }

  // Waits for the next change notification and returns its keys.
  std::vector<std::string> nextChange() {
    const size_t seen = changes_.size();
    if (!RunLoop::main().runUntil([&] { return changes_.size() > seen; }, 3s)) return {};
    return changes_.back();
  }

  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  // The sensor's log lines are not part of these tests.
  testing::SystemLogCapture quiet_;
  testing::TempDir scratch_{"netns-"};
  const std::string sysfs_ = scratch_.file("sys");
  NotificationCenter center_;
  std::shared_ptr<CSystemConfigurationMonitor> monitor_;
  RecordingCheck check_;
  std::unique_ptr<NetworkSensor> sensor_;
  std::vector<std::vector<std::string>> changes_;
};

const std::string kAirPort = "State:/Network/Interface/v0/AirPort";
const std::string kWirelessLink = "State:/Network/Interface/v0/Link";
const std::string kWiredLink = "State:/Network/Interface/v1/Link";

TEST_F(NetlinkNetworkSensorTest, WirelessInterfaceJoiningANetworkAsksForOneCheck) {
  start();
  EXPECT_EQ(sensor_->airportInterface(), "v0");
  EXPECT_EQ(sensor_->ethernetInterface(), "v1");
  EXPECT_EQ(monitor_->interfaces(), (std::vector<std::string>{"v1", "v0"}));
  // Registered twice: still one pattern, one notification per change.
  monitor_->notifyForPattern(kAirPort);

  // Powered but without a network: busy.
  ip("link set v0 up");
  EXPECT_EQ(nextChange(), std::vector<std::string>{kAirPort});
  EXPECT_EQ(monitor_->valueForPattern(kAirPort),
            (PrefValue::Dictionary{{"Busy", PrefValue::integer(1)}, {"Power Status", PrefValue::integer(1)}}));
  EXPECT_TRUE(check_.times.empty());

  // The carrier comes (the peer goes up): the link turns active while the
  // wireless interface is still dormant (authenticating).
  ip("link set v1 up");
  std::vector<std::string> keys = nextChange();
  EXPECT_EQ(keys.front(), kWiredLink);
  EXPECT_EQ(monitor_->valueForPattern(kWirelessLink), (PrefValue::Dictionary{{"Active", PrefValue::boolean(true)}}));
  EXPECT_EQ(monitor_->valueForPattern(kAirPort),
            (PrefValue::Dictionary{{"Busy", PrefValue::integer(1)}, {"Power Status", PrefValue::integer(1)}}));
  EXPECT_TRUE(check_.times.empty());

  // Authenticated: operational state UP, one check after 1 s.
  const Clock::TimePoint before = Clock::get().now();
  ip("link set v0 state up");
  EXPECT_EQ(nextChange(), std::vector<std::string>{kAirPort});
  ASSERT_EQ(check_.times.size(), 1u);
  EXPECT_EQ(check_.times[0] - before, 1000ms);

  // Back to authenticating, then powered off: no checks.
  ip("link set v0 state dormant");
  EXPECT_EQ(nextChange(), std::vector<std::string>{kAirPort});
  ip("link set v0 down");
  EXPECT_EQ(nextChange().front(), kWiredLink);  // the peer loses its carrier first (lower index)
  EXPECT_EQ(check_.times.size(), 1u);
  EXPECT_EQ(monitor_->valueForPattern(kAirPort),
            (PrefValue::Dictionary{{"Busy", PrefValue::integer(0)}, {"Power Status", PrefValue::integer(0)}}));
}

TEST_F(NetlinkNetworkSensorTest, AWiredChangeFirstHidesTheWirelessOneBehindIt) {
  ip("link set v0 up");
  start();
  // Both changes land before the run loop looks: one notification whose
  // first key is the wired link.
  ip("link set v1 up");
  ip("link set v0 state up");
  std::vector<std::string> keys = nextChange();
  ASSERT_GE(keys.size(), 2u);
  EXPECT_EQ(keys[0], kWiredLink);
  EXPECT_NE(std::find(keys.begin(), keys.end(), kAirPort), keys.end());
  EXPECT_TRUE(check_.times.empty());
  EXPECT_EQ(monitor_->valueForPattern(kAirPort),
            (PrefValue::Dictionary{{"Busy", PrefValue::integer(0)}, {"Power Status", PrefValue::integer(1)}}));
}

// A VPN's tun device made after the wired link is no wired network: the veth
// keeps that role.
TEST_F(NetlinkNetworkSensorTest, AVpnInterfaceIsNotTakenForTheWiredOne) {
  ip("tuntap add dev tun5 mode tun");
  start();
  EXPECT_EQ(monitor_->interfaces(), (std::vector<std::string>{"v1", "v0", "tun5"}));
  EXPECT_EQ(sensor_->airportInterface(), "v0");
  EXPECT_EQ(sensor_->ethernetInterface(), "v1");
  ip("tuntap del dev tun5 mode tun");
}

// The wired interface joining a network (new addresses) is a reason to look;
// losing its addresses, or keeping them, is not.
TEST_F(NetlinkNetworkSensorTest, NewAddressesOnTheWiredInterfaceAskForOneCheck) {
  start();
  ip("link set v1 up");
  ip("addr add 10.9.8.7/24 dev v1");
  EXPECT_EQ(nextChange(), std::vector<std::string>{"State:/Network/Interface/v1/IPv4"});
  EXPECT_EQ(monitor_->valueForPattern("State:/Network/Interface/v1/IPv4"),
            (PrefValue::Dictionary{{"Addresses", PrefValue::array({PrefValue::string("10.9.8.7")})}}));
  EXPECT_EQ(check_.times.size(), 1u);

  ip("addr del 10.9.8.7/24 dev v1");
  EXPECT_EQ(nextChange(), std::vector<std::string>{"State:/Network/Interface/v1/IPv4"});
  EXPECT_EQ(check_.times.size(), 1u);

  // Another network: another address.
  ip("addr add 10.20.30.40/24 dev v1");
  EXPECT_EQ(nextChange(), std::vector<std::string>{"State:/Network/Interface/v1/IPv4"});
  EXPECT_EQ(check_.times.size(), 2u);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  // Before anything starts a thread.
  zonara::g_inNamespace = zonara::testing::enterNetworkNamespace();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
