// The tiling exchange over real HTTP on loopback: the request, the server's
// answer, the downloads and what they leave in the tiles directory.
#include "wps/api/tiling/tiling.h"

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <utility>

#include "wps/api/protocol/config.h"
#include "wps/api/protocol/location_client.h"
#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/testing/tile_dir.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {
namespace {

using testing::accessPointsAround;
using testing::FakePositioningServer;
using testing::scanOf;
using testing::TileDir;
using testing::tileFile;

const std::string kRealm = "test.realm";
constexpr int64_t kWaitMs = 10000;

// Records the tiling callback's calls and answers WPS_STOP at one of them.
struct CallbackRecorder {
  std::mutex mu;
  std::vector<std::pair<unsigned, unsigned>> calls;
  int stopAt = -1;  // tile number at which WPS_STOP is answered

  static WPS_Continuation call(void* arg, unsigned number, unsigned total) {
    auto* self = static_cast<CallbackRecorder*>(arg);
    std::lock_guard<std::mutex> lock(self->mu);
    self->calls.emplace_back(number, total);
    return static_cast<int>(number) == self->stopAt ? WPS_STOP : WPS_CONTINUE;
  }
  std::vector<std::pair<unsigned, unsigned>> recorded() {
    std::lock_guard<std::mutex> lock(mu);
    return calls;
  }
};

using Calls = std::vector<std::pair<unsigned, unsigned>>;

// The (MAC, age) of every access point element of a request; an element
// without an age gives -1.
std::vector<std::pair<std::string, long>> accessPointsOf(const std::string& body) {
  std::vector<std::pair<std::string, long>> out;
  const auto textOf = [](const std::string& element, const std::string& name) -> std::string {
    const size_t open = element.find("<" + name + ">");
    if (open == std::string::npos) return {};
    const size_t start = open + name.size() + 2;
    return element.substr(start, element.find("</" + name + ">", start) - start);
  };
  size_t at = 0;
  while ((at = body.find("<access-point>", at)) != std::string::npos) {
    const size_t end = body.find("</access-point>", at);
    const std::string element = body.substr(at, end - at);
    const std::string age = textOf(element, "age");
    out.emplace_back(textOf(element, "mac"), age.empty() ? -1 : std::stol(age));
    at = end;
  }
  return out;
}

TEST(ScanCacheTest, KeepsTheNewestReadingOfEachAccessPointWithinCapacity) {
  ScanCache::Limits limits;
  limits.capacity = 3;
  ScanCache cache(limits);
  const auto mac = [](uint64_t v) { return SPI::MAC::fromValue(v); };
  cache.add({{mac(1), -70, "", SPI::Time(100, 0)}, {mac(2), -71, "", SPI::Time(100, 0)}}, {});
  cache.add({{mac(1), -50, "", SPI::Time(200, 0)}, {mac(3), -72}}, {});
  EXPECT_EQ(cache.scanCount(), 2u);
  ASSERT_EQ(cache.accessPoints().size(), 3u);
  EXPECT_EQ(cache.accessPoints()[0].mac, mac(2));
  EXPECT_EQ(cache.accessPoints()[1].mac, mac(1));
  EXPECT_EQ(cache.accessPoints()[1].rssi, -50) << "the newer reading replaces the older";
  EXPECT_EQ(cache.accessPoints()[1].time.seconds, 200);
  EXPECT_NE(cache.accessPoints()[2].time.seconds, 0) << "an unknown scan time is stamped when cached";

  cache.add({{mac(4), -60, "", SPI::Time(300, 0)}}, {});
  ASSERT_EQ(cache.accessPoints().size(), 3u);
  EXPECT_EQ(cache.accessPoints()[0].mac, mac(1)) << "the oldest reading went";

  cache.clear();
  EXPECT_EQ(cache.scanCount(), 0u);
  EXPECT_TRUE(cache.accessPoints().empty());
}

class TilingExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LocationClient::getInstance().set_server_url(server_.url().c_str());
    SPI::XmlHttpRequest::setDefaultTimeouts(5000, 5000);
  }
  void TearDown() override {
    SPI::XmlHttpRequest::setDefaultTimeouts(0, 0);
    LocationClient::getInstance().set_server_url(nullptr);
  }

  std::unique_ptr<Tiling> makeTiling(unsigned long perSession, unsigned long total = 100 << 20) {
    TilingParameters parameters;
    parameters.directory = dir_.path();
    parameters.maxDataSizePerSession = perSession;
    parameters.maxDataSizeTotal = total;
    parameters.callback = &CallbackRecorder::call;
    parameters.callbackArg = &callback_;
    ScanCache::Limits limits;
    limits.maxScans = 3;
    limits.minAccessPoints = 3;
    return std::make_unique<Tiling>(SimpleAuthentication("user", kRealm), parameters, limits);
  }

  // Four look-ups of `scan`: the fourth goes past the three cached scans and
  // sends the request; waits until the session (with its downloads) ended.
  void runSession(Tiling& tiling, const std::vector<SPI::ScannedAccessPoint>& scan) {
    std::vector<LocatedAccessPoint> located;
    for (int i = 0; i < 4; ++i) tiling.get(scan, {}, located);
    ASSERT_TRUE(tiling.client().waitUntilIdle(kWaitMs));
  }

  // Adds a tile of `aps` to the server and returns its size.
  size_t serve(const std::string& id, const std::string& version, const std::vector<LocatedAccessPoint>& aps) {
    FakePositioningServer::Tile tile;
    tile.id = id;
    tile.version = version;
    tile.bytes = tileFile(aps, kRealm);
    const size_t size = tile.bytes.size();
    server_.addTile(std::move(tile));
    return size;
  }

  std::set<std::string> datFiles() const {
    std::set<std::string> out;
    for (const std::string& name : dir_.names()) {
      if (name.size() > 4 && name.substr(name.size() - 4) == ".dat") out.insert(name);
    }
    return out;
  }

  CallbackRecorder callback_;
  TileDir dir_;
  FakePositioningServer server_;
  const std::vector<LocatedAccessPoint> apsA_ = accessPointsAround(1, 30, 47.37, 8.54);
  const std::vector<LocatedAccessPoint> apsB_ = accessPointsAround(2, 30, 47.40, 8.50);
};

TEST_F(TilingExchangeTest, RequestCarriesTheCachedScansAccessPointsWithTheirAges) {
  SPI::LogCapture log("WPS.API.TilingClient");
  auto tiling = makeTiling(5000);
  std::vector<LocatedAccessPoint> located;
  // Four scans of overlapping access points, seen two seconds ago.
  const std::vector<std::vector<LocatedAccessPoint>> scans{
      {apsA_[0], apsA_[1]}, {apsA_[1], apsA_[2]}, {apsA_[3]}, {apsA_[0], apsA_[4]}};
  for (size_t i = 0; i < scans.size(); ++i) {
    tiling->get(scanOf(scans[i], 2000), {}, located);
    if (i < 3) {
      EXPECT_FALSE(tiling->client().busy()) << "no request before the fourth scan";
    }
  }
  ASSERT_TRUE(tiling->client().waitUntilIdle(kWaitMs));
  EXPECT_TRUE(log.contains("scan caches exceeded 3 scans, sending TilingRQ"));

  const auto requests = server_.requestsTo("/tiling");
  ASSERT_EQ(requests.size(), 1u);
  const std::string& body = requests[0].body;
  EXPECT_NE(body.find("<TilingRQ "), std::string::npos);
  EXPECT_NE(body.find(" maxSize='5000'"), std::string::npos);
  EXPECT_NE(body.find("<username>user</username><realm>test.realm</realm>"), std::string::npos);

  std::set<std::string> sent;
  for (const auto& [mac, age] : accessPointsOf(body)) {
    EXPECT_TRUE(sent.insert(mac).second) << "each access point once";
    EXPECT_GE(age, 2000);
    EXPECT_LT(age, 2000 + kWaitMs);
  }
  std::set<std::string> expected;
  for (int i = 0; i < 5; ++i) expected.insert(apsA_[i].mac.toString());
  EXPECT_EQ(sent, expected);

  // The cache starts over: three more scans send nothing.
  for (int i = 0; i < 3; ++i) tiling->get(scanOf(scans[0]), {}, located);
  EXPECT_FALSE(tiling->client().busy());
  EXPECT_EQ(server_.countTo("/tiling"), 1u);
}

TEST_F(TilingExchangeTest, NoRequestWithoutADataAllowanceOrWithTooFewAccessPoints) {
  struct Case {
    const char* name;
    unsigned long perSession;
    std::vector<LocatedAccessPoint> scan;
    std::string message;
  };
  const std::vector<Case> cases{
      {"no allowance", 0, {apsA_[0], apsA_[1], apsA_[2]}, "_maxDataSizePerSession 0 <= 0, TilingRQ will not be sent."},
      {"two access points", 1000, {apsA_[0], apsA_[1]}, "2 aps are not enough to send TilingRQ"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SPI::LogCapture log("WPS.API.TilingClient");
    auto tiling = makeTiling(c.perSession);
    runSession(*tiling, scanOf(c.scan));
    EXPECT_TRUE(log.contains(c.message));
    EXPECT_FALSE(log.containsFragment("sending TilingRQ"));
  }
  EXPECT_EQ(server_.countTo("/tiling"), 0u);
}

TEST_F(TilingExchangeTest, WithoutAServerTheScansWaitInTheCache) {
  LocationClient::getInstance().set_server_url("");
  auto tiling = makeTiling(1 << 20);
  std::vector<LocatedAccessPoint> located;
  for (int i = 0; i < 5; ++i) tiling->get(scanOf(apsA_), {}, located);
  EXPECT_FALSE(tiling->client().busy());
  EXPECT_EQ(tiling->client().cachedScans(), 5u);

  LocationClient::getInstance().set_server_url(server_.url().c_str());
  runSession(*tiling, scanOf(apsA_));
  EXPECT_EQ(server_.countTo("/tiling"), 1u);
  EXPECT_EQ(tiling->client().cachedScans(), 3u) << "one request, then three new scans";
}

TEST_F(TilingExchangeTest, ServersFirstTileBecomesMainTileAndNewTilesAreDownloadedAndUsed) {
  serve("A", "1", apsA_);
  serve("B", "2", apsB_);
  server_.setOfferedTiles({"B_2", "A_1"});
  SPI::LogCapture log("WPS.API.Tiling");
  auto tiling = makeTiling(1 << 20);
  runSession(*tiling, scanOf(apsA_));

  EXPECT_EQ(tiling->mainTile(), "B");
  EXPECT_TRUE(log.contains("location server returned 2 tiles"));
  EXPECT_TRUE(log.contains("switching to main tile B as suggested by server, was unknown"));
  EXPECT_TRUE(log.contains("queued 2 tiles to download"));
  EXPECT_TRUE(log.containsFragment("tile B_2 successfully saved as " + dir_.file("B_2.dat") + " ("));
  EXPECT_EQ(datFiles(), (std::set<std::string>{"A_1.dat", "B_2.dat"}));
  EXPECT_EQ(callback_.recorded(), (Calls{{0, 2}, {1, 2}, {2, 2}}));
  const auto downloads = server_.http().requests();
  ASSERT_EQ(server_.downloadCount(), 2u);
  EXPECT_EQ(downloads[1].target, "/tiles/B_2/tiling") << "downloads follow the server's order";

  // In the same session the new tiles answer.
  std::vector<LocatedAccessPoint> located;
  tiling->get(scanOf({apsA_[0], apsA_[1], apsA_[2]}), {}, located);
  EXPECT_EQ(located.size(), 3u);
  EXPECT_TRUE(log.contains("most macs were found in tile A (main tile is B)"));

  // A second exchange offers nothing new.
  runSession(*tiling, scanOf(apsB_));
  EXPECT_TRUE(log.contains("main tile remains B"));
  EXPECT_TRUE(log.contains("no new tiles to download"));
  EXPECT_EQ(server_.downloadCount(), 2u);

  // After a restart the files are found and used again.
  tiling.reset();
  tiling = makeTiling(1 << 20);
  located.clear();
  tiling->get(scanOf({apsB_[5], apsB_[6], apsB_[7]}), {}, located);
  ASSERT_EQ(located.size(), 3u);
  EXPECT_NEAR(located[0].latitude, apsB_[5].latitude, 1e-4);
}

TEST_F(TilingExchangeTest, NewerRevisionReplacesTheHeldTile) {
  dir_.write("A_1.dat", tileFile(apsA_, kRealm));
  serve("A", "1", apsA_);
  serve("A", "2", apsB_);
  server_.setOfferedTiles({"A_1", "A_2"});
  auto tiling = makeTiling(1 << 20);
  runSession(*tiling, scanOf(apsA_));
  EXPECT_EQ(server_.downloadCount(), 1u) << "the held revision is not fetched again";
  EXPECT_EQ(datFiles(), std::set<std::string>{"A_2.dat"});
  std::vector<LocatedAccessPoint> located;
  tiling->get(scanOf({apsB_[0]}), {}, located);
  EXPECT_EQ(located.size(), 1u);
}

TEST_F(TilingExchangeTest, CallbackStopsTheDownloads) {
  struct Case {
    int stopAt;
    size_t downloads;
    Calls calls;
  };
  for (const Case& c : std::vector<Case>{{0, 0, {{0, 3}}}, {1, 1, {{0, 3}, {1, 3}}}, {-1, 3, {{0, 3}, {1, 3}, {2, 3}, {3, 3}}}}) {
    SCOPED_TRACE(c.stopAt);
    TileDir dir;
    FakePositioningServer server;
    LocationClient::getInstance().set_server_url(server.url().c_str());
    for (int i = 0; i < 3; ++i) {
      FakePositioningServer::Tile tile{"T" + std::to_string(i), "1", tileFile(accessPointsAround(i, 10, 1.0, 1.0), kRealm)};
      server.addTile(std::move(tile));
    }
    CallbackRecorder recorder;
    recorder.stopAt = c.stopAt;
    TilingParameters parameters{dir.path(), 1 << 20, 1 << 20, &CallbackRecorder::call, &recorder};
    SPI::LogCapture log("WPS.API.Tiling");
    Tiling tiling(SimpleAuthentication("user", kRealm), parameters, {3, 3, 100});
    runSession(tiling, scanOf(apsA_));

    EXPECT_EQ(server.downloadCount(), c.downloads);
    EXPECT_EQ(dir.names().size(), c.downloads);
    EXPECT_EQ(recorder.recorded(), c.calls);
    EXPECT_EQ(log.contains("WPS_TilingCallback returned WPS_STOP before downloading the first tile"), c.stopAt == 0);
  }
}

TEST_F(TilingExchangeTest, PerSessionLimitStopsTheDownloadsPartWay) {
  // Four tiles of the same size; the allowance holds two and a half.
  const auto aps = accessPointsAround(7, 30, 1.0, 1.0);
  size_t size = 0;
  for (const char* id : {"T1", "T2", "T3", "T4"}) size = serve(id, "1", aps);
  SPI::LogCapture log("WPS.API.FileDownloadQueue");
  auto tiling = makeTiling(static_cast<unsigned long>(size * 5 / 2));
  runSession(*tiling, scanOf(apsA_));

  EXPECT_EQ(datFiles(), (std::set<std::string>{"T1_1.dat", "T2_1.dat"}));
  EXPECT_EQ(server_.downloadCount(), 3u) << "the fourth tile is never asked for";
  EXPECT_TRUE(log.containsFragment("per-session limit of " + std::to_string(size * 5 / 2) + " bytes reached"));
  EXPECT_EQ(callback_.recorded(), (Calls{{0, 4}, {1, 4}, {2, 4}}));
}

// A server that sends a 50 MB "tile": the download stops once the body
// outgrows what the session has left, instead of holding 50 MB first; the
// session ends cleanly and the next session with a sane server works.
TEST_F(TilingExchangeTest, OversizedTileIsStoppedWhileArrivingAndLeavesNothing) {
  FakePositioningServer::Tile huge{"H", "1", ""};
  huge.streamedBytes = 50ull << 20;
  server_.addTile(huge);
  serve("D", "1", apsA_);
  SPI::LogCapture log("WPS.API.FileDownloadQueue");
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  auto tiling = makeTiling(1 << 20);
  runSession(*tiling, scanOf(apsA_));
  rusage after{};
  getrusage(RUSAGE_SELF, &after);

  EXPECT_TRUE(log.containsFragment("per-session limit of 1048576 bytes reached, tile H_1 (larger than the 1048576"));
  EXPECT_TRUE(dir_.names().empty()) << "nothing kept of the oversized tile";
  EXPECT_EQ(server_.downloadCount(), 1u) << "the session ends at the oversized tile";
  // Peak memory may not grow by anything near the 50 MB that were offered.
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 24 * 1024) << "KiB";

  server_.setOfferedTiles({"D_1"});
  runSession(*tiling, scanOf(apsA_));
  EXPECT_EQ(datFiles(), std::set<std::string>{"D_1.dat"});
}

TEST_F(TilingExchangeTest, FailedOrTimedOutDownloadLeavesNoFileBehind) {
  SPI::XmlHttpRequest::setDefaultTimeouts(2000, 300);
  FakePositioningServer::Tile missing{"A", "1", "", 404};
  FakePositioningServer::Tile slow{"B", "1", tileFile(apsB_, kRealm)};
  slow.delay = std::chrono::milliseconds(5000);
  FakePositioningServer::Tile broken{"C", "1", "WPS2 but nothing a tile needs"};
  server_.addTile(missing);
  server_.addTile(slow);
  server_.addTile(broken);
  serve("D", "1", apsA_);
  SPI::LogCapture queueLog("WPS.API.FileDownloadQueue");
  SPI::LogCapture collectionLog("WPS.API.TileCollection");
  auto tiling = makeTiling(1 << 20);
  runSession(*tiling, scanOf(apsA_));

  EXPECT_EQ(dir_.names(), std::set<std::string>{"D_1.dat"}) << "no partial or temporary file";
  EXPECT_TRUE(queueLog.contains("failed to download tile A_1: 404"));
  EXPECT_TRUE(queueLog.contains("failed to download tile B_1: " + std::to_string(SPI::XmlHttpRequest::kETIMEDOUT)));
  EXPECT_TRUE(collectionLog.contains("failed to open " + dir_.file("C_1.dat") + ", deleting the file..."));
  EXPECT_EQ(callback_.recorded(), (Calls{{0, 4}, {1, 4}, {2, 4}, {3, 4}, {4, 4}}));
  std::vector<LocatedAccessPoint> located;
  tiling->get(scanOf({apsA_[0]}), {}, located);
  EXPECT_EQ(located.size(), 1u);
}

TEST_F(TilingExchangeTest, BadAnswersEndTheSession) {
  struct Case {
    const char* name;
    std::string body;
    int status;
    std::string category;
    std::string message;
  };
  const std::string ns = kProtocolNamespace;
  for (const Case& c : std::vector<Case>{
           {"not XML", "garbage", 200, "WPS.API.TilingClient", "failed to parse TilingRS"},
           {"error", "<TilingRS xmlns='" + ns + "'><error/></TilingRS>", 200, "WPS.API.TilingClient",
            "failed to parse TilingRS"},
           {"status", "", 500, "WPS.API.TilingClient", "failed to send TilingRQ: 500"},
           {"unsafe name",
            "<TilingRS xmlns='" + ns + "'><tile id='../evil' version='1'><url>" + server_.http().url("/tiles/x") +
                "</url></tile></TilingRS>",
            200, "WPS.API.Tiling", "tile ../evil_1 cannot be stored under its name, ignored"}}) {
    SCOPED_TRACE(c.name);
    server_.setTilingReply(c.body, c.status);
    SPI::LogCapture log(c.category);
    auto tiling = makeTiling(1 << 20);
    runSession(*tiling, scanOf(apsA_));
    EXPECT_TRUE(log.contains(c.message));
    EXPECT_FALSE(tiling->client().busy());
  }
  EXPECT_EQ(server_.downloadCount(), 0u);
  EXPECT_TRUE(dir_.names().empty());
}

TEST_F(TilingExchangeTest, DestroyingTilingDuringADownloadAbortsIt) {
  FakePositioningServer::Tile slow{"S", "1", tileFile(apsB_, kRealm)};
  slow.delay = std::chrono::milliseconds(5000);
  server_.addTile(slow);
  auto tiling = makeTiling(1 << 20);
  std::vector<LocatedAccessPoint> located;
  for (int i = 0; i < 4; ++i) tiling->get(scanOf(apsA_), {}, located);
  ASSERT_TRUE(server_.http().waitForRequests(2, std::chrono::milliseconds(kWaitMs)));
  tiling.reset();  // must return promptly and leave nothing behind
  EXPECT_TRUE(dir_.names().empty());
}

// An answer listing 10,000 tiles, none of which the server has: the client
// takes the first 64, and every failed attempt counts against the session's
// allowance, so a small allowance stops the attempts sooner.
TEST_F(TilingExchangeTest, AnAnswerListingThousandsOfTilesStartsFewDownloads) {
  std::string body = "<TilingRS xmlns='" + std::string(kProtocolNamespace) + "'>";
  for (int i = 0; i < 10000; ++i) {
    const std::string id = "X" + std::to_string(i);
    body += "<tile id='" + id + "' version='1'><url>" + server_.http().url("/tiles/" + id + "_1") + "</url></tile>";
  }
  server_.setTilingReply(body + "</TilingRS>");
  struct Case {
    unsigned long allowance;
    size_t attempts;
    const char* message;
  } cases[] = {
      {1 << 20, TilingClient::kMaxTilesPerAnswer, "TilingRS lists 10000 tiles, only the first 64 are taken"},
      {5 * FileDownloadQueue::kFailedAttemptBytes, 5, "per-session limit of 20480 bytes reached, 59 tiles not downloaded"},
  };
  for (const Case& c : cases) {
    SPI::LogCapture clientLog("WPS.API.TilingClient");
    SPI::LogCapture queueLog("WPS.API.FileDownloadQueue");
    const size_t before = server_.downloadCount();
    auto tiling = makeTiling(c.allowance);
    runSession(*tiling, scanOf(apsA_));
    EXPECT_EQ(server_.downloadCount() - before, c.attempts) << c.allowance;
    EXPECT_TRUE(clientLog.contains(c.message) || queueLog.contains(c.message)) << c.message;
  }
  EXPECT_TRUE(dir_.names().empty());
}

TEST(TileUrlAllowedTest, OnlyTheServersHostUnlessAllowed) {
  struct Case {
    const char* url;
    const char* allowed;
    bool ok;
  } cases[] = {
      {"/tiles/A_1", "", true},
      {"https://wps.example.org/tiles/A_1", "", true},
      {"https://WPS.Example.org:8443/tiles/A_1", "", true},
      {"https://evil.example.net/tiles/A_1", "", false},
      {"https://wps.example.org.evil.example.net/A_1", "", false},
      {"https://wps.example.org@evil.example.net/A_1", "", false},
      {"https://evil.example.net/tiles/A_1", "cdn.example.org, Evil.Example.NET", true},
      {"https://other.example.net/tiles/A_1", "cdn.example.org,evil.example.net", false},
      {"https://other.example.net/tiles/A_1", "*", true},
      {"not a url://", "", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(tileUrlAllowed(c.url, "wps.example.org", c.allowed), c.ok) << c.url << " / " << c.allowed;
  }
}

// An absolute tile URL naming another host ("localhost" reaches the same
// loopback server under another name) is refused unless the program's
// preferences allow that host.
TEST_F(TilingExchangeTest, TilesFromAnotherHostNeedThePreference) {
  serve("D", "1", apsA_);
  std::string foreign = server_.http().url("/tiles/D_1");
  foreign.replace(foreign.find("127.0.0.1"), 9, "localhost");
  server_.setTilingReply("<TilingRS xmlns='" + std::string(kProtocolNamespace) + "'><tile id='D' version='1'><url>" +
                         foreign + "</url></tile></TilingRS>");
  TileDir config;
  const char* old = std::getenv("XDG_CONFIG_HOME");
  const std::string saved = old ? old : "";
  setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
  {
    SPI::LogCapture log("WPS.API.FileDownloadQueue");
    auto tiling = makeTiling(1 << 20);
    runSession(*tiling, scanOf(apsA_));
    EXPECT_TRUE(log.containsFragment("is not on the positioning server's host, refused"));
    EXPECT_EQ(server_.downloadCount(), 0u);
    EXPECT_TRUE(dir_.names().empty());
  }
  std::ofstream(config.file(SPI::Logger::applicationDomain() + ".plist"))
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" << kAllowedTileHostsKey
      << "</key><string>tiles.example.org, localhost</string></dict></plist>\n";
  {
    auto tiling = makeTiling(1 << 20);
    runSession(*tiling, scanOf(apsA_));
    EXPECT_EQ(server_.downloadCount(), 1u);
    EXPECT_EQ(dir_.names(), std::set<std::string>{"D_1.dat"});
  }
  if (old) {
    setenv("XDG_CONFIG_HOME", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CONFIG_HOME");
  }
}

}  // namespace
}  // namespace API
}  // namespace WPS
