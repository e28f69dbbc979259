// wps-tool's location commands run as a user runs them: the built program,
// a scan file for the Wi-Fi, and a positioning server on loopback.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/testing/geolocation_server.h"
#include "wps/spi/testing/child_process.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

namespace fs = std::filesystem;
using testing::HttpRequest;
using testing::HttpResponse;
using testing::ChildProcess;
using testing::HttpTestServer;

fs::path binDir() { return fs::canonical("/proc/self/exe").parent_path().parent_path() / "bin"; }

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

std::string slurp(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class WpsToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_ / "config");
    std::ofstream(dir_ / "scans.txt") << "# three access points\n"
                                         "00:12:A3:B4:C5:D6 -60 6 -95 Home\n"
                                         "00:12:A3:B4:C5:D7 45 11 0 Cafe Net\n"
                                         "00:12:A3:B4:C5:D8 -80 1 0\n";
    WPS::API::LocatedAccessPoint where;
    where.latitude = 42.5;
    where.longitude = -71.25;
    positioning_.setLocation(where, 40, 3);
    positioning_.setIPLocation(WPS::API::testing::FakePositioningServer::IPLocation{"192.0.2.7", 35.5, 139.75});
  }

  // Runs wps-tool with `args`, WPS_SCAN_FILE set to `scanFile` and a private
  // configuration folder; waits for it to end.
  Result run(const std::vector<std::string>& args, const fs::path& scanFile) {
    const fs::path out = dir_ / "stdout";
    const fs::path err = dir_ / "stderr";
    std::vector<std::string> argv{(binDir() / "wps-tool").string()};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess::Options options;
    options.argv = argv;
    options.setEnvironment = {{"WPS_SCAN_FILE", scanFile.string()}, {"XDG_CONFIG_HOME", (dir_ / "config").string()}};
    options.unsetEnvironment = {"LOG4CPP_CONFIGURATION"};
    options.out = {ChildProcess::Output::File, out.string(), ""};
    options.err = {ChildProcess::Output::File, err.string(), ""};
    Result result;
    std::string error;
    auto child = ChildProcess::start(options, &error);
    EXPECT_TRUE(child) << error;
    if (child) result.status = child->waitFor(std::chrono::seconds(60)).value_or(-1);
    result.out = slurp(out);
    result.err = slurp(err);
    return result;
  }

  std::vector<std::string> serverOptions() const {
    return {"--server", positioning_.url(), "--user", "user", "--realm", "example.org"};
  }

  testing::TempDir scratch_{"wps-tool-"};
  const fs::path dir_ = scratch_.path();
  WPS::API::testing::FakePositioningServer positioning_;
  HttpTestServer& server_ = positioning_.http();
};

TEST_F(WpsToolTest, LocatePrintsThePosition) {
  auto args = serverOptions();
  args.insert(args.begin(), "locate");
  args.insert(args.end(), {"--lookup", "none", "--local-files", (dir_ / "tiles").string()});
  const Result r = run(args, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "42.500000 -71.250000 40.0 3\n");
  ASSERT_EQ(server_.requestCount(), 1u);
  const std::string body = server_.lastRequest()->body;
  for (const char* mac : {"0012A3B4C5D6", "0012A3B4C5D7", "0012A3B4C5D8"}) {
    EXPECT_NE(body.find(mac), std::string::npos) << mac;
  }
}

// With a tile file of the scanned access points and no server, the position
// is computed on the device.
TEST_F(WpsToolTest, LocateOnTheDeviceFromTileFiles) {
  fs::create_directories(dir_ / "tiles");
  std::ofstream(dir_ / "aps.csv") << "MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT\n"
                                     "00:12:A3:B4:C5:D6,48.8566,2.3522,40,0.5\n"
                                     "00:12:A3:B4:C5:D7,48.8570,2.3530,18,0.5\n"
                                     "00:12:A3:B4:C5:D8,48.8560,2.3515,30,0.5\n";
  Result r = run({"tile", "build", (dir_ / "aps.csv").string(), (dir_ / "tiles" / "paris.wps").string(), "--realm",
                  "example.org"},
                 dir_ / "scans.txt");
  ASSERT_EQ(r.status, 0) << r.err;

  r = run({"locate", "--no-network", "--user", "user", "--realm", "example.org", "--local-files",
           (dir_ / "tiles").string()},
          dir_ / "scans.txt");
  ASSERT_EQ(r.status, 0) << r.err;
  double latitude = 0, longitude = 0, hpe = 0;
  unsigned nap = 0;
  ASSERT_EQ(std::sscanf(r.out.c_str(), "%lf %lf %lf %u", &latitude, &longitude, &hpe, &nap), 4) << r.out;
  EXPECT_NEAR(latitude, 48.8566, 0.001);
  EXPECT_NEAR(longitude, 2.3522, 0.001);
  EXPECT_GT(hpe, 0);
  EXPECT_EQ(nap, 3u);
  EXPECT_EQ(server_.requestCount(), 0u);
}

// A server URL ending in /v1/geolocate speaks the geolocation JSON API.
TEST_F(WpsToolTest, LocateThroughTheGeolocationApi) {
  WPS::API::testing::GeolocationServer json;
  json.addAccessPoint("00:12:a3:b4:c5:d6", 52.5, 13.4);
  json.setIpLocation(std::make_pair(48.85, 2.35), 20000);
  Result r = run({"locate", "--server", json.url()}, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  // The access point without a name is hidden: two are sent.
  EXPECT_EQ(r.out, "52.500000 13.400000 30.0 2\n");

  r = run({"ip-locate", "--server", json.url()}, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "- 48.850000 2.350000\n");

  json.http().enqueue(
      HttpResponse(200, R"({"location": {"lat": 48.85, "lng": 2.35}, "accuracy": 20000, "fallback": "ipf"})"));
  r = run({"locate", "--server", json.url()}, dir_ / "scans.txt");
  EXPECT_EQ(r.out, "48.850000 2.350000 20000.0 2 ip\n");

  json.setFault(WPS::API::testing::GeolocationServer::Fault::kNotFound);
  r = run({"locate", "--server", json.url()}, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 6);
  EXPECT_EQ(r.err, "WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED\n");
  for (const HttpRequest& request : json.http().requests()) {
    EXPECT_EQ(request.body.find("Cafe"), std::string::npos);
  }
}

TEST_F(WpsToolTest, LocateFailureExitsWithTheCode) {
  auto args = serverOptions();
  args.insert(args.begin(), "locate");
  // The scan file is missing: the Wi-Fi adapter cannot open.
  const Result r = run(args, dir_ / "missing.txt");
  EXPECT_EQ(r.status, 99);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "WPS_ERROR\n");
  EXPECT_EQ(server_.requestCount(), 0u);
}

TEST_F(WpsToolTest, IpLocateRegisterAndScan) {
  auto args = serverOptions();
  args.insert(args.begin(), "ip-locate");
  Result r = run(args, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "192.0.2.7 35.500000 139.750000\n");

  args = serverOptions();
  args.insert(args.begin(), "register");
  args.insert(args.end(), {"--new-user", "A1B2C3D4"});
  r = run(args, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(server_.lastRequest()->path(), "/registration");
  EXPECT_NE(server_.lastRequest()->body.find("A1B2C3D4"), std::string::npos);

  server_.enqueue(HttpResponse(403, ""));
  r = run(args, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "WPS_ERROR_UNAUTHORIZED\n");

  r = run({"scan"}, dir_ / "scans.txt");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "0012A3B4C5D6 -60 Home\n"
            "0012A3B4C5D7 -62 Cafe Net\n"
            "0012A3B4C5D8 -80 \n");
}

TEST_F(WpsToolTest, HelpAndUsageErrors) {
  const struct {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"--help"}, 0},
      {{"locate", "--help"}, 0},
      {{"ip-locate", "--help"}, 0},
      {{"register", "--help"}, 0},
      {{"scan", "--help"}, 0},
      {{"tile", "info", "--help"}, 0},
      {{}, 2},
      {{"teleport"}, 2},
      {{"locate", "--lookup", "street"}, 2},
      {{"locate", "--proxy", "host-without-port"}, 2},
      {{"locate", "--server"}, 2},
      {{"register", "--server", "http://127.0.0.1:9"}, 2},
      {{"scan", "extra"}, 2},
  };
  for (const auto& c : cases) {
    std::string joined;
    for (const auto& a : c.args) joined += a + " ";
    SCOPED_TRACE(joined);
    const Result r = run(c.args, dir_ / "scans.txt");
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.status == 0) {
      EXPECT_NE(r.out.find("usage"), std::string::npos);
    } else {
      EXPECT_FALSE(r.err.empty());
    }
  }
  EXPECT_EQ(server_.requestCount(), 0u);
}

}  // namespace
}  // namespace zonara
