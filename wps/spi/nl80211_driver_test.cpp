#include "wps/spi/nl80211_driver.h"

#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <cerrno>
#include <memory>

namespace WPS {
namespace SPI {
namespace {

TEST(Nl80211ChannelTest, FromFrequency) {
  struct Case {
    uint32_t mhz;
    uint16_t channel;
  };
  const Case cases[] = {
      {2412, 1},   {2437, 6},    {2472, 13},  {2484, 14}, {5180, 36}, {5825, 165}, {4920, 184}, {5955, 1},
      {6115, 33},  {5935, 2},    {58320, 1},  {60480, 2}, {0, 0},     {2400, 0},   {3000, 0},   {100000, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(nl80211::channelFromFrequency(c.mhz), c.channel) << c.mhz << " MHz";
}

std::vector<unsigned char> element(unsigned char id, const std::string& body) {
  std::string raw(1, static_cast<char>(id));
  raw += static_cast<char>(body.size());
  raw += body;
  return std::vector<unsigned char>(raw.begin(), raw.end());
}

std::vector<unsigned char> concat(std::initializer_list<std::vector<unsigned char>> parts) {
  std::vector<unsigned char> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(Nl80211InformationElementsTest, Ssid) {
  struct Case {
    const char* name;
    std::vector<unsigned char> elements;
    std::optional<std::string> ssid;
  };
  const Case cases[] = {
      {"first", concat({element(0, "Home"), element(1, "\x82\x84")}), "Home"},
      {"after_others", concat({element(1, "\x82\x84"), element(3, "\x06"), element(0, "Cafe Wifi")}), "Cafe Wifi"},
      {"hidden_empty", concat({element(0, ""), element(1, "\x82")}), ""},
      {"hidden_zero_bytes", element(0, std::string(5, '\0')), ""},
      {"none", concat({element(1, "\x82"), element(3, "\x06")}), std::nullopt},
      {"empty_block", {}, std::nullopt},
      {"truncated_ssid", {0, 10, 'a', 'b', 'c'}, std::nullopt},
      {"truncated_before_ssid", concat({element(1, "\x82"), {0x30, 40, 1, 2}, element(0, "late")}), std::nullopt},
      {"lone_id_byte", {0}, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(nl80211::ssidFromInformationElements(c.elements.data(), c.elements.size()), c.ssid);
  }
  EXPECT_EQ(nl80211::ssidFromInformationElements(nullptr, 0), std::nullopt);
}

struct MessageFree {
  void operator()(struct nl_msg* m) const { nlmsg_free(m); }
};
using Message = std::unique_ptr<struct nl_msg, MessageFree>;

const unsigned char kBssid[6] = {0x00, 0x12, 0xA3, 0xB4, 0xC5, 0xD6};

// A scan-result message as the kernel sends one per BSS.
struct Bss {
  std::optional<std::vector<unsigned char>> bssid{std::in_place, std::begin(kBssid), std::end(kBssid)};
  std::optional<int32_t> mbm;
  std::optional<uint8_t> unspec;
  std::optional<std::vector<unsigned char>> elements;
  std::optional<std::vector<unsigned char>> beaconElements;
  std::optional<uint32_t> frequency;
  std::optional<uint32_t> seenMsAgo;
  bool withBss = true;
};

Message build(const Bss& bss) {
  Message message(nlmsg_alloc());
  EXPECT_NE(genlmsg_put(message.get(), 0, 1, 30, 0, NLM_F_MULTI, NL80211_CMD_NEW_SCAN_RESULTS, 1), nullptr);
  EXPECT_EQ(nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, 3), 0);
  if (!bss.withBss) return message;
  struct nlattr* nest = nla_nest_start(message.get(), NL80211_ATTR_BSS);
  if (bss.bssid) nla_put(message.get(), NL80211_BSS_BSSID, static_cast<int>(bss.bssid->size()), bss.bssid->data());
  if (bss.frequency) nla_put_u32(message.get(), NL80211_BSS_FREQUENCY, *bss.frequency);
  if (bss.mbm) nla_put_u32(message.get(), NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(*bss.mbm));
  if (bss.unspec) nla_put_u8(message.get(), NL80211_BSS_SIGNAL_UNSPEC, *bss.unspec);
  if (bss.elements) {
    nla_put(message.get(), NL80211_BSS_INFORMATION_ELEMENTS, static_cast<int>(bss.elements->size()),
            bss.elements->data());
  }
  if (bss.beaconElements) {
    nla_put(message.get(), NL80211_BSS_BEACON_IES, static_cast<int>(bss.beaconElements->size()),
            bss.beaconElements->data());
  }
  if (bss.seenMsAgo) nla_put_u32(message.get(), NL80211_BSS_SEEN_MS_AGO, *bss.seenMsAgo);
  nla_nest_end(message.get(), nest);
  return message;
}

TEST(Nl80211ScanResultTest, ReadsEveryField) {
  Bss bss;
  bss.mbm = -6550;
  bss.elements = concat({element(0, "Home Net"), element(1, "\x82")});
  bss.frequency = 2437;
  bss.seenMsAgo = 1200;
  Message message = build(bss);
  ScanDictionary d;
  ASSERT_TRUE(nl80211::parseScanResult(message.get(), nl80211::kMaxAgeMilliseconds, d));
  EXPECT_EQ(d.bssid, (std::vector<unsigned char>(std::begin(kBssid), std::end(kBssid))));
  EXPECT_EQ(d.signal, -65);
  EXPECT_EQ(d.ssid, "Home Net");
  EXPECT_EQ(d.channel, 6);
  EXPECT_FALSE(d.noise.has_value());
}

TEST(Nl80211ScanResultTest, Variants) {
  struct Case {
    const char* name;
    Bss bss;
    bool kept;
    std::optional<int64_t> signal;
    std::optional<std::string> ssid;
    size_t bssidLength;
  };
  auto with = [](auto change) {
    Bss b;
    b.elements = element(0, "net");
    change(b);
    return b;
  };
  const Case cases[] = {
      {"percentage", with([](Bss& b) { b.unspec = 60; }), true, 60, "net", 6},
      {"dbm_preferred_over_percentage", with([](Bss& b) { b.mbm = -7100; b.unspec = 60; }), true, -71, "net", 6},
      {"missing_signal", with([](Bss&) {}), true, std::nullopt, "net", 6},
      {"hidden_ssid", with([](Bss& b) { b.mbm = -5000; b.elements = element(0, ""); }), true, -50, "", 6},
      {"truncated_elements", with([](Bss& b) { b.mbm = -5000; b.elements = std::vector<unsigned char>{0, 9, 'a'}; }),
       true, -50, std::nullopt, 6},
      {"no_elements", with([](Bss& b) { b.mbm = -5000; b.elements.reset(); }), true, -50, std::nullopt, 6},
      {"beacon_elements_when_no_probe_elements",
       with([](Bss& b) { b.elements.reset(); b.beaconElements = element(0, "beacon"); }), true, std::nullopt,
       "beacon", 6},
      {"short_bssid", with([](Bss& b) { b.bssid = std::vector<unsigned char>{1, 2, 3, 4, 5}; }), true,
       std::nullopt, "net", 5},
      {"no_bssid", with([](Bss& b) { b.bssid.reset(); }), true, std::nullopt, "net", 0},
      {"seen_at_the_limit", with([](Bss& b) { b.seenMsAgo = 15000; }), true, std::nullopt, "net", 6},
      {"stale", with([](Bss& b) { b.seenMsAgo = 15001; }), false, std::nullopt, std::nullopt, 0},
      {"no_bss", with([](Bss& b) { b.withBss = false; }), false, std::nullopt, std::nullopt, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Message message = build(c.bss);
    ScanDictionary d;
    ASSERT_EQ(nl80211::parseScanResult(message.get(), nl80211::kMaxAgeMilliseconds, d), c.kept);
    if (!c.kept) continue;
    EXPECT_EQ(d.signal, c.signal);
    EXPECT_EQ(d.ssid, c.ssid);
    EXPECT_EQ(d.bssid ? d.bssid->size() : 0u, c.bssidLength);
  }
}

TEST(Nl80211ScanResultTest, MalformedSignalAttributeRejectsTheEntry) {
  Message message(nlmsg_alloc());
  ASSERT_NE(genlmsg_put(message.get(), 0, 1, 30, 0, 0, NL80211_CMD_NEW_SCAN_RESULTS, 1), nullptr);
  struct nlattr* nest = nla_nest_start(message.get(), NL80211_ATTR_BSS);
  const unsigned char two[2] = {1, 2};
  nla_put(message.get(), NL80211_BSS_SIGNAL_MBM, 2, two);  // a u32 cut to 2 bytes
  nla_nest_end(message.get(), nest);
  ScanDictionary d;
  EXPECT_FALSE(nl80211::parseScanResult(message.get(), nl80211::kMaxAgeMilliseconds, d));
}

TEST(Nl80211InterfaceTest, ParsesInterfaceMessages) {
  Message message(nlmsg_alloc());
  ASSERT_NE(genlmsg_put(message.get(), 0, 1, 30, 0, 0, NL80211_CMD_NEW_INTERFACE, 1), nullptr);
  nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, 4);
  nla_put_string(message.get(), NL80211_ATTR_IFNAME, "wlan0");
  const unsigned char mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  nla_put(message.get(), NL80211_ATTR_MAC, 6, mac);
  nla_put_u32(message.get(), NL80211_ATTR_IFTYPE, NL80211_IFTYPE_STATION);
  nl80211::Interface interface;
  ASSERT_TRUE(nl80211::parseInterface(message.get(), interface));
  EXPECT_EQ(interface.index, 4u);
  EXPECT_EQ(interface.name, "wlan0");
  EXPECT_EQ(std::vector<unsigned char>(interface.mac, interface.mac + 6), std::vector<unsigned char>(mac, mac + 6));
  EXPECT_EQ(interface.type, static_cast<uint32_t>(NL80211_IFTYPE_STATION));

  Message noIndex(nlmsg_alloc());
  ASSERT_NE(genlmsg_put(noIndex.get(), 0, 1, 30, 0, 0, NL80211_CMD_NEW_INTERFACE, 1), nullptr);
  nla_put_string(noIndex.get(), NL80211_ATTR_IFNAME, "wlan1");
  EXPECT_FALSE(nl80211::parseInterface(noIndex.get(), interface));
}

// These machines have no Wi-Fi: the driver must say so and fail cleanly.
TEST(Nl80211DriverTest, FailsCleanlyWithoutWireless) {
  if (!Nl80211Driver::listStationInterfaces().empty()) GTEST_SKIP() << "this machine has Wi-Fi";
  Nl80211Driver driver;
  EXPECT_FALSE(driver.isAvailable());
  EXPECT_EQ(driver.attach(), ENODEV);
  unsigned char mac[6];
  EXPECT_EQ(driver.getCardInfo(mac), ENODEV);
  std::vector<ScanDictionary> entries;
  EXPECT_EQ(driver.scanDictionary(entries), ENODEV);
  std::vector<SplitScanRecord> records;
  EXPECT_EQ(driver.scanSplit(records), EOPNOTSUPP);
  driver.detach();
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
