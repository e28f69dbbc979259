// The helper's services for tests that start an `AppController` in the test
// process: real files, a real set-time-zone command, a real zone database and
// a real HTTP client, with recording stand-ins for the desktop and the bus.
//
// Under `root` (which must exist) it makes:
//   config/     the helper's preferences domain and other applications' ones;
//   data/       the XDG data folder (made by the helper);
//   state/      the helper's history (state/zonara/history, made by the helper);
//   timezone    the system's zone as a name file (read by `zones`);
//   commands    one line per run of the set-time-zone command.
// The helper's preferences already name the set-time-zone command, which
// records the zone in `commands` and writes it to `timezone`, so the helper
// reads back the zone it applied; tests add the service URLs they need and
// synchronize.
//
// Every service is a public member, for tests to inspect or replace in the
// `AppController::Services` they pass on. Use from the test's thread.
#pragma once

#include <string>
#include <vector>

#include "app/app_controller.h"
#include "app/zonara_application.h"
#include "platform/command_runner.h"
#include "platform/http_fetcher.h"
#include "platform/notification_center.h"
#include "platform/preferences_store.h"
#include "platform/run_loop.h"
#include "platform/testing/fakes.h"
#include "platform/time_zone_database.h"

namespace zonara::testing {

class HelperServices {
 public:
  // The system's zone starts as `systemZone`.
  explicit HelperServices(const std::string& root, const std::string& systemZone = "UTC");
  HelperServices(const HelperServices&) = delete;
  HelperServices& operator=(const HelperServices&) = delete;

  // Every service above; `location` and `sensorAggregator` are left for the
  // test to set.
  [[nodiscard]] AppController::Services services();

  [[nodiscard]] std::string configFolder() const { return root_ + "/config"; }
  [[nodiscard]] std::string dataHome() const { return root_ + "/data"; }
  [[nodiscard]] std::string timezoneFile() const { return root_ + "/timezone"; }
  [[nodiscard]] std::string historyFile() const { return root_ + "/state/zonara/history"; }
  // The zones the set-time-zone command was run with, in order.
  [[nodiscard]] std::vector<std::string> commands() const;

 private:
  const std::string root_;

 public:
  ZonaraApplication application{RunLoop::main()};
  NotificationCenter center;
  InProcessDistributedNotificationCenter distributed;
  FakeBusNameServer server;
  SubprocessCommandRunner runner;
  FakeWorkspace workspace;
  RecordingDesktopNotifier notifier;
  CurlHttpFetcher fetcher;
  DateTzDatabase zones;
  // The helper's own domain (kPreferencesDomain) in configFolder().
  PreferencesDomain preferences;
};

}  // namespace zonara::testing
