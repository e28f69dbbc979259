// ZonaraHelper: the background helper that keeps the system time zone equal
// to the zone of where the computer is.
//
// main puts the helper together in three steps -- the clock, the platform
// services, location sensing -- hands them to the AppController and runs the
// application until it is asked to end.
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "app/app_controller.h"
#include "app/zonara_application.h"
#include "platform/clock.h"
#include "platform/file_system.h"
#include "platform/processes.h"
#include "platform/sleep_watcher.h"
#include "platform/system_log.h"
#include "platform/termination_signals.h"
#include "platform/vpn_detector.h"
#include "platform/xdg.h"
#include "platform/zonara_names.h"
#include "sensors/location_sensing.h"
#include "sensors/wps_location_library.h"
#include "timezone/boundary_data.h"
#include "wps/api/wpsapi.h"

using namespace zonara;

namespace {

// --- The clock ----------------------------------------------------------------

// ZONARA_TIME_SCALE speeds up the clock the helper shares with the positioning
// library, for tests and the demonstration: every timer, pause, retry delay
// and scan period is shortened alike, nothing else changes.
void applyTimeScale() {
  const char* scale = std::getenv("ZONARA_TIME_SCALE");
  if (!scale || !*scale) return;
  std::optional<double> factor = Clock::parseFactor(scale);
  if (!factor) {
    SystemLogAt(LogPriority::Warning, "ignoring ZONARA_TIME_SCALE=%s: not a number >= 1", scale);
    return;
  }
  if (*factor > 1.0) (void)WPS_set_time_scale(*factor);
}

// --- The platform services ------------------------------------------------------

// The icon: a resource of the helper's bundle when the program runs from
// one (<bundle>/Contents/MacOS/ZonaraHelper ->
// <bundle>/Contents/Resources/Zonara.png), else beside the program:
// <prefix>/share/zonara/Zonara.png for <prefix>/bin/ZonaraHelper.
std::string iconPath() {
  const std::string exe = currentExecutablePath();
  if (exe.empty()) return "";
  const std::string dir = exe.substr(0, exe.rfind('/'));
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
  const std::string exe = currentExecutablePath();
  const size_t lib = exe.rfind("/lib/zonara/");
  if (lib == std::string::npos) return "";
  std::string rule = exe.substr(0, lib) + "/share/polkit-1/rules.d/50-zonara-timezone.rules";
  return isRegularFile(rule) ? rule : "";
}

// The link (or file) the system's current zone is read from. Tests and the
// demonstration point ZONARA_LOCALTIME at a private link that their
// set-time-zone command re-points, so the real system is never involved.
std::string localtimePath() {
  if (const char* path = std::getenv("ZONARA_LOCALTIME"); path && *path) return path;
  return "/etc/localtime";
}

// The time-zone boundary data, opened once for the helper's lifetime; its
// absence is logged (zones then come only from a configured service).
zonara::timezone::BoundaryData openBoundaryData() {
  std::string error;
  zonara::timezone::BoundaryData data =
      zonara::timezone::openBoundaryData(zonara::timezone::BoundaryDataSearch::forThisProcess(), &error);
  if (data.index) {
    SystemLog("time-zone boundary data: %s (%s)", data.index->release().c_str(), data.path.c_str());
  } else {
    SystemLogAt(LogPriority::Warning, "%s", error.c_str());
  }
  return data;
}

// Refuses every name: used when there is no session bus at all, so the
// helper ends up inert as it does when another copy holds the name.
class NoBusServer final : public BusNameServer {
 public:
  using BusNameServer::start;
  bool start(const std::map<std::string, PropertyGetter>&, const std::map<std::string, MethodHandler>&) override {
    return false;
  }
  void propertiesChanged(const std::map<std::string, std::string>&, const std::vector<std::string>&) override {}
};

// The Linux services the helper works with, for this session.
struct PlatformServices {
  PlatformServices() {
    std::string error;
    bus = DBusConnection::openSession(&error);
    if (!bus) {
      SystemLogAt(LogPriority::Error, "no session bus: %s", error.c_str());
      server = std::make_unique<NoBusServer>();
      return;
    }
    distributed = std::make_unique<DBusDistributedNotificationCenter>(*bus);
    server = std::make_unique<DBusNameServer>(*bus, kHelperBusName);
    notifier = std::make_unique<FreedesktopNotifier>(*bus, kApplicationName);
  }

  PreferencesDomain preferences{kPreferencesDomain};
  std::unique_ptr<DBusConnection> bus;
  std::unique_ptr<DistributedNotificationCenter> distributed;  // null without a bus
  std::unique_ptr<BusNameServer> server;
  std::unique_ptr<DesktopNotifier> notifier;  // null without a bus
  SubprocessCommandRunner commandRunner;
  LinuxWorkspace workspace;
  DateTzDatabase zones{localtimePath()};
  CurlHttpFetcher fetcher;
  const zonara::timezone::BoundaryData boundaries = openBoundaryData();
};

// --- Location sensing -----------------------------------------------------------

// Location sensing, made when the controller sets up its sensors; until then
// (and after `stop`) there is no position.
class HelperSensing final : public LocationSource {
 public:
  HelperSensing(PlatformServices& services, ZonaraApplication& application)
      : services_(services),
        application_(application),
        settings_(LocationSensingSettings::fromPreferences(services.preferences, WPS_DEFAULT_SERVER_URL)) {
    applyLibrarySettings();
    // Tests and the demonstration present a link of their own as the
    // wireless interface.
    if (const char* sysfs = std::getenv("ZONARA_SYSFS_ROOT"); sysfs && *sysfs) {
      CSystemConfigurationMonitor::setStoreFactory(
          [root = std::string(sysfs)] { return std::make_unique<NetlinkDynamicStore>(root); });
    }
  }

  // Takes the location settings anew from the (just re-read) preferences;
  // when they changed, looks for the position again with them.
  void reloadSettings() {
    LocationSensingSettings fresh =
        LocationSensingSettings::fromPreferences(services_.preferences, WPS_DEFAULT_SERVER_URL);
    if (fresh == settings_) return;
    settings_ = std::move(fresh);
    applyLibrarySettings();
    if (!sensing_) return;
    sensing_->applySettings(settings_);
    sensing_->lookAgain();
  }

  void lookAgain() {
    if (sensing_) sensing_->lookAgain();
  }

  // Makes the sensors; the aggregator is the controller's trigger. Null when
  // the network watcher cannot start: the helper cannot do its job then, so
  // it ends (cleanly, through the run loop).
  LocationTrigger* start() {
    LocationSensing::Dependencies dependencies;
    dependencies.library = &library_;
    dependencies.reachability = &reachability_;
    dependencies.fetcher = &services_.fetcher;
    dependencies.center = &NotificationCenter::defaultCenter();
    dependencies.dataFolder = xdgDataHome() + "/Zonara";
    dependencies.settings = settings_;
    try {
      sensing_ = LocationSensing::create(dependencies);
    } catch (const std::exception& e) {
      SystemLogAt(LogPriority::Error, "%s", e.what());
      application_.terminate();
      return nullptr;
    }
    return &sensing_->aggregator();
  }

  // Stops the sensors and waits for their threads.
  void stop() { sensing_.reset(); }

  void sleepChanged(bool sleeping) {
    if (!sensing_) return;
    if (sleeping) {
      sensing_->willSleep();
    } else {
      sensing_->didWake();
    }
  }

  std::optional<double> currentLongitude() const override {
    return sensing_ ? sensing_->telluroSensor().currentLongitude() : std::nullopt;
  }
  std::optional<double> currentLatitude() const override {
    return sensing_ ? sensing_->telluroSensor().currentLatitude() : std::nullopt;
  }
  std::optional<PositionQuality> currentQuality() const override {
    return sensing_ ? sensing_->telluroSensor().currentQuality() : std::nullopt;
  }

 private:
  // The positioning library's server and learned places.
  void applyLibrarySettings() {
    WpsLocationLibrary::setServerURL(settings_.positioningServerURL);
    if (settings_.learnPlaces) {
      const bool learning = LearnedPlaces(xdgDataHome() + "/Zonara").enable();
      SystemLog("learned places: %s", learning ? "on" : "unavailable (no realm can be kept)");
    } else {
      LearnedPlaces::disable();
      SystemLog("learned places: off (LearnPlaces)");
    }
    SystemLog("positioning server: %s",
              settings_.positioningServerURL.empty() ? "none" : settings_.positioningServerURL.c_str());
  }

  PlatformServices& services_;
  ZonaraApplication& application_;
  LocationSensingSettings settings_;
  WpsLocationLibrary library_;
  LinuxReachability reachability_;
  std::unique_ptr<LocationSensing> sensing_;
};

// The system bus (null without one), for logind and NetworkManager.
std::unique_ptr<DBusConnection> openSystemBus() {
  std::string error;
  std::unique_ptr<DBusConnection> bus = LogindSleepWatcher::openSystemBus(&error);
  if (!bus) SystemLog("no system bus: %s", error.c_str());
  return bus;
}

// Sleep and wake, when logind is there to tell.
class SleepWatch {
 public:
  SleepWatch(DBusConnection* systemBus, HelperSensing& sensing) {
    if (!systemBus) return;
    watcher_ = std::make_unique<LogindSleepWatcher>(
        *systemBus, [&sensing](bool sleeping) { sensing.sleepChanged(sleeping); });
  }

 private:
  std::unique_ptr<LogindSleepWatcher> watcher_;
};

// --- The controller -------------------------------------------------------------

AppController::Services controllerServices(ZonaraApplication& application, PlatformServices& platform,
                                           HelperSensing& sensing, VpnDetector& vpn) {
  AppController::Services services;
  services.application = &application;
  services.runLoop = &RunLoop::main();
  services.notificationCenter = &NotificationCenter::defaultCenter();
  services.distributedCenter = platform.distributed.get();
  services.server = platform.server.get();
  services.commandRunner = &platform.commandRunner;
  services.workspace = &platform.workspace;
  services.notifier = platform.notifier.get();
  services.zones = &platform.zones;
  services.fetcher = &platform.fetcher;
  services.boundaries = platform.boundaries.index.get();
  services.preferences = &platform.preferences;
  services.iconPath = iconPath();
  services.polkitRulePath = polkitRulePath();
  services.location = &sensing;
  services.sensorAggregator = [&sensing] { return sensing.start(); };
  services.vpn = &vpn;
  services.lookAgain = [&sensing] { sensing.lookAgain(); };
  services.preferencesReloaded = [&sensing] { sensing.reloadSettings(); };
  return services;
}

}  // namespace

int main() {
  applyTimeScale();
  // The positioning library looks for its logging configuration in the
  // running program's preferences domain: ours.
  WPS_set_preferences_domain(kPreferencesDomain);

  ZonaraApplication& application = ZonaraApplication::sharedApplication();
  // Ending by signal is ending like "ZonaraShutdown": the loop returns and
  // everything is released in order.
  onTerminationSignals([&application] { application.terminate(); });

  PlatformServices platform;
  HelperSensing sensing(platform, application);
  std::unique_ptr<DBusConnection> systemBus = openSystemBus();
  std::optional<SleepWatch> sleepWatch(std::in_place, systemBus.get(), sensing);
  LinuxVpnDetector vpn(systemBus.get());

  std::unique_ptr<AppController> controller =
      AppController::create(controllerServices(application, platform, sensing, vpn));
  AppController::setAppController(controller.get());
  application.setDelegate(controller.get());

  application.run();
  // Requests still waiting on a slow server end now, so the workers that
  // made them can be stopped at once.
  platform.fetcher.abortTransfers();
  controller.reset();
  sleepWatch.reset();
  sensing.stop();
  return 0;
}
