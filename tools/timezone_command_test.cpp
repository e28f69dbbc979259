// `zonara timezone` run as a user runs it: build/bin/zonara as a process, with
// private preferences, answering from the boundary file this build made.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "platform/preferences_store.h"
#include "platform/zonara_names.h"
#include "timezone/testing/built_boundary_file.h"
#include "wps/spi/testing/child_process.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

struct ZonaraRun {
  int status = -1;
  std::string out;
  std::string err;
};

class TimezoneCommandTest : public ::testing::Test {
 protected:
  TimezoneCommandTest() {
    fs::create_directories(tmp_.file("config"));
    env_ = {{"XDG_CONFIG_HOME", tmp_.file("config")},
            {"XDG_DATA_HOME", tmp_.file("data")},
            {"XDG_DATA_DIRS", tmp_.file("nowhere")},
            {"HOME", tmp_.path()},
            {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + tmp_.file("no-bus")}};
  }

  static std::string program() {
    return (fs::canonical("/proc/self/exe").parent_path().parent_path() / "bin" / "zonara").string();
  }

  // Runs build/bin/zonara with `args`; `input` (when given) is its standard input.
  ZonaraRun zonara(const std::vector<std::string>& args, const std::optional<std::string>& input = std::nullopt) {
    return run(program(), args, input);
  }

  // Runs `program` with `args` in the test's environment.
  ZonaraRun run(const std::string& program, const std::vector<std::string>& args,
                const std::optional<std::string>& input = std::nullopt) {
    testing::ChildProcess::Options options;
    if (input) {
      std::ofstream(tmp_.file("input")) << *input;
      std::string line = "exec '" + program + "'";
      for (const std::string& a : args) line += " '" + a + "'";
      options.argv = {"/bin/sh", "-c", line + " < '" + tmp_.file("input") + "'"};
    } else {
      options.argv = {program};
      options.argv.insert(options.argv.end(), args.begin(), args.end());
    }
    options.setEnvironment = env_;
    options.out = {testing::ChildProcess::Output::Pipe, "", ""};
    options.err = {testing::ChildProcess::Output::Pipe, "", ""};
    std::string error;
    std::unique_ptr<testing::ChildProcess> child = testing::ChildProcess::start(options, &error);
    if (!child) {
      ADD_FAILURE() << error;
      return {};
    }
    ZonaraRun result;
    result.status = child->waitFor(60s).value_or(-1);
    EXPECT_TRUE(child->waitForEndOfOutput(5s));
    result.out = child->capturedOut();
    result.err = child->capturedErr();
    return result;
  }

  void setPreference(const std::string& key, const std::string& value) {
    PreferencesDomain prefs(kPreferencesDomain, tmp_.file("config"));
    prefs.setValue(key, PrefValue::string(value));
    ASSERT_TRUE(prefs.synchronize());
  }

  zonara::testing::TempDir tmp_{"timezone-command-"};
  std::map<std::string, std::string> env_;
};

TEST_F(TimezoneCommandTest, BadInputIsAUsageErrorWithAClearMessage) {
  struct Case {
    std::vector<std::string> args;
    const char* inMessage;
  };
  const std::vector<Case> cases = {
      {{"timezone"}, "LATITUDE LONGITUDE"},
      {{"timezone", "48"}, "LATITUDE LONGITUDE"},
      {{"timezone", "1", "2", "3"}, "LATITUDE LONGITUDE"},
      {{"timezone", "--border"}, "LATITUDE LONGITUDE"},
      {{"timezone", "95", "2"}, "LATITUDE must be"},
      {{"timezone", "north", "2"}, "LATITUDE must be"},
      {{"timezone", "48", "181"}, "LONGITUDE must be"},
      {{"timezone", "48", "nan"}, "LONGITUDE must be"},
      {{"timezone", "--border", "48", "2x"}, "LONGITUDE must be"},
  };
  for (const Case& c : cases) {
    ZonaraRun r = zonara(c.args);
    EXPECT_EQ(r.status, 2) << c.args.back();
    EXPECT_EQ(r.out, "") << c.args.back();
    EXPECT_NE(r.err.find(c.inMessage), std::string::npos) << c.args.back() << ": " << r.err;
  }
}

TEST_F(TimezoneCommandTest, MissingOrBadDataIsAFailureThatSaysSo) {
  std::ofstream(tmp_.file("bad.dat")) << "not boundary data";
  for (const std::string& path : {tmp_.file("missing.dat"), tmp_.file("bad.dat")}) {
    env_["ZONARA_TZ_DATA"] = path;
    ZonaraRun r = zonara({"timezone", "50.85", "4.35"});
    EXPECT_EQ(r.status, 1) << path;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find(path), std::string::npos) << r.err;
  }
}

TEST_F(TimezoneCommandTest, AConfiguredServiceIsAskedOnceWithoutRetries) {
  // Refused connections: the helper would retry ten times, 30 s apart.
  testing::ClosedPort closed;
  setPreference("TimezoneServiceURL", closed.url());
  env_["ZONARA_TZ_DATA"] = tmp_.file("missing.dat");  // not needed for the service
  ZonaraRun r = zonara({"timezone", "50.85", "4.35"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no zone from the time-zone service"), std::string::npos) << r.err;
}

TEST_F(TimezoneCommandTest, PointsAnswerFromTheBoundaryData) {
  ZONARA_NEED_BOUNDARY_DATA(data);
  env_["ZONARA_TZ_DATA"] = data;
  struct Case {
    std::vector<std::string> args;
    std::string out;  // a regular expression
    int status;
  };
  const std::vector<Case> cases = {
      {{"timezone", "50.85", "4.35"}, "Europe/Brussels\n", 0},
      {{"timezone", "-33.8688", "151.2093"}, "Australia/Sydney\n", 0},
      {{"timezone", "0", "-30"}, "Etc/GMT\\+2\n", 0},
      {{"timezone", "0.4", "0.7"}, "", 1},  // within a degree of 0 N 0 E: no position
      // Brussels lies tens of kilometres from the Dutch and French zones.
      {{"timezone", "--border", "50.85", "4.35"}, "Europe/Brussels [1-9][0-9]{4}\n", 0},
      // Strasbourg: a few kilometres from the Rhine, Germany's border.
      {{"timezone", "--border", "48.5734", "7.7521"}, "Europe/Paris [1-9][0-9]{0,3}\n", 0},
      // Mid-Pacific: no border within the cap.
      {{"timezone", "--border", "-40", "-130"}, "Etc/GMT\\+9 100000\n", 0},
  };
  for (const Case& c : cases) {
    ZonaraRun r = zonara(c.args);
    EXPECT_EQ(r.status, c.status) << c.args.back() << ": " << r.err;
    EXPECT_TRUE(std::regex_match(r.out, std::regex(c.out))) << c.args.back() << ": '" << r.out << "'";
  }
}

TEST_F(TimezoneCommandTest, AnswersWithTheNetworkDown) {
  ZONARA_NEED_BOUNDARY_DATA(data);
  // A network namespace of its own: no interface up, not even loopback.
  ZonaraRun probe = run("/usr/bin/unshare", {"-rn", "/bin/true"});
  if (probe.status != 0) GTEST_SKIP() << "cannot make a network namespace here: " << probe.err;
  // Found as an installed program finds it: through the XDG data folders.
  fs::create_directories(tmp_.file("share") + "/zonara");
  fs::copy_file(data, tmp_.file("share") + "/zonara/timezone-boundaries.dat");
  env_["XDG_DATA_DIRS"] = tmp_.file("share");
  ZonaraRun r = run("/usr/bin/unshare", {"-rn", program(), "timezone", "50.85", "4.35"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "Europe/Brussels\n");
}

TEST_F(TimezoneCommandTest, StatusNamesTheSourceOfZonesAndTheBoundariesWithTheirAttribution) {
  ZONARA_NEED_BOUNDARY_DATA(data);
  struct Case {
    const char* what;
    std::string dataFile;
    std::string serviceURL;
    std::vector<std::string> lines;  // regular expressions, each matching one whole line
  };
  const std::string attribution =
      "Time-zone boundaries: timezone-boundary-builder [0-9]{4}[a-z] \\(geo-tz 8\\.1\\.9\\), 419 zones, "
      "\\(c\\) OpenStreetMap contributors, ODbL \\(.*\\)";
  const std::vector<Case> cases = {
      {"the default", data, "", {attribution, "Time zones from: the boundary data"}},
      {"a service configured",
       data,
       "http://tz.example",
       {attribution, "Time zones from: the time-zone service at http://tz\\.example"}},
      {"no data", tmp_.file("missing.dat"), "",
       {"Time-zone boundaries: unavailable \\(.*missing\\.dat.*\\)",
        "Time zones from: nowhere \\(no boundary data, no TimezoneServiceURL\\)"}},
  };
  for (const Case& c : cases) {
    env_["ZONARA_TZ_DATA"] = c.dataFile;
    setPreference("TimezoneServiceURL", c.serviceURL);
    ZonaraRun r = zonara({"status"});
    EXPECT_EQ(r.status, 3) << c.what;  // no helper runs
    for (const std::string& line : c.lines) {
      EXPECT_TRUE(std::regex_search(r.out, std::regex("(^|\\n)" + line + "\\n")))
          << c.what << ": " << line << " in:\n"
          << r.out;
    }
  }
}

TEST_F(TimezoneCommandTest, StandardInputGivesOneAnswerPerLine) {
  ZONARA_NEED_BOUNDARY_DATA(data);
  env_["ZONARA_TZ_DATA"] = data;
  const std::vector<std::pair<std::string, std::string>> places = {
      {"50.85 4.35", "Europe/Brussels"}, {"35.6762\t139.6503", "Asia/Tokyo"}, {"  40.7128 -74.0060 ", "America/New_York"},
      {"0 -30", "Etc/GMT+2"},            {"0.1 0.1", "-"},                    {"-33.8688 151.2093\r", "Australia/Sydney"}};
  std::string input, expected;
  for (int i = 0; i < 5000; ++i) {
    input += places[i % places.size()].first + "\n";
    expected += places[i % places.size()].second + "\n";
  }
  ZonaraRun r = zonara({"timezone", "-"}, input);
  EXPECT_EQ(r.status, 1) << r.err;  // the points near 0 N 0 E get no zone
  EXPECT_EQ(r.out, expected);

  ZonaraRun border = zonara({"timezone", "--border", "-"}, "50.85 4.35\n48.5734 7.7521\n");
  EXPECT_EQ(border.status, 0) << border.err;
  EXPECT_TRUE(std::regex_match(border.out, std::regex("Europe/Brussels [0-9]+\nEurope/Paris [0-9]+\n"))) << border.out;

  // A malformed line ends the run: the answers before it stand, the error names the line.
  ZonaraRun bad = zonara({"timezone", "-"}, "50.85 4.35\nBrussels\n48.85 2.35\n");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "Europe/Brussels\n");
  EXPECT_NE(bad.err.find("line 2"), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace zonara
