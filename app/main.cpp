// ZonaraHelper: the background helper that keeps the system time zone equal
// to the zone of where the computer is.
#include <glib-unix.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "app/app_controller.h"
#include "app/zonara_application.h"
#include "platform/system_log.h"
#include "wps/spi/logger.h"

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

// Refuses every name: used when there is no session bus at all, so the
// helper ends up inert as it does when another copy holds the name.
class NoBusServer final : public BusNameServer {
 public:
  bool start(const std::map<std::string, PropertyGetter>&) override { return false; }
  void propertiesChanged(const std::map<std::string, std::string>&, const std::vector<std::string>&) override {}
};

}  // namespace

int main() {
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
  DateTzDatabase zones;
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
  // Location sensing plugs in here (services.location, services.sensorAggregator).

  std::unique_ptr<AppController> controller = AppController::create(std::move(services));
  AppController::setAppController(controller.get());
  application.setDelegate(controller.get());

  application.run();
  return 0;
}
