// The installed programs, started as processes the way a user starts them,
// against a loopback time-zone service and a private session bus.
#include <fcntl.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/dbus.h"
#include "platform/preferences_store.h"
#include "platform/run_loop.h"
#include "platform/testing/test_bus.h"
#include "prefs/ZonaraPreferencesController.h"
#include "sensors/telluro_helper.h"
#include "wps/api/learn/learned_places.h"
#include "wps/spi/testing/child_process.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

using testing::HttpRequest;
using testing::HttpResponse;

fs::path binDir() { return fs::canonical("/proc/self/exe").parent_path().parent_path() / "bin"; }

// Starts `argv` with `env` added to this process's environment; standard
// output is captured.
std::unique_ptr<testing::ChildProcess> spawn(const std::vector<std::string>& argv,
                                             const std::map<std::string, std::string>& env) {
  testing::ChildProcess::Options options;
  options.argv = argv;
  options.setEnvironment = env;
  options.out = {testing::ChildProcess::Output::Pipe, "", ""};
  std::string error;
  auto child = testing::ChildProcess::start(options, &error);
  EXPECT_TRUE(child) << error;
  return child;
}

// Waits up to `limit` for the child to end; its exit status, or -1 if it is
// still running.
int waitFor(testing::ChildProcess& c, std::chrono::milliseconds limit) { return c.waitFor(limit).value_or(-1); }

// Everything the child wrote to standard output, once it has ended (up to 20 s).
std::string readAll(testing::ChildProcess& c) {
  (void)c.waitFor(20s);
  EXPECT_TRUE(c.waitForEndOfOutput(5s));
  return c.capturedOut();
}

class ProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_ / "config");
    fs::create_directories(root_ / "data");
    PreferencesDomain prefs("org.quillon.ZonaraHelper", (root_ / "config").string());
    prefs.setValue("TimezoneServiceURL", PrefValue::string(http_.url()));
    prefs.setValue("TimezoneServiceUsername", PrefValue::string("zonara-test"));
    // A helper under test must never touch the machine's real zone.
    prefs.setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string("/bin/true")}));
    ASSERT_TRUE(prefs.synchronize());
    env_ = {{"XDG_CONFIG_HOME", (root_ / "config").string()},
            {"XDG_DATA_HOME", (root_ / "data").string()},
            {"XDG_STATE_HOME", (root_ / "state").string()}};
  }
  testing::TempDir scratch_{"programs-"};
  const fs::path root_ = scratch_.path();
  testing::HttpTestServer http_;
  std::map<std::string, std::string> env_;
};

TEST_F(ProgramsTest, ZonaraTimezonePrintsTheZoneTheHelperWouldChoose) {
  http_.setHandler([](const HttpRequest& r) {
    if (r.query().rfind("lat=48.8566&lng=2.3522&style=full&username=zonara-test", 0) == 0) {
      return HttpResponse(200, "<geonames><timezone><timezoneId>Europe/Paris</timezoneId></timezone></geonames>");
    }
    return HttpResponse(200, "<geonames><status message=\"no result\" value=\"15\"/></geonames>");
  });
  struct Case {
    std::vector<std::string> args;
    std::string out;
    int status;
  };
  for (const Case& c : std::vector<Case>{{{"timezone", "48.8566", "2.3522"}, "Europe/Paris\n", 0},
                                         {{"timezone", "10", "20"}, "", 1},   // the service knows nothing
                                         {{"timezone", "0.4", "0.7"}, "", 1},  // no position
                                         {{"timezone", "95", "2"}, "", 2},
                                         {{"timezone", "north", "2"}, "", 2},
                                         {{"timezone", "48"}, "", 2},
                                         {{"frobnicate"}, "", 2}}) {
    std::vector<std::string> argv{(binDir() / "zonara").string()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    auto child = spawn(argv, env_);
    ASSERT_TRUE(child);
    std::string out = readAll(*child);
    EXPECT_EQ(waitFor(*child, 10s), c.status) << c.args.back();
    EXPECT_EQ(out, c.out) << c.args.back();
  }
  EXPECT_EQ(http_.requestCount(), 2u);
}

bool nameHasOwner(DBusConnection& c, const char* name) {
  GVariant* r = g_dbus_connection_call_sync(c.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name),
                                            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  gboolean owned = FALSE;
  if (r) {
    g_variant_get(r, "(b)", &owned);
    g_variant_unref(r);
  }
  return owned;
}

TEST_F(ProgramsTest, HelperRegistersItsNameASecondCopyStaysInertAndShutdownEndsIt) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  auto client = DBusConnection::openAddress(bus.address(), nullptr);
  ASSERT_TRUE(client);
  env_["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  const std::string helper = (binDir() / "ZonaraHelper").string();

  auto first = spawn({helper}, env_);
  ASSERT_TRUE(first);
  RunLoop& loop = RunLoop::current();
  ASSERT_TRUE(loop.runUntil([&] { return nameHasOwner(*client, "org.quillon.ZonaraHelper"); }, 5s));
  EXPECT_TRUE(fs::is_directory(root_ / "data/Zonara/Telluro Cache"));

  auto second = spawn({helper}, env_);
  ASSERT_TRUE(second);
  EXPECT_EQ(waitFor(*second, 300ms), -1);  // stays, inert

  DBusDistributedNotificationCenter center(*client);
  center.post({"ZonaraShutdown", "", {}});
  EXPECT_EQ(waitFor(*first, 5s), 0);
  EXPECT_EQ(waitFor(*second, 200ms), -1);  // the inert copy does not listen
  EXPECT_FALSE(nameHasOwner(*client, "org.quillon.ZonaraHelper"));

  EXPECT_EQ(second->terminate(), 0);  // SIGTERM ends it cleanly
}


// Runs build/bin/zonara with `args`; its exit status and standard output.
struct ZonaraRun {
  int status;
  std::string out;
  pid_t pid;
};
ZonaraRun zonara(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
  std::vector<std::string> argv{(binDir() / "zonara").string()};
  argv.insert(argv.end(), args.begin(), args.end());
  auto child = spawn(argv, env);
  if (!child) return {-1, "", -1};
  std::string out = readAll(*child);
  return {waitFor(*child, 20s), out, child->pid()};
}

pid_t ownerPid(DBusConnection& c, const char* name) {
  GVariant* r = g_dbus_connection_call_sync(c.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                            g_variant_new("(s)", name), G_VARIANT_TYPE("(u)"),
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  guint32 pid = 0;
  if (r) {
    g_variant_get(r, "(u)", &pid);
    g_variant_unref(r);
  }
  return static_cast<pid_t>(pid);
}

TEST_F(ProgramsTest, ZonaraStartStatusStopARealHelper) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  auto client = DBusConnection::openAddress(bus.address(), nullptr);
  ASSERT_TRUE(client);
  env_["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  env_["HOME"] = (root_ / "home").string();  // no user-installed pane
  testing::TestBus systemBus;  // a system bus without polkit
  ASSERT_TRUE(systemBus.ok());
  env_["DBUS_SYSTEM_BUS_ADDRESS"] = systemBus.address();
  struct Cleanup {
    DBusConnection& c;
    ~Cleanup() {
      if (pid_t pid = nameHasOwner(c, "org.quillon.ZonaraHelper") ? ownerPid(c, "org.quillon.ZonaraHelper") : 0) {
        kill(pid, SIGTERM);
      }
    }
  } cleanup{*client};

  ZonaraRun r = zonara({"status"}, env_);
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.out.find("ZonaraHelper: not running\n"), std::string::npos) << r.out;

  // The helper comes from the build tree's pane, next to this program.
  r = zonara({"start"}, env_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ZonaraHelper started\n");
  ASSERT_TRUE(nameHasOwner(*client, "org.quillon.ZonaraHelper"));
  const pid_t helper = ownerPid(*client, "org.quillon.ZonaraHelper");
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(helper) + "/exe"),
            fs::canonical(binDir() / "../lib/zonara/PreferencePanes/Zonara.prefPane/Contents/Resources/"
                                     "ZonaraHelper.app/Contents/MacOS/ZonaraHelper"));
  r = zonara({"start"}, env_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ZonaraHelper is already running\n");
  EXPECT_EQ(ownerPid(*client, "org.quillon.ZonaraHelper"), helper);

  r = zonara({"status"}, env_);
  EXPECT_EQ(r.status, 0);
  for (const char* line : {"ZonaraHelper: running\n", "ZonaraHelper.app\n", "Detected time zone: none yet\n",
                           "Current location: Unknown\n", "Start at login: off\n", "  ZonaraEnabled = true\n",
                           "  SetTimezoneCommand = ( \"/bin/true\" )\n",
                           "Setting the time zone without a password: cannot tell: polkit does not answer ("}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << " in:\n" << r.out;
  }

  r = zonara({"stop"}, env_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ZonaraHelper stopped\n");
  EXPECT_FALSE(nameHasOwner(*client, "org.quillon.ZonaraHelper"));
  r = zonara({"stop"}, env_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ZonaraHelper is not running\n");
  r = zonara({"get", "ZonaraEnabled"}, env_);
  EXPECT_EQ(r.out, "false\n");
  EXPECT_EQ(zonara({"status"}, env_).status, 3);
}

TEST_F(ProgramsTest, PreferencesSetByZonaraReachAnotherProcessWithTheWritersPid) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  auto connection = DBusConnection::openAddress(bus.address(), nullptr);
  ASSERT_TRUE(connection);
  env_["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  DBusDistributedNotificationCenter center(*connection);
  ZonaraPreferencesController::Services services;
  services.distributedCenter = &center;
  services.preferencesDirectory = (root_ / "config").string();
  auto controller = ZonaraPreferencesController::makeUnshared(services);
  std::vector<DistributedNotification> heard;
  auto id = center.addObserver("ZonaraPreferencesChanged", [&](const DistributedNotification& n) { heard.push_back(n); });

  struct Case {
    std::string text;
    PrefValue stored;
    std::string printed;
  };
  const std::vector<Case> cases = {
      {"true", PrefValue::boolean(true), "true"},      {"false", PrefValue::boolean(false), "false"},
      {"-3", PrefValue::integer(-3), "-3"},            {"2.5", PrefValue::real(2.5), "2.5"},
      {"1e3", PrefValue::real(1000), "1000.0"},        {"hello world", PrefValue::string("hello world"), "hello world"},
      {"0x10", PrefValue::string("0x10"), "0x10"},     {"nan", PrefValue::string("nan"), "nan"},
      {"", PrefValue::string(""), ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(controller->objectForKey("Value") == c.stored, false) << c.text;  // not yet
    heard.clear();
    ZonaraRun r = zonara({"set", "Value", c.text}, env_);
    ASSERT_EQ(r.status, 0) << c.text;
    // Visible here once the writer's notification has been handled.
    // The writer's own notification names the key and carries its pid.
    auto fromWriter = [&] {
      for (const auto& n : heard) {
        auto pid = n.userInfo.find("pid");
        if (n.object == "Value" && pid != n.userInfo.end() && pid->second == std::to_string(r.pid)) return true;
      }
      return false;
    };
    ASSERT_TRUE(RunLoop::current().runUntil(
        [&] { return fromWriter() && controller->objectForKey("Value") == c.stored; }, 5s))
        << c.text;
    r = zonara({"get", "Value"}, env_);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.printed + "\n");
    controller->setObjectForKey(PrefValue::data({1}), "Value");  // something no case stores
  }
  center.removeObserver(id);

  // And the other way round.
  controller->setObjectForKey(PrefValue::array({PrefValue::string("a b"), PrefValue::integer(2)}), "FromTest");
  EXPECT_EQ(zonara({"get", "FromTest"}, env_).out, "( \"a b\", 2 )\n");
}

// What the helper learned, counted by `zonara status` and deleted by
// `zonara forget`.
TEST_F(ProgramsTest, ZonaraStatusCountsLearnedPlacesAndForgetDeletesThem) {
  env_["HOME"] = (root_ / "home").string();
  env_["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (root_ / "no-bus").string();
  const std::string data = (root_ / "data" / "Zonara").string();
  {
    WPS::API::LearnedPlaces places(data + "/Learned", LearnedPlacesRealm(data + "/Telluro.plist", true));
    auto scan = [](uint64_t first, int count) {
      WPS::SPI::AccessPointList aps;
      for (int i = 0; i < count; ++i) aps.emplace_back(WPS::SPI::MAC::fromValue(first + i), -60, "net");
      return aps;
    };
    WPS::API::Location paris;
    paris.latitude = 48.8566;
    paris.longitude = 2.3522;
    paris.hpe = 30;
    WPS::API::Location tokyo = paris;
    tokyo.latitude = 35.6762;
    tokyo.longitude = 139.6503;
    ASSERT_EQ(places.learn(scan(0x001122330000, 3), paris), 3u);
    ASSERT_EQ(places.learn(scan(0x001122340000, 2), tokyo), 2u);
  }
  auto status = [&] { return zonara({"status"}, env_).out; };
  EXPECT_NE(status().find("Learned places: 5 access points at 2 places\n"), std::string::npos) << status();

  ZonaraRun forget = zonara({"forget"}, env_);
  EXPECT_EQ(forget.status, 0);
  EXPECT_EQ(forget.out, "Forgot 5 learned access points\n");
  EXPECT_TRUE(fs::is_empty(data + "/Learned"));
  EXPECT_NE(status().find("Learned places: 0 access points at 0 places\n"), std::string::npos) << status();
  EXPECT_EQ(zonara({"forget"}, env_).out, "Forgot 0 learned access points\n");

  PreferencesDomain prefs("org.quillon.ZonaraHelper", (root_ / "config").string());
  prefs.setValue("LearnPlaces", PrefValue::boolean(false));
  ASSERT_TRUE(prefs.synchronize());
  EXPECT_NE(status().find("(LearnPlaces is off: not used)"), std::string::npos) << status();
}

TEST_F(ProgramsTest, ZonaraUsageErrorsAndFailuresExitNonZero) {
  env_["HOME"] = (root_ / "home").string();
  env_["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (root_ / "no-bus").string();
  struct Case {
    std::vector<std::string> args;
    int status;
  };
  for (const Case& c : std::vector<Case>{{{}, 2},
                                         {{"set", "K"}, 2},
                                         {{"set", "", "v"}, 2},
                                         {{"get"}, 2},
                                         {{"get", "Missing"}, 1},
                                         {{"login"}, 2},
                                         {{"login", "maybe"}, 2},
                                         {{"start", "--bogus"}, 2},
                                         {{"stop", "now"}, 2},
                                         {{"status", "all"}, 2},
                                         {{"forget", "all"}, 2},
                                         {{"stop"}, 1},  // no session bus to reach a helper
                                         {{"--help"}, 0}}) {
    ZonaraRun r = zonara(c.args, env_);
    EXPECT_EQ(r.status, c.status) << (c.args.empty() ? "" : c.args[0]);
  }
  const std::string help = zonara({"--help"}, env_).out;
  EXPECT_NE(help.find("login on|off|status"), std::string::npos);
  EXPECT_NE(help.find("TrustIPLocationOverVPN"), std::string::npos);
  EXPECT_NE(help.find("RecheckMinutes"), std::string::npos);
}

}  // namespace
}  // namespace zonara
