// ZonaraHelper: the background helper that keeps the system time zone equal
// to the zone of where the computer is.
#include <glib-unix.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "app/app_controller.h"
#include "app/zonara_application.h"
#include "platform/clock.h"
#include "platform/sleep_watcher.h"
#include "platform/system_log.h"
#include "sensors/location_sensing.h"
#include "wps/api/protocol/config.h"
#include "wps/spi/logger.h"
#ifdef ZONARA_WITH_WPS_API
#include "sensors/wps_location_library.h"
#endif

using namespace zonara;

namespace {

// The icon: a resource of the helper's bundle when the program runs from
// one (<bundle>/Contents/MacOS/ZonaraHelper ->
// <bundle>/Contents/Resources/Zonara.png), else beside the program:
// <prefix>/share/zonara/Zonara.png for <prefix>/bin/ZonaraHelper.
std::string iconPath() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "";
  exe[n] = '\0';
  std::string dir(exe);
  dir = dir.substr(0, dir.rfind('/'));
  const std::string bundled = "/Contents/MacOS";
  if (dir.size() > bundled.size() && dir.compare(dir.size() - bundled.size(), bundled.size(), bundled) == 0) {
    return dir.substr(0, dir.size() - std::string("MacOS").size()) + "Resources/Zonara.png";
  }
  return dir.substr(0, dir.rfind('/')) + "/share/zonara/Zonara.png";
}

// The polkit rule of the installation the helper runs from:
// <prefix>/share/polkit-1/rules.d/50-zonara-timezone.rules for a helper under
// <prefix>/lib/zonara/; "" when it cannot be found.
std::string polkitRulePath() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "";
  exe[n] = '\0';
  const std::string path(exe);
  const size_t lib = path.rfind("/lib/zonara/");
  if (lib == std::string::npos) return "";
  std::string rule = path.substr(0, lib) + "/share/polkit-1/rules.d/50-zonara-timezone.rules";
  return access(rule.c_str(), R_OK) == 0 ? rule : "";
}

// Refuses every name: used when there is no session bus at all, so the
// helper ends up inert as it does when another copy holds the name.
class NoBusServer final : public BusNameServer {
 public:
  bool start(const std::map<std::string, PropertyGetter>&) override { return false; }
  void propertiesChanged(const std::map<std::string, std::string>&, const std::vector<std::string>&) override {}
};

#ifndef ZONARA_WITH_WPS_API
// This build has no positioning library: every lookup fails, so positions
// come from the IP-location page alone.
class NoLocationLibrary final : public LocationLibrary {
 public:
  WPS_ReturnCode registerUser(const WPS_SimpleAuthentication&, const WPS_SimpleAuthentication&) override {
    return WPS_ERROR;
  }
  WPS_ReturnCode tiling(const std::string&, unsigned long, unsigned long) override { return WPS_ERROR; }
  WPS_ReturnCode location(const WPS_SimpleAuthentication&, double*, double*) override { return WPS_ERROR; }
};
#endif

// The positioning sensor's coordinates once sensing has started.
class SensingLocation final : public LocationSource {
 public:
  std::optional<double> currentLongitude() const override {
    return sensing ? sensing->telluroSensor().currentLongitude() : std::nullopt;
  }
  std::optional<double> currentLatitude() const override {
    return sensing ? sensing->telluroSensor().currentLatitude() : std::nullopt;
  }
  LocationSensing* sensing = nullptr;
};

std::string dataFolder() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) return std::string(xdg) + "/Zonara";
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.local/share/Zonara";
}

// The link (or file) the system's current zone is read from. Tests and the
// demonstration point ZONARA_LOCALTIME at a private link that their
// set-time-zone command re-points, so the real system is never involved.
std::string localtimePath() {
  if (const char* path = std::getenv("ZONARA_LOCALTIME"); path && *path) return path;
  return "/etc/localtime";
}

}  // namespace

int main() {
  // ZONARA_TIME_SCALE speeds up the helper's clock for tests and the
  // demonstration: every timer and pause is shortened alike, nothing else
  // changes.
  std::unique_ptr<ScaledClock> scaledClock;
  if (const char* scale = std::getenv("ZONARA_TIME_SCALE"); scale && *scale) {
    if (std::optional<double> factor = ScaledClock::parseFactor(scale); factor && *factor > 1.0) {
      scaledClock = std::make_unique<ScaledClock>(*factor);
      Clock::set(scaledClock.get());
    } else if (!factor) {
      SystemLogAt(LogPriority::Warning, "ignoring ZONARA_TIME_SCALE=%s: not a number >= 1", scale);
    }
  }

  // The positioning library looks for its logging configuration in the
  // running program's preferences domain: ours.
  WPS::SPI::Logger::setApplicationDomain(AppController::kServerName);
  ZonaraApplication& application = ZonaraApplication::sharedApplication();
  // SIGTERM (session end, systemd, kill) and SIGINT (Ctrl-C in a terminal)
  // end the helper like "ZonaraShutdown": the loop returns and everything is
  // released in order.
  for (int signal : {SIGTERM, SIGINT}) {
    g_unix_signal_add(
        signal,
        [](gpointer data) -> gboolean {
          static_cast<ZonaraApplication*>(data)->terminate();
          return G_SOURCE_CONTINUE;
        },
        &application);
  }

  PreferencesDomain preferences(AppController::kServerName);
  std::string error;
  std::unique_ptr<DBusConnection> bus = DBusConnection::openSession(&error);
  if (!bus) SystemLogAt(LogPriority::Error, "no session bus: %s", error.c_str());

  std::unique_ptr<DistributedNotificationCenter> distributed;
  std::unique_ptr<BusNameServer> server;
  std::unique_ptr<DesktopNotifier> notifier;
  if (bus) {
    distributed = std::make_unique<DBusDistributedNotificationCenter>(*bus);
    server = std::make_unique<DBusNameServer>(*bus, AppController::kServerName);
    notifier = std::make_unique<FreedesktopNotifier>(*bus, "Zonara");
  } else {
    server = std::make_unique<NoBusServer>();
  }
  SubprocessCommandRunner commandRunner;
  LinuxWorkspace workspace;
  DateTzDatabase zones(localtimePath());
  CurlHttpFetcher fetcher;

  AppController::Services services;
  services.application = &application;
  services.runLoop = &RunLoop::main();
  services.notificationCenter = &NotificationCenter::defaultCenter();
  services.distributedCenter = distributed.get();
  services.server = server.get();
  services.commandRunner = &commandRunner;
  services.workspace = &workspace;
  services.notifier = notifier.get();
  services.zones = &zones;
  services.fetcher = &fetcher;
  services.preferences = &preferences;
  services.iconPath = iconPath();
  services.polkitRulePath = polkitRulePath();

  // Location sensing: made when the controller sets up its sensors.
  const LocationSensingSettings settings =
      LocationSensingSettings::fromPreferences(preferences, WPS::API::kDefaultServerUrl);
#ifdef ZONARA_WITH_WPS_API
  WpsLocationLibrary::setServerURL(settings.positioningServerURL);
  WpsLocationLibrary library;
#else
  SystemLogAt(LogPriority::Warning, "built without the positioning library; only the IP-location page is used");
  NoLocationLibrary library;
#endif
  LinuxReachability reachability;
  if (const char* sysfs = std::getenv("ZONARA_SYSFS_ROOT"); sysfs && *sysfs) {
    CSystemConfigurationMonitor::setStoreFactory(
        [root = std::string(sysfs)] { return std::make_unique<NetlinkDynamicStore>(root); });
  }
  std::unique_ptr<LocationSensing> sensing;
  SensingLocation location;
  services.location = &location;
  services.sensorAggregator = [&]() -> LocationTrigger* {
    LocationSensing::Dependencies dependencies;
    dependencies.library = &library;
    dependencies.reachability = &reachability;
    dependencies.fetcher = &fetcher;
    dependencies.center = &NotificationCenter::defaultCenter();
    dependencies.dataFolder = dataFolder();
    dependencies.settings = settings;
    try {
      sensing = LocationSensing::create(dependencies);
    } catch (const std::exception& e) {
      // The network watcher could not start: the helper cannot do its job,
      // so it ends (cleanly, through the run loop).
      SystemLogAt(LogPriority::Error, "%s", e.what());
      application.terminate();
      return nullptr;
    }
    location.sensing = sensing.get();
    return &sensing->aggregator();
  };

  // Sleep and wake, when logind is there to tell.
  std::unique_ptr<DBusConnection> systemBus = LogindSleepWatcher::openSystemBus(&error);
  std::unique_ptr<LogindSleepWatcher> sleepWatcher;
  if (systemBus) {
    sleepWatcher = std::make_unique<LogindSleepWatcher>(*systemBus, [&sensing](bool sleeping) {
      if (!sensing) return;
      if (sleeping) {
        sensing->willSleep();
      } else {
        sensing->didWake();
      }
    });
  }

  std::unique_ptr<AppController> controller = AppController::create(std::move(services));
  AppController::setAppController(controller.get());
  application.setDelegate(controller.get());

  application.run();
  // Requests still waiting on a slow server end now, so the workers that
  // made them can be stopped at once.
  fetcher.abortTransfers();
  controller.reset();
  sleepWatcher.reset();
  location.sensing = nullptr;
  sensing.reset();
  Clock::set(nullptr);
  return 0;
}
