#include "system_tests/helper_system.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <sched.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "platform/dbus.h"
#include "platform/testing/network_namespace.h"
#include "platform/testing/test_bus.h"
#include "platform/zonara_names.h"
#include "sensors/telluro_helper.h"
#include "tools/demo/demo_services.h"
#include "wps/api/tiles/tile_test_support.h"

namespace zonara::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

bool g_namespace = false;


bool run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

fs::path binDir() { return fs::canonical("/proc/self/exe").parent_path().parent_path() / "bin"; }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace

// ---------------------------------------------------------------- namespace

bool NetworkNamespace::enterAtStart() {
  g_namespace = enterNetworkNamespace();
  return g_namespace;
}

bool NetworkNamespace::available() { return g_namespace; }

int NetworkNamespace::runTests(int argc, char** argv, const char* leftOut) {
  // Before anything starts a thread.
  const bool isolated = enterAtStart();
  ::testing::InitGoogleTest(&argc, argv);
  if (!isolated) std::fprintf(stderr, "note: no network namespace here; %s\n", leftOut);
  return RUN_ALL_TESTS();
}

// ---------------------------------------------------------------- cities

namespace {

// The world's cities, in the demonstration's table form.
constexpr const char* kCities =
    "paris    48.8566    2.3522  Europe/Paris      Paris\n"
    "tokyo    35.6762  139.6503  Asia/Tokyo        Tokyo\n"
    "newyork  40.7128  -74.0060  America/New_York  New York\n"
    "sydney  -33.8688  151.2093  Australia/Sydney  Sydney\n";

const demo::CityTable& cityTable() {
  static const demo::CityTable table = [] {
    std::istringstream text(kCities);
    std::string error;
    std::optional<demo::CityTable> parsed = demo::CityTable::parse(text, error);
    if (!parsed) {
      std::fprintf(stderr, "the harness's city table: %s\n", error.c_str());
      std::abort();
    }
    return std::move(*parsed);
  }();
  return table;
}

// The city of that name; aborts the program for an unknown name.
const demo::City& cityNamed(const std::string& name) {
  if (const demo::City* city = cityTable().named(name)) return *city;
  std::fprintf(stderr, "no city named %s\n", name.c_str());
  std::abort();
}

// 8 access points around each city (in the table's order), the same on
// every run.
const std::vector<WPS::API::LocatedAccessPoint>& accessPointsOf(const demo::City& city) {
  static const std::map<std::string, std::vector<WPS::API::LocatedAccessPoint>> all = [] {
    std::map<std::string, std::vector<WPS::API::LocatedAccessPoint>> out;
    uint64_t seed = 1000;
    for (const demo::City& c : cityTable().cities()) {
      std::mt19937_64 rng(++seed);
      out[c.name] = WPS::API::testing::randomAccessPoints(rng, 8, c.latitude - 0.005, c.latitude + 0.005,
                                                          c.longitude - 0.005, c.longitude + 0.005);
    }
    return out;
  }();
  return all.at(city.name);
}

// The city most of whose access points a positioning request lists.
const demo::City* cityOfRequest(const HttpRequest& request) {
  const demo::City* best = nullptr;
  size_t bestCount = 0;
  for (const demo::City& city : cityTable().cities()) {
    size_t count = 0;
    for (const WPS::API::LocatedAccessPoint& ap : accessPointsOf(city))
      if (request.body.find(ap.mac.toString()) != std::string::npos) ++count;
    if (count > bestCount) {
      best = &city;
      bestCount = count;
    }
  }
  return best;
}

}  // namespace

// ---------------------------------------------------------------- buses

// The two private buses and the services on them. The notification service
// and the stand-in logind live on a thread of their own with its own GLib
// context, so they answer whatever the test thread is doing.
class HelperSystem::Buses {
 public:
  explicit Buses(bool notificationService) {
    if (!session_.ok() || !system_.ok()) {
      error = "cannot start dbus-daemon";
      return;
    }
    client_ = DBusConnection::openAddress(session_.address(), &error);
    if (!client_) return;
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    std::promise<std::string> started;
    thread_ = std::thread([this, notificationService, &started] {
      g_main_context_push_thread_default(context_);
      std::string problem;
      serviceSession_ = DBusConnection::openAddress(session_.address(), &problem);
      serviceSystem_ = DBusConnection::openAddress(system_.address(), &problem);
      if (serviceSession_ && serviceSystem_) {
        if (notificationService) notifications_ = std::make_unique<FakeNotificationService>(*serviceSession_);
        logind_ = std::make_unique<FakeLogind>(*serviceSystem_);
        if (!logind_->ok()) problem = "cannot own org.freedesktop.login1";
      }
      started.set_value(problem);
      g_main_loop_run(loop_);
      notifications_.reset();
      logind_.reset();
      serviceSession_.reset();
      serviceSystem_.reset();
      while (g_main_context_iteration(context_, FALSE)) {
      }
      g_main_context_pop_thread_default(context_);
    });
    error = started.get_future().get();
  }

  ~Buses() {
    if (thread_.joinable()) {
      g_main_loop_quit(loop_);
      thread_.join();
    }
    if (loop_) g_main_loop_unref(loop_);
    if (context_) g_main_context_unref(context_);
    client_.reset();
  }

  // Runs `body` on the services' thread and returns its result.
  template <typename Body>
  auto onThread(Body body) -> decltype(body()) {
    using Result = decltype(body());
    struct Call {
      Body* body;
      std::promise<Result> result;
    } call{&body, {}};
    g_main_context_invoke(
        context_,
        [](gpointer data) -> gboolean {
          auto* c = static_cast<Call*>(data);
          c->result.set_value((*c->body)());
          return G_SOURCE_REMOVE;
        },
        &call);
    return call.result.get_future().get();
  }

  std::vector<FakeNotificationService::Notification> notifications() {
    if (!thread_.joinable()) return {};
    return onThread([this] {
      return notifications_ ? notifications_->received : std::vector<FakeNotificationService::Notification>{};
    });
  }

  bool prepareForSleep(bool sleeping) {
    if (!thread_.joinable()) return false;
    return onThread([this, sleeping] { return logind_ && logind_->prepareForSleep(sleeping); });
  }

  // Inhibitors taken so far and still held (thread-safe in the fake).
  std::pair<size_t, size_t> sleepInhibitors() {
    if (!logind_) return {0, 0};
    return {logind_->inhibitors().size(), logind_->held()};
  }

  DBusConnection& client() { return *client_; }
  const TestBus& session() const { return session_; }
  const TestBus& system() const { return system_; }

  std::string error;

 private:
  TestBus session_;
  TestBus system_;
  std::unique_ptr<DBusConnection> client_;  // the test's own connection
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  std::thread thread_;
  // Made, used and destroyed on `thread_`.
  std::unique_ptr<DBusConnection> serviceSession_;
  std::unique_ptr<DBusConnection> serviceSystem_;
  std::unique_ptr<FakeNotificationService> notifications_;
  std::unique_ptr<FakeLogind> logind_;
};

// ---------------------------------------------------------------- system

void HelperSystem::fail(const std::string& what) {
  if (error_.empty()) error_ = what;
}

HelperSystem::HelperSystem(Options options) : options_(std::move(options)) {
  if (!makeFolders()) return;
  openHelperLog();
  buses_ = std::make_unique<Buses>(options_.notificationService);
  if (!buses_->error.empty()) { fail(buses_->error); return; }
  startServices();
  if (options_.startCity.empty()) {
    travelNowhere();
  } else {
    travelTo(options_.startCity);
  }
  const std::string setTimezone = makeSystemZone();
  if (setTimezone.empty() || !writePreferences(setTimezone)) return;
  setupWireless();
}

bool HelperSystem::makeFolders() {
  std::error_code ec;
  for (const char* folder : {"config", "data", "home", "cache", "bin", "sys/class/net"})
    fs::create_directories(root() + "/" + folder, ec);
  if (ec) { fail("cannot make the folders under " + root()); return false; }
  return true;
}

// The helper's output goes to "<suite>.<test>.helper.log", emptied first.
void HelperSystem::openHelperLog() {
  const char* base = std::getenv("ZONARA_TEST_TMPDIR");
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = test ? std::string(test->test_suite_name()) + "." + test->name() : std::string("helper");
  for (char& c : name)
    if (c == '/') c = '_';  // parameterised tests
  helperLog_ = std::string(base ? base : root().c_str()) + "/" + name + ".helper.log";
  std::ofstream truncate(helperLog_, std::ios::trunc);
}

// Services, each behind a gate that can take it down.
void HelperSystem::startServices() {
  positioning_ = std::make_unique<WPS::API::testing::FakePositioningServer>();
  geolocation_ = std::make_unique<WPS::API::testing::GeolocationServer>();
  for (const demo::City& city : cityTable().cities()) {
    for (const WPS::API::LocatedAccessPoint& ap : accessPointsOf(city))
      geolocation_->addAccessPoint(ap.mac.toColonString(), city.latitude, city.longitude);
  }
  timezone_ = std::make_unique<HttpTestServer>(
      [](const HttpRequest& request) { return demo::AnswerTimeZoneRequest(cityTable(), request, {}); });
  ipPage_ = std::make_unique<HttpTestServer>([this](const HttpRequest& request) {
    std::string city;
    {
      MutexLock lock(worldMu_);
      city = ipCity_;
    }
    return demo::AnswerIPLocationRequest(city.empty() ? nullptr : &cityNamed(city), request, {});
  });
  // The positioning server places a scan in the city most of whose access
  // points it holds, so the scan file decides where the system is.
  positioning_->setLocator([](const HttpRequest& request) -> std::optional<WPS::API::LocatedAccessPoint> {
    const demo::City* city = cityOfRequest(request);
    if (!city) return std::nullopt;
    WPS::API::LocatedAccessPoint where;
    where.latitude = city->latitude;
    where.longitude = city->longitude;
    return where;
  });
  gates_[Service::Positioning] = std::make_unique<ServiceGate>(
      options_.geolocationApi ? geolocation_->http().port() : positioning_->http().port());
  gates_[Service::TimeZone] = std::make_unique<ServiceGate>(timezone_->port());
  gates_[Service::IPLocation] = std::make_unique<ServiceGate>(ipPage_->port());
}

// The system's zone, and the command that "sets" it: the command's path, or
// "" (failed) when either cannot be made.
std::string HelperSystem::makeSystemZone() {
  std::error_code ec;
  fs::create_symlink("/usr/share/zoneinfo/" + options_.initialZone, localtimeLink(), ec);
  if (ec) { fail("cannot make " + localtimeLink()); return ""; }
  const std::string script = root() + "/bin/set-timezone";
  {
    std::ofstream out(script);
    out << "#!/bin/sh\n"
           "# Records the request and makes the zone the one the helper reads back.\n"
           "# The link first: whoever sees the record may rely on the zone.\n"
           "for zone; do :; done\n"
           "[ -e \"/usr/share/zoneinfo/$zone\" ] && ln -sfn \"/usr/share/zoneinfo/$zone\" '"
        << localtimeLink()
        << "'\n"
           "printf '%s\\n' \"$*\" >> '"
        << commandLog() << "'\nexit 0\n";
  }
  ::chmod(script.c_str(), 0755);
  return script;
}

// The helper's preferences: the services behind their gates and the
// set-time-zone command.
bool HelperSystem::writePreferences(const std::string& setTimezone) {
  preferences_ = std::make_unique<PreferencesDomain>(kPreferencesDomain, configHome());
  PreferencesDomain& p = *preferences_;
  if (options_.timezoneService) {
    p.setValue("TimezoneServiceURL", PrefValue::string(gates_[Service::TimeZone]->url()));
    p.setValue("TimezoneServiceUsername", PrefValue::string("zonara-test"));
  }
  p.setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string(setTimezone)}));
  if (options_.geolocationApi) {
    p.setValue("PositioningServerURL",
               PrefValue::string(gates_[Service::Positioning]->url(WPS::API::testing::GeolocationServer::kPath)));
  } else {
    p.setValue("PositioningServerURL", PrefValue::string(gates_[Service::Positioning]->url()));
    p.setValue("IPLocationURL", PrefValue::string(gates_[Service::IPLocation]->url()));
  }
  p.setValue("ZonaraEnabled", PrefValue::boolean(true));
  if (!options_.learnPlaces) p.setValue("LearnPlaces", PrefValue::boolean(false));
  if (!p.synchronize()) { fail("cannot write the preferences"); return false; }
  return true;
}

HelperSystem::~HelperSystem() {
  helper_.reset();  // kills it when a test left it running
  if (wireless_) run(std::string("ip link del ") + wirelessInterface());
  if (vpn_) (void)runIp(std::string("tuntap del dev ") + vpnInterface() + " mode tun");
  // The servers go before the state their handlers read.
  gates_.clear();
  ipPage_.reset();
  timezone_.reset();
  positioning_.reset();
  geolocation_.reset();
  buses_.reset();
}

void HelperSystem::setupWireless() {
  if (!NetworkNamespace::available()) return;
  const std::string a = wirelessInterface();
  const std::string b = "zw1";
  fs::create_directories(sysfsRoot() + "/class/net/" + a);
  fs::create_directories(sysfsRoot() + "/class/net/" + b);
  std::ofstream(sysfsRoot() + "/class/net/" + a + "/uevent") << "DEVTYPE=wlan\nINTERFACE=" << a << "\n";
  std::ofstream(sysfsRoot() + "/class/net/" + b + "/uevent") << "INTERFACE=" << b << "\n";
  run("ip link del " + a);  // left over from a test that crashed
  if (!run("ip link add " + a + " type veth peer name " + b) || !run("ip link set " + a + " mode dormant") ||
      !run("ip link set " + b + " up")) {
    { fail("cannot make the veth pair"); return; }
  }
  wireless_ = true;
  if (!wirelessJoin()) fail("cannot bring the wireless link up");
}

// Waits up to 5 s until interface `name` shows operational state `state` (as `ip` prints it).
namespace {
bool waitForOperState(const std::string& name, const std::string& state) {
  return run("for i in $(seq 100); do ip -o link show dev " + name + " | grep -q ' state " + state +
             " ' && exit 0; sleep 0.05; done; exit 1");
}
}  // namespace

// The kernel gives a dormant-mode link its operational state a moment after
// the link comes up; "state up" sent before then changes nothing and the link
// ends dormant. So the join waits for the dormant state first.
bool HelperSystem::wirelessJoin() {
  const std::string a = wirelessInterface();
  return wireless_ && run("ip link set " + a + " up") && waitForOperState(a, "DORMANT") &&
         run("ip link set " + a + " state up") && waitForOperState(a, "UP");
}

bool HelperSystem::wirelessSearch() {
  const std::string a = wirelessInterface();
  return wireless_ && run("ip link set " + a + " up") && run("ip link set " + a + " state dormant");
}

bool HelperSystem::wirelessOff() { return wireless_ && run(std::string("ip link set ") + wirelessInterface() + " down"); }

// ---------------------------------------------------------------- helper

std::map<std::string, std::string> HelperSystem::helperEnvironment() const {
  std::map<std::string, std::string> env = {
      {"HOME", root() + "/home"},
      {"XDG_CONFIG_HOME", configHome()},
      {"XDG_DATA_HOME", dataHome()},
      {"XDG_STATE_HOME", stateHome()},
      {"XDG_CACHE_HOME", root() + "/cache"},
      {"DBUS_SESSION_BUS_ADDRESS", buses_ ? buses_->session().address() : ""},
      {"DBUS_SYSTEM_BUS_ADDRESS", buses_ ? buses_->system().address() : ""},
      {"WPS_SCAN_FILE", scanFile()},
      {"ZONARA_SYSFS_ROOT", sysfsRoot()},
      {"ZONARA_LOCALTIME", localtimeLink()},
  };
  if (options_.timeScale != 1) {
    std::ostringstream scale;
    scale << options_.timeScale;
    env["ZONARA_TIME_SCALE"] = scale.str();
  }
  return env;
}

bool HelperSystem::startHelper(const std::map<std::string, std::string>& environment) {
  if (!ok() || (helper_ && helper_->running())) return false;
  ChildProcess::Options options;
  options.argv = {(binDir() / "ZonaraHelper").string()};
  options.setEnvironment = helperEnvironment();
  options.unsetEnvironment = {"LOG4CPP_CONFIGURATION", "ZONARA_TIME_SCALE", "JOURNAL_STREAM", "http_proxy", "https_proxy",
                              "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "all_proxy", "no_proxy", "NO_PROXY"};
  for (const auto& [name, value] : environment) {
    if (value.empty()) {
      options.setEnvironment.erase(name);
      options.unsetEnvironment.push_back(name);
    } else {
      options.setEnvironment[name] = value;
    }
  }
  options.workingDirectory = root();
  options.out = {ChildProcess::Output::File, root() + "/helper.out", ""};
  options.err = {ChildProcess::Output::Pipe, "", helperLogFile()};
  std::string problem;
  helper_ = ChildProcess::start(options, &problem);
  if (!helper_) fail("cannot start the helper: " + problem);
  return helper_ != nullptr;
}

bool HelperSystem::vpnUp() {
  if (!NetworkNamespace::available()) return false;
  const std::string tun = vpnInterface();
  (void)runIp("tuntap del dev " + tun + " mode tun");  // left over from a test that crashed
  vpn_ = runIp("tuntap add dev " + tun + " mode tun");
  return vpn_ && runIp("addr add 10.213.0.2/24 dev " + tun) && runIp("link set " + tun + " up") &&
         runIp("route replace default dev " + tun);
}

std::optional<int> HelperSystem::runZonara(const std::vector<std::string>& arguments) {
  const ProgramRun run = captureZonara(arguments);
  std::fputs(run.err.c_str(), stderr);
  if (run.status < 0) return std::nullopt;
  return run.status;
}

std::optional<int> HelperSystem::stopHelper(std::chrono::milliseconds grace) {
  if (!helper_) return std::nullopt;
  return helper_->terminate(grace);
}

std::vector<std::string> HelperSystem::logLines() const {
  std::vector<std::string> out;
  if (!helper_) return out;
  static const std::string prefix = "ZonaraHelper: ";
  for (std::string& line : lines(helper_->capturedErr())) {
    if (line.compare(0, prefix.size(), prefix) == 0) line.erase(0, prefix.size());
    out.push_back(std::move(line));
  }
  return out;
}

size_t HelperSystem::logCount(const std::string& text) const {
  size_t count = 0;
  for (const std::string& line : logLines())
    if (line.find(text) != std::string::npos) ++count;
  return count;
}

bool HelperSystem::waitForLog(const std::string& text, std::chrono::milliseconds timeout, size_t count) const {
  return waitUntil([&] { return logCount(text) >= count; }, timeout);
}

// ---------------------------------------------------------------- world

void HelperSystem::writeScanFile(const std::string& name) {
  std::ostringstream scan;
  scan << "# " << (name.empty() ? "nowhere" : name) << "\n";
  if (!name.empty()) {
    int signal = -48;
    for (const WPS::API::LocatedAccessPoint& ap : accessPointsOf(cityNamed(name))) {
      scan << ap.mac.toColonString() << " " << signal << " 6 -95 " << name << " " << (-signal) << "\n";
      signal -= 3;
    }
  }
  // Replaced in one step, so the library never reads half a file.
  const std::string temporary = scanFile() + ".new";
  std::ofstream(temporary) << scan.str();
  std::error_code ignored;
  fs::rename(temporary, scanFile(), ignored);
}

void HelperSystem::travelTo(const std::string& name) {
  writeScanFile(name);
  setIPLocationCity(name);
}

void HelperSystem::travelNowhere() {
  writeScanFile("");
}

void HelperSystem::setIPLocationCity(const std::string& city) {
  if (city.empty()) {
    geolocation_->setIpLocation(std::nullopt);
  } else {
    const demo::City& where = cityNamed(city);
    geolocation_->setIpLocation(std::make_pair(where.latitude, where.longitude));
  }
  MutexLock lock(worldMu_);
  ipCity_ = city;
}

std::string HelperSystem::tileBytes(const std::vector<std::string>& cities) const {
  std::vector<WPS::API::LocatedAccessPoint> aps;
  for (const std::string& name : cities) {
    const std::vector<WPS::API::LocatedAccessPoint>& around = accessPointsOf(cityNamed(name));
    aps.insert(aps.end(), around.begin(), around.end());
  }
  return WPS::API::testing::FakePositioningServer::makeTileFile(aps, TelluroHelper::kRealm);
}

std::string HelperSystem::installTileFile(const std::vector<std::string>& cities, const std::string& id,
                                          const std::string& version) {
  std::error_code ignored;
  fs::create_directories(tileFolder(), ignored);
  const std::string path = tileFolder() + "/" + id + "_" + version + ".dat";
  const std::string bytes = tileBytes(cities);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return path;
}

void HelperSystem::offerTile(const std::vector<std::string>& cities, const std::string& id, const std::string& version) {
  WPS::API::testing::FakePositioningServer::Tile tile;
  tile.id = id;
  tile.version = version;
  tile.bytes = tileBytes(cities);
  positioning_->addTile(std::move(tile));
}

void HelperSystem::setServiceUp(Service service, bool up) {
  ServiceGate& gate = *gates_.at(service);
  if (up) {
    if (!gate.open()) fail("cannot reopen a service's port");
  } else {
    gate.close();
  }
}

bool HelperSystem::serviceUp(Service service) const { return gates_.at(service)->isOpen(); }

void HelperSystem::setAllServicesUp(bool up) {
  for (Service s : {Service::Positioning, Service::TimeZone, Service::IPLocation}) setServiceUp(s, up);
}

std::vector<std::string> HelperSystem::appliedZones() const { return lines(readFile(commandLog())); }

bool HelperSystem::waitForAppliedZones(size_t count, std::chrono::milliseconds timeout) const {
  return waitUntil([&] { return appliedZones().size() >= count; }, timeout);
}

std::string HelperSystem::systemZone() const {
  std::error_code ec;
  const fs::path target = fs::read_symlink(localtimeLink(), ec);
  if (ec) return "";
  const std::string text = target.string();
  const size_t at = text.find("zoneinfo/");
  return at == std::string::npos ? "" : text.substr(at + 9);
}

std::vector<FakeNotificationService::Notification> HelperSystem::notifications() const {
  return buses_ ? buses_->notifications() : std::vector<FakeNotificationService::Notification>{};
}

std::vector<std::string> HelperSystem::notificationTexts() const {
  std::vector<std::string> out;
  for (const auto& n : notifications()) out.push_back(n.summary + "|" + n.body);
  return out;
}

bool HelperSystem::waitForNotifications(size_t count, std::chrono::milliseconds timeout) const {
  return waitUntil([&] { return notifications().size() >= count; }, timeout);
}

bool HelperSystem::pressNotificationAction(const std::string& key, std::string* why) {
  if (!buses_) return false;
  return InvokeNotificationAction(buses_->client(), 0, key, why);
}

HelperSystem::ProgramRun HelperSystem::captureZonara(const std::vector<std::string>& arguments) const {
  ChildProcess::Options options;
  options.argv = {(binDir() / "zonara").string()};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  options.setEnvironment = helperEnvironment();
  options.workingDirectory = root();
  options.out = {ChildProcess::Output::Pipe, "", ""};
  options.err = {ChildProcess::Output::Pipe, "", ""};
  ProgramRun run;
  std::unique_ptr<ChildProcess> child = ChildProcess::start(options, &run.err);
  if (!child) return run;
  const std::optional<int> status = child->waitFor(timeout(std::chrono::seconds(30)));
  if (!status || !child->waitForEndOfOutput(std::chrono::seconds(5))) return run;
  run.status = *status;
  run.out = child->capturedOut();
  run.err = child->capturedErr();
  return run;
}

std::pair<size_t, size_t> HelperSystem::sleepInhibitors() const { return buses_->sleepInhibitors(); }

bool HelperSystem::prepareForSleep(bool sleeping) { return buses_ && buses_->prepareForSleep(sleeping); }

const std::string& HelperSystem::sessionBusAddress() const { return buses_->session().address(); }
const std::string& HelperSystem::systemBusAddress() const { return buses_->system().address(); }

bool HelperSystem::helperNameOwned() const {
  if (!buses_) return false;
  return buses_->client().nameHasOwner(kHelperBusName);
}

bool HelperSystem::waitForHelperName(bool owned, std::chrono::milliseconds timeout) const {
  return waitUntil([&] { return helperNameOwned() == owned; }, timeout);
}

std::optional<std::string> HelperSystem::helperProperty(const std::string& name,
                                                        std::chrono::milliseconds timeout) const {
  if (!buses_) return std::nullopt;
  return buses_->client().stringProperty(kHelperBusName, name, timeout);
}

void HelperSystem::postDistributedNotification(const std::string& name, const std::string& object) {
  if (!buses_) return;
  {
    DBusDistributedNotificationCenter center(buses_->client());
    center.post({name, object, {}});
  }
  (void)g_dbus_connection_flush_sync(buses_->client().get(), nullptr, nullptr);
}

// ---------------------------------------------------------------- time

void HelperSystem::sleepFor(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

std::chrono::milliseconds HelperSystem::timeout(std::chrono::milliseconds base) {
  double scale = 1;
  if (const char* text = std::getenv("ZONARA_TEST_TIMEOUT_SCALE")) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end != text && value >= 1) scale = value;
  }
  return std::chrono::milliseconds(static_cast<int64_t>(static_cast<double>(base.count()) * scale));
}

}  // namespace zonara::testing
