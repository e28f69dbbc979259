// The VPN detector: its routing half over real rtnetlink inside a network
// namespace of the test program's own (a tun device and a veth pair with
// routes), its NetworkManager half against a stand-in on a private bus.
#include "platform/vpn_detector.h"

#include <gtest/gtest.h>
#include <linux/if_arp.h>

#include <future>

#include "platform/run_loop.h"
#include "platform/testing/fakes.h"
#include "platform/testing/network_namespace.h"
#include "platform/testing/system_log_capture.h"
#include "platform/testing/test_bus.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::runIp;

bool g_inNamespace = false;

TEST(VpnKindTest, KindsAndLinkTypes) {
  struct Case {
    const char* kind;
    unsigned type;
    const char* vpn;
  };
  const Case cases[] = {
      {"tun", ARPHRD_NONE, "tun"},        {"tun", ARPHRD_ETHER, "tun"},  // tap mode
      {"wireguard", ARPHRD_NONE, "wireguard"}, {"", ARPHRD_PPP, "ppp"},
      {"ppp", ARPHRD_PPP, "ppp"},          {"xfrm", ARPHRD_NONE, "ipsec"},
      {"vti", ARPHRD_TUNNEL, "ipsec"},     {"vti6", ARPHRD_TUNNEL6, "ipsec"},
      {"", ARPHRD_NONE, "tun"},            {"veth", ARPHRD_ETHER, ""},
      {"", ARPHRD_ETHER, ""},              {"bridge", ARPHRD_ETHER, ""},
      {"", ARPHRD_LOOPBACK, ""},           {"gre", ARPHRD_IPGRE, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(vpnKindOfInterface(c.kind, c.type), c.vpn) << c.kind << " " << c.type;
  }
}

// A wired link (veth, with an address and a gateway) and a tun device, both
// up; each case sets the routes.
class VpnRoutingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!g_inNamespace) GTEST_SKIP() << "user and network namespaces are not available here";
    ASSERT_TRUE(runIp("link add eth7 type veth peer name eth8"));
    ASSERT_TRUE(runIp("addr add 10.1.0.2/24 dev eth7"));
    ASSERT_TRUE(runIp("link set eth8 up") && runIp("link set eth7 up"));
    ASSERT_TRUE(runIp("tuntap add dev tun7 mode tun"));
    ASSERT_TRUE(runIp("addr add 10.8.0.2/24 dev tun7"));
    ASSERT_TRUE(runIp("link set tun7 up"));
  }
  void TearDown() override {
    if (!g_inNamespace) return;
    (void)runIp("rule del table 77");
    (void)runIp("link del eth7");
    (void)runIp("tuntap del dev tun7 mode tun");
  }
  testing::SystemLogCapture quiet_;
};

TEST_F(VpnRoutingTest, TheInterfaceOfTheDefaultRouteDecides) {
  struct Case {
    const char* name;
    std::vector<std::string> routes;  // `ip` arguments
    std::optional<std::string> vpn;
  };
  const Case cases[] = {
      {"no default route", {}, std::nullopt},
      {"default over the wired link", {"route add default via 10.1.0.1"}, std::nullopt},
      {"default over the tun device", {"route add default dev tun7"}, "tun7, a tun interface"},
      // A VPN that leaves the main table alone and takes every packet through
      // a rule and a table of its own (as WireGuard's set-up does).
      {"default over the tun device through a rule",
       {"route add default via 10.1.0.1", "route add default dev tun7 table 77", "rule add table 77"},
       "tun7, a tun interface"},
      // Only the VPN's own network over the tun device: no default route.
      {"split tunnel", {"route add default via 10.1.0.1", "route add 10.20.0.0/16 dev tun7"}, std::nullopt},
      {"IPv6 default over the tun device", {"-6 route add default dev tun7"}, "tun7, a tun interface"},
  };
  for (const Case& c : cases) {
    for (const std::string& route : c.routes) ASSERT_TRUE(runIp(route)) << c.name << ": ip " << route;
    EXPECT_EQ(LinuxVpnDetector::vpnCarryingDefaultRoute(), c.vpn) << c.name;
    LinuxVpnDetector withoutBus(nullptr);
    EXPECT_EQ(withoutBus.activeVpn(), c.vpn) << c.name;
    (void)runIp("rule del table 77");
    (void)runIp("route flush table 77");
    (void)runIp("route del default");
    (void)runIp("-6 route del default");
    (void)runIp("route del 10.20.0.0/16");
  }
}

// The stand-in NetworkManager on a private bus, and the detector's own
// connection. The detector's calls block, so they run on another thread
// while this one serves the stand-in.
class NetworkManagerVpnTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(testBus_.ok());
    std::string error;
    managerBus_ = DBusConnection::openAddress(testBus_.address(), &error);
    ASSERT_TRUE(managerBus_) << error;
    bus_ = DBusConnection::openAddress(testBus_.address(), &error);
    ASSERT_TRUE(bus_) << error;
  }

  std::optional<std::string> askDetector() {
    auto answer = std::async(std::launch::async, [this] { return LinuxVpnDetector::activeNetworkManagerVpn(*bus_); });
    EXPECT_TRUE(RunLoop::main().runUntil([&] { return answer.wait_for(0ms) == std::future_status::ready; }, 5s));
    return answer.get();
  }

  testing::TestBus testBus_;
  std::unique_ptr<DBusConnection> managerBus_;
  std::unique_ptr<DBusConnection> bus_;
  testing::SystemLogCapture quiet_;
};

TEST_F(NetworkManagerVpnTest, AnActivatedVpnConnectionCounts) {
  using Connection = testing::FakeNetworkManager::ActiveConnection;
  const Connection wired{"Wired connection 1", "802-3-ethernet", false, 2};
  struct Case {
    const char* name;
    std::vector<Connection> connections;
    std::optional<std::string> vpn;
  };
  const Case cases[] = {
      {"wired only", {wired}, std::nullopt},
      {"an activated VPN", {wired, {"Office", "vpn", true, 2}}, "NetworkManager VPN connection \"Office\""},
      {"a VPN still activating", {wired, {"Office", "vpn", true, 1}}, std::nullopt},
      {"WireGuard", {{"wg-home", "wireguard", false, 2}}, "NetworkManager VPN connection \"wg-home\""},
      {"nothing active", {}, std::nullopt},
  };
  for (const Case& c : cases) {
    testing::FakeNetworkManager manager(*managerBus_, c.connections);
    ASSERT_TRUE(manager.ok()) << c.name;
    EXPECT_EQ(askDetector(), c.vpn) << c.name;
  }
}

TEST_F(NetworkManagerVpnTest, WithoutNetworkManagerThereIsNoVpn) {
  EXPECT_EQ(askDetector(), std::nullopt);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  // Before anything starts a thread.
  zonara::g_inNamespace = zonara::testing::enterNetworkNamespace();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
