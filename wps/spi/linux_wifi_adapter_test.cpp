#include "wps/spi/linux_wifi_adapter.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>

#include "wps/spi/log_capture.h"
#include "wps/spi/nl80211_driver.h"
#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace SPI {
namespace {

using namespace std::chrono_literals;

// What the fake driver returns and what it saw; owned by the test so it
// outlives the adapter (which owns the driver).
struct FakeState {
  std::mutex mu;
  std::condition_variable cv;

  int attachResult = 0;
  int cardInfoResult = 0;
  unsigned char card[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  unsigned kinds = WirelessDriver::SPLIT_SCAN;
  int splitResult = 0;
  std::vector<SplitScanRecord> split;
  int dictionaryResult = 0;
  std::vector<ScanDictionary> dictionary;

  // When set, getCardInfo / a scan waits until the test clears it.
  bool holdInfo = false;
  bool holdScan = false;

  int attaches = 0;
  int detaches = 0;
  int infos = 0;
  int scans = 0;  // scans entered

  // Waits (bounded) until `predicate` holds.
  template <typename P>
  bool waitUntil(P predicate) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, 5s, predicate);
  }
  template <typename F>
  void update(F change) {
    {
      std::lock_guard<std::mutex> lock(mu);
      change();
    }
    cv.notify_all();
  }
};

class FakeDriver final : public WirelessDriver {
 public:
  explicit FakeDriver(FakeState& state) : state_(state) {}
  const char* name() const override { return "fake"; }
  double version() const override { return 2.5; }
  bool isAvailable() override { return true; }
  int attach() override {
    std::lock_guard<std::mutex> lock(state_.mu);
    ++state_.attaches;
    return state_.attachResult;
  }
  void detach() override { state_.update([&] { ++state_.detaches; }); }
  int getCardInfo(unsigned char mac[6]) override {
    std::unique_lock<std::mutex> lock(state_.mu);
    ++state_.infos;
    state_.cv.notify_all();
    state_.cv.wait(lock, [&] { return !state_.holdInfo; });
    std::copy(state_.card, state_.card + 6, mac);
    return state_.cardInfoResult;
  }
  unsigned scanKinds() const override { return state_.kinds; }
  int scanSplit(std::vector<SplitScanRecord>& out) override {
    std::unique_lock<std::mutex> lock(state_.mu);
    ++state_.scans;
    state_.cv.notify_all();
    state_.cv.wait(lock, [&] { return !state_.holdScan; });
    out = state_.split;
    return state_.splitResult;
  }
  int scanDictionary(std::vector<ScanDictionary>& out) override {
    std::lock_guard<std::mutex> lock(state_.mu);
    if (!(state_.kinds & SPLIT_SCAN)) ++state_.scans;
    out = state_.dictionary;
    return state_.dictionaryResult;
  }

 private:
  FakeState& state_;
};

SplitScanRecord record(uint64_t bssid, int16_t signal, const std::string& ssid, uint16_t channel = 6,
                       int16_t noise = -92) {
  SplitScanRecord r;
  for (int i = 0; i < 6; ++i) r.bssid[i] = static_cast<unsigned char>(bssid >> (8 * (5 - i)));
  r.signal = signal;
  r.ssid = ssid;
  r.channel = channel;
  r.noise = noise;
  return r;
}

std::vector<unsigned char> bytesOf(uint64_t bssid) {
  std::vector<unsigned char> bytes(6);
  for (int i = 0; i < 6; ++i) bytes[i] = static_cast<unsigned char>(bssid >> (8 * (5 - i)));
  return bytes;
}

class LinuxWifiAdapterTest : public ::testing::Test {
 protected:
  LinuxWifiAdapterTest() : adapter_(std::make_unique<FakeDriver>(state_)) {}

  FakeState state_;
  LogCapture log_{"WPS.SPI.LinuxWifiAdapter"};
  LogCapture scannerLog_{"WPS.SPI.LinuxWifiAdapter.Scanner"};
  LinuxWifiAdapter adapter_;
};

TEST_F(LinuxWifiAdapterTest, OpenReadsTheCardAddressIntoTheDescription) {
  EXPECT_EQ(adapter_.description(), "");
  ASSERT_EQ(adapter_.open(), 0);
  EXPECT_EQ(adapter_.description(), "00:1a:2b:3c:4d:5e");
  EXPECT_TRUE(scannerLog_.contains(">>> EVENT_INFO"));
  EXPECT_TRUE(scannerLog_.contains("info = 00:1a:2b:3c:4d:5e"));
  EXPECT_TRUE(scannerLog_.contains("<<< EVENT_INFO"));
  EXPECT_TRUE(scannerLog_.contains("Wireless version 2.50"));
  struct utsname name;
  ASSERT_EQ(uname(&name), 0);
  EXPECT_EQ(LinuxWifiAdapter::osVersion(), name.release);
  EXPECT_TRUE(scannerLog_.contains(std::string("Linux version ") + name.release));
  // Opening again is harmless and starts no second thread.
  EXPECT_EQ(adapter_.open(), 0);
  EXPECT_EQ(state_.attaches, 1);
}

TEST_F(LinuxWifiAdapterTest, OpenWaitsUntilTheScannerThreadAnswers) {
  state_.holdInfo = true;
  std::atomic<bool> opened{false};
  std::thread opener([&] {
    EXPECT_EQ(adapter_.open(), 0);
    opened = true;
  });
  ASSERT_TRUE(state_.waitUntil([&] { return state_.infos == 1; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(opened);
  state_.update([&] { state_.holdInfo = false; });
  opener.join();
  EXPECT_TRUE(opened);
  EXPECT_EQ(adapter_.description(), "00:1a:2b:3c:4d:5e");
}

TEST_F(LinuxWifiAdapterTest, CardInfoFailureLeavesTheDescriptionEmpty) {
  state_.cardInfoResult = 0x2a;
  ASSERT_EQ(adapter_.open(), 0);
  EXPECT_EQ(adapter_.description(), "");
  EXPECT_TRUE(scannerLog_.contains("WirelessGetInfo failed: 2a"));
}

TEST_F(LinuxWifiAdapterTest, DriverThatCannotAttachFailsOpenAndLeavesTheAdapterClosed) {
  state_.attachResult = ENODEV;
  EXPECT_EQ(adapter_.open(), ENODEV);
  EXPECT_EQ(adapter_.startScan(), EBADF);
  adapter_.close();
  EXPECT_EQ(state_.detaches, 0);
  // The driver can attach later: the adapter opens then.
  state_.attachResult = 0;
  EXPECT_EQ(adapter_.open(), 0);
  EXPECT_EQ(state_.attaches, 2);
}

// Raw driver signal to RSSI, through the scan path.
TEST_F(LinuxWifiAdapterTest, SplitScanConvertsEveryRecord) {
  struct Case {
    int16_t signal;
    int16_t rssi;
  };
  const Case cases[] = {{0, -255}, {-70, -70}, {1, -103}, {10, -95}, {99, -11}, {100, -255}, {-1, -1}};
  uint64_t bssid = 0x0012A3B4C500;
  for (const Case& c : cases) state_.split.push_back(record(bssid++, c.signal, "net"));
  state_.split[0].ssid = "Home Net";
  state_.split[0].channel = 11;
  state_.split[0].noise = -95;

  SimulatedClock clock(Time(1700000000, 250));
  ScopedClock installed(clock);
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  ASSERT_EQ(aps.size(), std::size(cases));
  for (size_t i = 0; i < aps.size(); ++i) {
    SCOPED_TRACE(cases[i].signal);
    EXPECT_EQ(aps[i].rssi, cases[i].rssi);
    EXPECT_EQ(aps[i].mac.value(), 0x0012A3B4C500u + i);
    EXPECT_TRUE(aps[i].time == Time(1700000000, 250));
  }
  EXPECT_EQ(aps[0].mac.toString(), "0012A3B4C500");
  EXPECT_EQ(aps[0].ssid, "Home Net");
  EXPECT_EQ(aps[0].channel, 11);
  EXPECT_EQ(aps[0].noise, -95);
  EXPECT_TRUE(scannerLog_.contains("scanned 7 APs with WirelessScanSplit"));
  EXPECT_TRUE(scannerLog_.contains("MAC 0012A3B4C500 (Home Net); RSSI -255; channel: 11; noise: -95"));
  EXPECT_TRUE(scannerLog_.contains(">>> EVENT_SCAN"));
  EXPECT_TRUE(scannerLog_.contains("<<< EVENT_SCAN"));
}

TEST_F(LinuxWifiAdapterTest, ResultsAreHandedOutOnce) {
  state_.split = {record(1, -50, "a"), record(2, -60, "b")};
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  EXPECT_EQ(aps.size(), 2u);
  ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  EXPECT_TRUE(aps.empty());
}

TEST_F(LinuxWifiAdapterTest, StartScanDuringAScanReportsBusyAndTheRunningScanServes) {
  state_.split = {record(0x0012A3B4C5D6, -55, "running")};
  state_.holdScan = true;
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  ASSERT_TRUE(state_.waitUntil([&] { return state_.scans == 1; }));

  EXPECT_EQ(adapter_.startScan(), 0);
  EXPECT_TRUE(log_.contains("scanner busy"));

  // The collector waits for the running scan; release it a little later.
  std::thread releaser([&] {
    std::this_thread::sleep_for(30ms);
    state_.update([&] { state_.holdScan = false; });
  });
  AccessPointList aps;
  EXPECT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  releaser.join();
  ASSERT_EQ(aps.size(), 1u);
  EXPECT_EQ(aps[0].ssid, "running");
  EXPECT_EQ(state_.scans, 1);  // the busy request started no second scan
}

TEST_F(LinuxWifiAdapterTest, CollectingRightAfterStartScanWaitsForThatScan) {
  state_.split = {record(7, -40, "x")};
  ASSERT_EQ(adapter_.open(), 0);
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(adapter_.startScan(), 0);
    AccessPointList aps;
    ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);
    ASSERT_EQ(aps.size(), 1u) << "round " << round;
  }
}

TEST_F(LinuxWifiAdapterTest, FailedScanComesBackWithItsCode) {
  state_.splitResult = 0x1f;
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps = {ScannedAccessPoint(MAC::fromValue(42), -60)};
  EXPECT_EQ(adapter_.getScannedAccessPoints(aps), 0x1f);
  ASSERT_EQ(aps.size(), 1u);  // left as it was
  EXPECT_EQ(aps[0].mac.value(), 42u);
  EXPECT_TRUE(scannerLog_.contains("WirelessScanSplit failed: 1f"));
  EXPECT_TRUE(log_.contains("scanner thread failed: 1f"));

  // The next scan starts from a good status again.
  state_.update([&] {
    state_.splitResult = 0;
    state_.split = {record(9, -70, "ok")};
  });
  ASSERT_EQ(adapter_.startScan(), 0);
  EXPECT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  ASSERT_EQ(aps.size(), 1u);
  EXPECT_EQ(aps[0].ssid, "ok");
}

TEST_F(LinuxWifiAdapterTest, EmptyScansAreLoggedByKind) {
  state_.kinds = WirelessDriver::SPLIT_SCAN | WirelessDriver::DICTIONARY_SCAN;
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  EXPECT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  EXPECT_TRUE(aps.empty());
  EXPECT_TRUE(scannerLog_.contains("no AP found with WirelessScanSplit"));
  EXPECT_TRUE(scannerLog_.contains("no AP found with WirelessCreateScanResults"));
}

TEST_F(LinuxWifiAdapterTest, DictionaryScanValidatesEachEntry) {
  state_.kinds = WirelessDriver::DICTIONARY_SCAN;
  auto entry = [](std::optional<std::vector<unsigned char>> bssid, std::optional<int64_t> signal,
                  std::optional<std::string> ssid) {
    ScanDictionary d;
    d.bssid = std::move(bssid);
    d.signal = signal;
    d.ssid = std::move(ssid);
    return d;
  };
  ScanDictionary good = entry(bytesOf(0x1CA3B4C5D6E7), 99, "Cafe");
  good.channel = 36;
  good.noise = -90;
  state_.dictionary = {
      entry(std::nullopt, -50, "no bssid"),                        // 0: skipped
      entry(std::vector<unsigned char>(5, 1), -50, "short"),       // 1: skipped
      entry(bytesOf(0), -50, "zero"),                              // 2: skipped
      entry(bytesOf(0x1CA3B4C5D6E1), std::nullopt, "no signal"),   // kept, RSSI unknown
      entry(bytesOf(0x1CA3B4C5D6E2), 40000, "loud"),               // kept, RSSI unknown
      entry(bytesOf(0x1CA3B4C5D6E3), -61, std::nullopt),           // kept, empty SSID
      entry(bytesOf(0x1CA3B4C5D6E4), -62, std::string(33, 'x')),   // kept, empty SSID
      good,
  };
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);

  EXPECT_TRUE(scannerLog_.contains("scanned 8 APs with WirelessCreateScanResults"));
  EXPECT_TRUE(scannerLog_.contains("no BSSID data for scan result 0"));
  EXPECT_TRUE(scannerLog_.contains("BSSID length (5) != 6 for scan result 1"));
  EXPECT_TRUE(scannerLog_.contains("no BSSID for scan result 2"));
  EXPECT_TRUE(scannerLog_.contains("no signal for AP 1CA3B4C5D6E1"));
  EXPECT_TRUE(scannerLog_.contains("can't convert signal for AP 1CA3B4C5D6E2"));
  EXPECT_TRUE(scannerLog_.contains("no SSID data for AP 1CA3B4C5D6E3"));
  EXPECT_TRUE(scannerLog_.contains("CFStringGetCString failed for AP 1CA3B4C5D6E4"));

  ASSERT_EQ(aps.size(), 5u);
  EXPECT_EQ(aps[0].ssid, "no signal");
  EXPECT_EQ(aps[0].rssi, kUnknownRSSI);
  EXPECT_EQ(aps[1].rssi, kUnknownRSSI);
  EXPECT_EQ(aps[2].ssid, "");
  EXPECT_EQ(aps[2].rssi, -61);
  EXPECT_EQ(aps[3].ssid, "");
  EXPECT_EQ(aps[4].mac.toString(), "1CA3B4C5D6E7");
  EXPECT_EQ(aps[4].ssid, "Cafe");
  EXPECT_EQ(aps[4].rssi, -11);
  EXPECT_EQ(aps[4].channel, 36);
  EXPECT_EQ(aps[4].noise, -90);
}

TEST_F(LinuxWifiAdapterTest, BothScanKindsAreAppendedInOrder) {
  state_.kinds = WirelessDriver::SPLIT_SCAN | WirelessDriver::DICTIONARY_SCAN;
  state_.split = {record(0x111111111111, -40, "split")};
  ScanDictionary d;
  d.bssid = bytesOf(0x222222222222);
  d.signal = -45;
  d.ssid = "dictionary";
  state_.dictionary = {d};
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  ASSERT_EQ(adapter_.getScannedAccessPoints(aps), 0);
  ASSERT_EQ(aps.size(), 2u);
  EXPECT_EQ(aps[0].ssid, "split");
  EXPECT_EQ(aps[1].ssid, "dictionary");
}

TEST_F(LinuxWifiAdapterTest, FailedDictionaryScanComesBackWithItsCode) {
  state_.kinds = WirelessDriver::DICTIONARY_SCAN;
  state_.dictionaryResult = 5;
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  AccessPointList aps;
  EXPECT_EQ(adapter_.getScannedAccessPoints(aps), 5);
  EXPECT_TRUE(scannerLog_.contains("WirelessCreateScanResults failed: 5"));
  EXPECT_TRUE(log_.contains("scanner thread failed: 5"));
}

TEST_F(LinuxWifiAdapterTest, CloseStopsAndJoinsTheScannerThread) {
  ASSERT_EQ(adapter_.open(), 0);
  adapter_.close();
  // The scanner thread detaches the driver after leaving its loop; join has
  // waited for that.
  EXPECT_EQ(state_.detaches, 1);
  EXPECT_TRUE(scannerLog_.contains(">>> EVENT_STOP"));
  EXPECT_EQ(adapter_.startScan(), EBADF);
  adapter_.close();
  EXPECT_EQ(state_.detaches, 1);

  // A closed adapter opens again with a new thread.
  ASSERT_EQ(adapter_.open(), 0);
  EXPECT_EQ(state_.attaches, 2);
  EXPECT_EQ(state_.infos, 2);
}

TEST_F(LinuxWifiAdapterTest, CloseWaitsForARunningScan) {
  state_.holdScan = true;
  ASSERT_EQ(adapter_.open(), 0);
  ASSERT_EQ(adapter_.startScan(), 0);
  ASSERT_TRUE(state_.waitUntil([&] { return state_.scans == 1; }));
  std::thread releaser([&] {
    std::this_thread::sleep_for(30ms);
    state_.update([&] { state_.holdScan = false; });
  });
  adapter_.close();
  releaser.join();
  EXPECT_EQ(state_.detaches, 1);
}

TEST(LinuxWifiAdapterLifetimeTest, DestroyingAnOpenAdapterJoinsItsThread) {
  FakeState state;
  {
    LinuxWifiAdapter adapter(std::make_unique<FakeDriver>(state));
    ASSERT_EQ(adapter.open(), 0);
  }
  EXPECT_EQ(state.detaches, 1);
}

// enumerateAdapters chooses the driver from the environment.
class EnumerateAdaptersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* saved = std::getenv("WPS_SCAN_FILE");
    if (saved) saved_ = saved;
    hadValue_ = saved != nullptr;
  }
  void TearDown() override {
    if (hadValue_) {
      setenv("WPS_SCAN_FILE", saved_.c_str(), 1);
    } else {
      unsetenv("WPS_SCAN_FILE");
    }
  }
  std::string saved_;
  bool hadValue_ = false;
};

TEST_F(EnumerateAdaptersTest, ScanFileReplacesTheHardware) {
  const char* dir = std::getenv("ZONARA_TEST_TMPDIR");
  std::string path = std::string(dir ? dir : "/tmp") + "/enumerate.scan";
  {
    std::ofstream out(path);
    out << "00:12:A3:B4:C5:D6 -70 6 -95 First\n--\n00:12:A3:B4:C5:D7 40 1 0 Second\n";
  }
  setenv("WPS_SCAN_FILE", path.c_str(), 1);
  auto adapters = WifiAdapter::enumerateAdapters();
  ASSERT_EQ(adapters.size(), 1u);
  WifiAdapter& adapter = *adapters[0];
  ASSERT_EQ(adapter.open(), 0);
  EXPECT_EQ(adapter.description(), "02:00:00:00:00:00");
  std::vector<std::string> seen;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(adapter.startScan(), 0);
    AccessPointList aps;
    ASSERT_EQ(adapter.getScannedAccessPoints(aps), 0);
    ASSERT_EQ(aps.size(), 1u);
    seen.push_back(aps[0].mac.toString() + " " + std::to_string(aps[0].rssi) + " " + aps[0].ssid);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"0012A3B4C5D6 -70 First", "0012A3B4C5D7 -67 Second",
                                            "0012A3B4C5D7 -67 Second"}));
  adapter.close();
}

TEST_F(EnumerateAdaptersTest, MissingScanFileFailsOpen) {
  setenv("WPS_SCAN_FILE", "/nonexistent/zonara.scan", 1);
  auto adapters = WifiAdapter::enumerateAdapters();
  ASSERT_EQ(adapters.size(), 1u);
  EXPECT_EQ(adapters[0]->open(), ENOENT);
}

TEST_F(EnumerateAdaptersTest, NoWirelessWithoutScanFileOrCard) {
  if (!Nl80211Driver::listStationInterfaces().empty()) GTEST_SKIP() << "this machine has Wi-Fi";
  unsetenv("WPS_SCAN_FILE");
  LogCapture log("WPS.SPI.WifiAdapter");
  EXPECT_TRUE(WifiAdapter::enumerateAdapters().empty());
  EXPECT_TRUE(log.contains("No wireless available"));
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
