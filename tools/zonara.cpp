// zonara: the control program of the Zonara helper (what a preference pane
// does on a desktop): start and stop the helper, report on it, put it into
// the login items, and read and write its preferences.
//
//   zonara status              exit 0 when the helper runs, 3 when it does not;
//                              also says whether polkit lets this user set
//                              the system zone without a password, and the
//                              helper's last position, zone found, distance
//                              to the nearest border and last decision
//   zonara undo                sets the zone that was the system's before
//                              the helper's last change (exit 1 when there is
//                              nothing to undo, 3 when the helper does not run)
//   zonara history             prints the history of the helper's decisions
//                              (app/decision_history.h has the line format)
//   zonara start [--force]     --force starts another copy even if one runs
//   zonara stop
//   zonara login on|off|status
//   zonara get KEY             exit 1 when KEY is not set
//   zonara set KEY VALUE       true/false, integers and reals are stored typed
//   zonara timezone [--border] LATITUDE LONGITUDE | [--border] -
//       The time-zone name the helper would choose at a point (see
//       tools/timezone_command.h): from the boundary data, or the configured
//       time-zone service; --border adds the distance to the nearest border;
//       "-" reads points from standard input.
//   zonara --help
//
// Usage errors exit 2, other failures 1, each with a message on standard
// error. The helper is found the way the preferences controller finds it
// (the running one, else the one inside the Zonara.prefPane this program
// belongs to or that is installed); it is reached over the session bus.
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "app/decision_history.h"
#include "platform/dbus.h"
#include "platform/file_system.h"
#include "platform/polkit.h"
#include "platform/preferences_store.h"
#include "platform/sleep_watcher.h"
#include "platform/zonara_names.h"
#include "platform/xdg.h"
#include "prefs/HelperPreferences.h"
#include "prefs/ZonaraPreferencesController.h"
#include "sensors/location_sensing.h"
#include "sensors/wps_location_library.h"
#include "timezone/boundary_data.h"
#include "timezone/geonames_client.h"
#include "tools/timezone_command.h"

using namespace zonara;

namespace {

constexpr auto kStartStopWait = std::chrono::seconds(10);

const char* const kUsage =
    "usage: zonara COMMAND [ARGUMENTS]\n"
    "\n"
    "Controls the Zonara helper, which keeps the system time zone equal to the\n"
    "zone of where the computer is.\n"
    "\n"
    "commands:\n"
    "  status                     whether the helper runs, its detected zone and\n"
    "                             location, and the preferences in effect\n"
    "                             (exit 0 when it runs, 3 when it does not)\n"
    "  start [--force]            start the helper (--force: another copy even if\n"
    "                             one runs); it is also started at each login if\n"
    "                             the login item is on\n"
    "  stop                       stop the helper\n"
    "  login on|off|status        start the helper when you log in, or not\n"
    "  get KEY                    print a preference\n"
    "  set KEY VALUE              store a preference: true/false, integers and\n"
    "                             reals are stored as such, anything else as text\n"
    "  timezone LATITUDE LONGITUDE\n"
    "                             print the zone the helper would choose there\n"
    "  timezone --border LATITUDE LONGITUDE\n"
    "                             the zone and the metres to its nearest border\n"
    "  timezone [--border] -      the same for each \"LATITUDE LONGITUDE\" line\n"
    "                             of standard input, one answer per line\n"
    "  forget                     delete every place the helper learned\n"
    "  undo                       undo the helper's last time-zone change\n"
    "                             (exit 1 when there is none, 3 when the helper\n"
    "                             does not run)\n"
    "  history                    the helper's decisions, oldest first: time,\n"
    "                             position source, accuracy, position, zone\n"
    "                             found, zones nearby, what was done and why\n"
    "  --help                     this text\n";

// A usage error: the problem and a pointer to the help, or the whole help
// when no command was given.
// The preferences of when the helper looks and what it trusts, with their
// defaults (the others are described in the README).
void printPreferenceDefaults(FILE* out) {
  std::fputs("\npreferences (zonara set KEY VALUE; the helper takes them at once):\n", out);
  for (const HelperPreferenceDefault& preference : helperPreferenceDefaults()) {
    std::fprintf(out, "  %-26s %s (default %s)\n", preference.key, preference.meaning, preference.defaultValue);
  }
}

int usage(const char* problem = nullptr) {
  if (problem) {
    std::fprintf(stderr, "zonara: %s\nRun 'zonara --help' for the commands.\n", problem);
  } else {
    std::fputs(kUsage, stderr);
  }
  return 2;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "zonara: %s\n", message.c_str());
  return 1;
}

// --- The session bus -----------------------------------------------------------

class Bus {
 public:
  Bus() { connection_ = DBusConnection::openSession(&error_); }
  [[nodiscard]] bool ok() const { return connection_ != nullptr; }
  [[nodiscard]] const std::string& error() const { return error_; }

  [[nodiscard]] bool helperServes() const { return connection_ && connection_->nameHasOwner(kHelperBusName); }

  // A string property of the helper, or nullopt (with the reason in `why`).
  [[nodiscard]] std::optional<std::string> helperProperty(const char* name, int timeoutMs, std::string* why) const {
    if (!connection_) return std::nullopt;
    return connection_->stringProperty(kHelperBusName, name, std::chrono::milliseconds(timeoutMs), why);
  }

  // Calls a method of the helper; its answer, or nullopt (with the reason in
  // `why`).
  [[nodiscard]] std::optional<std::string> callHelper(const char* method, int timeoutMs, std::string* why) const {
    if (!connection_) return std::nullopt;
    return connection_->callStringMethod(kHelperBusName, method, std::chrono::milliseconds(timeoutMs), why);
  }

 private:
  std::string error_;
  std::unique_ptr<DBusConnection> connection_;
};

bool waitFor(const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + kStartStopWait;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// --- Values ----------------------------------------------------------------------

std::string formatReal(double d) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  std::string s(buf, ec == std::errc() ? end : buf);
  // Keep reals recognisable as reals ("2.0", not "2").
  if (std::isfinite(d) && s.find_first_of(".e") == std::string::npos) s += ".0";
  return s;
}

std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// Text of a value: scalars plainly at the top; inside arrays and
// dictionaries strings are quoted, in the "( a, b )" / "{ k = v; }" style.
std::string describe(const PrefValue& v, bool nested) {
  switch (v.type()) {
    case PrefValue::Type::String: return nested ? quoted(v.asString()) : v.asString();
    case PrefValue::Type::Boolean: return v.asBool() ? "true" : "false";
    case PrefValue::Type::Integer: return std::to_string(v.asInteger());
    case PrefValue::Type::Real: return formatReal(v.asReal());
    case PrefValue::Type::Data: {
      static const char* kHex = "0123456789abcdef";
      std::string s = "<";
      for (uint8_t b : v.asData()) {
        s += kHex[b >> 4];
        s += kHex[b & 15];
      }
      return s + ">";
    }
    case PrefValue::Type::Array: {
      std::string s = "(";
      bool first = true;
      for (const PrefValue& item : v.asArray()) {
        s += first ? " " : ", ";
        s += describe(item, true);
        first = false;
      }
      return s + (first ? ")" : " )");
    }
    case PrefValue::Type::Dictionary: {
      std::string s = "{";
      for (const auto& [key, item] : v.asDictionary()) s += " " + quoted(key) + " = " + describe(item, true) + ";";
      return s + " }";
    }
  }
  return "";
}

// "true"/"false", an integer, a real, else the text itself.
PrefValue parseValue(const std::string& text) {
  if (text == "true") return PrefValue::boolean(true);
  if (text == "false") return PrefValue::boolean(false);
  if (!text.empty()) {
    errno = 0;
    char* end = nullptr;
    long long i = std::strtoll(text.c_str(), &end, 10);
    if (*end == '\0' && errno == 0 && !std::isspace(static_cast<unsigned char>(text[0]))) {
      return PrefValue::integer(i);
    }
    double d = std::strtod(text.c_str(), &end);
    if (*end == '\0' && std::isfinite(d) && !std::isspace(static_cast<unsigned char>(text[0])) &&
        text.find_first_of("xXnN") == std::string::npos) {
      return PrefValue::real(d);
    }
  }
  return PrefValue::string(text);
}

// --- Commands ----------------------------------------------------------------------

std::string cannotFindHelper() {
  return "cannot find the ZonaraHelper application (Zonara.prefPane/Contents/Resources/ZonaraHelper.app); "
         "is Zonara installed?";
}

// What polkit says about this user setting the system zone without a prompt.
std::string timezonePermission() {
  std::string error;
  std::unique_ptr<DBusConnection> system = LogindSleepWatcher::openSystemBus(&error);
  if (!system) return "cannot tell: no system bus (" + error + ")";
  const PolkitVerdict verdict = CheckPolkitAuthorization(*system, kSetTimezoneAction);
  switch (verdict.answer) {
    case PolkitVerdict::Answer::Allowed:
      return "allowed";
    case PolkitVerdict::Answer::NeedsPassword:
      return "not allowed, polkit asks for an administrator password; install Zonara's rule "
             "50-zonara-timezone.rules (share/polkit-1/rules.d of the installation) into /etc/polkit-1/rules.d/";
    case PolkitVerdict::Answer::Denied:
      return "not allowed by polkit";
    case PolkitVerdict::Answer::Unknown:
      break;
  }
  return "cannot tell: polkit does not answer (" + verdict.detail + ")";
}

// Where zones come from, and which boundaries the data on this computer holds
// (with the attribution its licence asks for).
void printTimeZoneSource() {
  PreferencesDomain helperPrefs(kPreferencesDomain);
  const GeoNamesClient::Config config = GeoNamesClient::configFromPreferences(helperPrefs);
  std::string error;
  const zonara::timezone::BoundaryData data =
      zonara::timezone::openBoundaryData(zonara::timezone::BoundaryDataSearch::forThisProcess(), &error);
  if (data.index) {
    std::printf("Time-zone boundaries: %s, %zu zones, (c) OpenStreetMap contributors, ODbL (%s)\n",
                data.index->release().c_str(), data.index->zoneCount(), data.path.c_str());
  } else {
    std::printf("Time-zone boundaries: unavailable (%s)\n", error.c_str());
  }
  if (!config.serviceURL.empty()) {
    std::printf("Time zones from: the time-zone service at %s\n", config.serviceURL.c_str());
  } else {
    std::printf("Time zones from: %s\n",
                data.index ? "the boundary data" : "nowhere (no boundary data, no TimezoneServiceURL)");
  }
}

// The helper's last position, what it found there and what it did.
void printLastDecision(const Bus& bus) {
  auto show = [&bus](const char* label, const char* property) {
    std::string why;
    std::optional<std::string> value = bus.helperProperty(property, 5000, &why);
    std::printf("%s: %s\n", label,
                !value ? ("unavailable (" + why + ")").c_str() : value->empty() ? "none yet" : value->c_str());
  };
  show("Last position", kLastPositionProperty);
  show("Zone found", kZoneFoundProperty);
  show("Distance to the nearest border", kBorderDistanceProperty);
  show("Last decision", kLastDecisionProperty);
  show("Reason", kLastDecisionReasonProperty);
}

int statusCommand() {
  ZonaraPreferencesController& prefs = ZonaraPreferencesController::sharedController();
  Bus bus;
  const bool serving = bus.helperServes();
  std::unique_ptr<Bundle> running = prefs.runningHelperAppBundle();
  const bool isRunning = serving || running != nullptr;
  std::printf("ZonaraHelper: %s\n", isRunning ? "running" : "not running");
  if (running) std::printf("Helper bundle: %s\n", running->bundlePath().c_str());
  if (!bus.ok()) {
    std::printf("Session bus: unavailable (%s)\n", bus.error().c_str());
  } else if (serving) {
    std::string why;
    std::optional<std::string> zone = bus.helperProperty(kDetectedTimezoneProperty, 5000, &why);
    std::printf("Detected time zone: %s\n",
                !zone ? ("unavailable (" + why + ")").c_str() : zone->empty() ? "none yet" : zone->c_str());
    std::optional<std::string> location = bus.helperProperty(kCurrentLocationProperty, 5000, &why);
    std::printf("Current location: %s\n", location ? location->c_str() : ("unavailable (" + why + ")").c_str());
    printLastDecision(bus);
  } else if (isRunning) {
    std::printf("Detected time zone: unavailable (the helper does not serve this session's bus)\n");
  }
  printTimeZoneSource();
  PreferencesDomain helperPrefs(kPreferencesDomain);
  const bool learning = LocationSensingSettings::fromPreferences(helperPrefs, WPS_DEFAULT_SERVER_URL).learnPlaces;
  const LearnedPlaces::Counts learned = LearnedPlaces(xdgDataHome() + "/Zonara").counts();
  std::printf("Learned places: %lu access points at %lu places%s\n", learned.accessPoints, learned.places,
              learning ? "" : " (LearnPlaces is off: not used)");
  std::printf("Start at login: %s\n", prefs.shouldStartZonaraAtLogin() ? "on" : "off");
  std::printf("Setting the time zone without a password: %s\n", timezonePermission().c_str());
  std::printf("Preferences (%s):\n", kPreferencesDomain);
  const PrefValue::Dictionary all = prefs.dictionaryRepresentation();
  if (all.empty()) std::printf("  (none set)\n");
  for (const auto& [key, value] : all) std::printf("  %s = %s\n", key.c_str(), describe(value, true).c_str());
  return isRunning ? 0 : 3;
}

int undoCommand() {
  Bus bus;
  if (!bus.ok()) return fail("no session bus (" + bus.error() + "); cannot reach the helper");
  if (!bus.helperServes()) {
    std::fprintf(stderr, "zonara: ZonaraHelper is not running; nothing to undo\n");
    return 3;
  }
  std::string why;
  std::optional<std::string> answer = bus.callHelper(kUndoMethod, 30000, &why);
  if (!answer) return fail(why);
  std::printf("%s\n", answer->c_str());
  return 0;
}

int historyCommand() {
  const std::string path = DecisionHistory::defaultPath();
  std::optional<std::string> text = readFile(path);
  if (!text) {
    if (pathExists(path)) return fail("cannot read " + path);
    std::printf("No decisions yet (%s does not exist)\n", path.c_str());
    return 0;
  }
  std::fputs(text->c_str(), stdout);
  return 0;
}

int forgetCommand() {
  const unsigned long forgotten = LearnedPlaces(xdgDataHome() + "/Zonara").forget();
  std::printf("Forgot %lu learned access point%s\n", forgotten, forgotten == 1 ? "" : "s");
  return 0;
}

int startCommand(int argc, char** argv) {
  bool force = false;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--force") == 0) {
      force = true;
    } else {
      return usage(("start: unknown argument " + std::string(argv[i])).c_str());
    }
  }
  ZonaraPreferencesController& prefs = ZonaraPreferencesController::sharedController();
  Bus bus;
  if (!force && (bus.helperServes() || prefs.isZonaraRunning())) {
    prefs.setBoolForKey(true, ZonaraPreferencesController::kZonaraEnabledKey);
    std::printf("ZonaraHelper is already running\n");
    return 0;
  }
  if (!prefs.setZonaraRunning(true, force)) {
    return fail(prefs.helperAppBundle() ? "cannot start " + prefs.helperAppBundle()->bundlePath() : cannotFindHelper());
  }
  if (!bus.ok()) {
    return fail("ZonaraHelper was launched, but there is no session bus (" + bus.error() +
                "); without one it does nothing");
  }
  if (!waitFor([&] { return bus.helperServes(); })) return fail("ZonaraHelper was launched but did not start");
  std::fputs(force ? "ZonaraHelper started (another copy)\n" : "ZonaraHelper started\n", stdout);
  return 0;
}

int stopCommand(int argc) {
  if (argc != 2) return usage("stop takes no arguments");
  ZonaraPreferencesController& prefs = ZonaraPreferencesController::sharedController();
  Bus bus;
  const bool serving = bus.helperServes();
  prefs.setZonaraRunning(false, false);
  if (!bus.ok()) return fail("no session bus (" + bus.error() + "); cannot reach the helper");
  if (!serving) {
    std::printf("ZonaraHelper is not running\n");
    return 0;
  }
  if (!waitFor([&] { return !bus.helperServes(); })) return fail("ZonaraHelper did not stop");
  std::printf("ZonaraHelper stopped\n");
  return 0;
}

int loginCommand(int argc, char** argv) {
  if (argc != 3) return usage("login takes one of on, off, status");
  ZonaraPreferencesController& prefs = ZonaraPreferencesController::sharedController();
  const std::string what = argv[2];
  if (what == "status") {
    std::printf("%s\n", prefs.shouldStartZonaraAtLogin() ? "on" : "off");
    return 0;
  }
  if (what != "on" && what != "off") return usage(("login: unknown argument " + what).c_str());
  const bool enable = what == "on";
  if (!prefs.setShouldStartZonaraAtLogin(enable)) return fail(cannotFindHelper());
  if (prefs.shouldStartZonaraAtLogin() != enable) {
    return fail(std::string("cannot change the login items in ") + LoginItemsFolder());
  }
  std::fputs(enable ? "ZonaraHelper will start at login\n" : "ZonaraHelper will not start at login\n", stdout);
  return 0;
}

int getCommand(int argc, char** argv) {
  if (argc != 3 || argv[2][0] == '\0') return usage("get takes one KEY");
  std::optional<PrefValue> value = ZonaraPreferencesController::sharedController().objectForKey(argv[2]);
  if (!value) return fail(std::string(argv[2]) + " is not set");
  std::printf("%s\n", describe(*value, false).c_str());
  return 0;
}

int setCommand(int argc, char** argv) {
  if (argc != 4 || argv[2][0] == '\0') return usage("set takes a KEY and a VALUE");
  ZonaraPreferencesController& prefs = ZonaraPreferencesController::sharedController();
  const PrefValue value = parseValue(argv[3]);
  prefs.setObjectForKey(value, argv[2]);
  PreferencesDomain check(kPreferencesDomain);
  if (check.copyValue(argv[2]) != value) {
    return fail("cannot write " + check.path());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsage, stdout);
    printPreferenceDefaults(stdout);
    return 0;
  }
  if (command == "status") return argc == 2 ? statusCommand() : usage("status takes no arguments");
  if (command == "start") return startCommand(argc, argv);
  if (command == "stop") return stopCommand(argc);
  if (command == "login") return loginCommand(argc, argv);
  if (command == "forget") return argc == 2 ? forgetCommand() : usage("forget takes no arguments");
  if (command == "undo") return argc == 2 ? undoCommand() : usage("undo takes no arguments");
  if (command == "history") return argc == 2 ? historyCommand() : usage("history takes no arguments");
  if (command == "get") return getCommand(argc, argv);
  if (command == "set") return setCommand(argc, argv);
  if (command == "timezone") {
    return runTimezoneCommand(std::vector<std::string>(argv + 2, argv + argc), stdin, stdout, stderr);
  }
  return usage(("unknown command " + command).c_str());
}
