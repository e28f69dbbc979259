// zonara-demo-services: the stand-in world of the demonstration (scripts/demo).
//
// On 127.0.0.1 it serves a positioning server that locates the access points
// of the data set, registers users and offers the tile files built from it;
// a geolocation JSON API server that knows the same access points and places
// the computer's IP address in the IP city;
// a time-zone service and an IP-location page for the cities of the table
// (not with --without-city-services: zones then come from the boundary data
// alone, and the IP position from the geolocation server).
// On the session bus (DBUS_SESSION_BUS_ADDRESS) it is the desktop
// notification service. Everything it is asked, and every notification (with
// its id and its actions), is printed as it happens.
//
// A script presses a notification's button the way a user would, through the
// service's control method (platform/testing/fakes.h):
//   gdbus call --session --dest org.freedesktop.Notifications
//     --object-path /org/freedesktop/Notifications
//     --method org.quillon.Zonara.FakeNotifications.InvokeAction 0 undo
// (one command line)
// (0: the newest notification offering the action; the keys are "undo",
// "change" and "keep"). The helper then receives ActionInvoked.
//
// When it is ready it writes the servers' addresses to the --ready file, as
// shell assignments:
//   POSITIONING_SERVER_URL=http://127.0.0.1:PORT
//   GEOLOCATION_SERVER_URL=http://127.0.0.1:PORT/v1/geolocate
//   CITY_SERVICES_URL=http://127.0.0.1:PORT      (not with --without-city-services)
// and it appends "SUMMARY: BODY" for each notification to the
// --notifications file. It runs until SIGTERM or SIGINT.
//
// Exit status: 0 after a signal, 1 when it cannot start (bad files, no
// session bus, no port), 2 for usage errors.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/dbus.h"
#include "platform/file_system.h"
#include "platform/mutex.h"
#include "platform/run_loop.h"
#include "platform/termination_signals.h"
#include "platform/testing/fakes.h"
#include "tools/demo/demo_services.h"
#include <nlohmann/json.hpp>

#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/testing/geolocation_server.h"

using namespace zonara;
using namespace zonara::demo;
using WPS::API::testing::FakePositioningServer;
using WPS::API::testing::GeolocationServer;

namespace {

const char kUsage[] =
    "usage: zonara-demo-services --cities FILE --access-points CSV... --ready FILE\n"
    "                            [--tile ID_VERSION=FILE]... [--ip-city ID] [--notifications FILE]\n"
    "                            [--without-city-services]\n";

struct Options {
  std::string cities;
  std::vector<std::string> accessPoints;
  std::vector<std::pair<std::string, std::string>> tiles;  // "paris_1", file
  std::string ipCity;
  std::string ready;
  std::string notifications;
  bool cityServices = true;
};

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--without-city-services") {
      options.cityServices = false;
      continue;
    }
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    if (option == "--cities") {
      options.cities = value;
    } else if (option == "--access-points") {
      options.accessPoints.push_back(value);
    } else if (option == "--tile") {
      const size_t equals = value.find('=');
      if (equals == std::string::npos || value.find('_') > equals) return false;
      options.tiles.emplace_back(value.substr(0, equals), value.substr(equals + 1));
    } else if (option == "--ip-city") {
      options.ipCity = value;
    } else if (option == "--ready") {
      options.ready = value;
    } else if (option == "--notifications") {
      options.notifications = value;
    } else {
      return false;
    }
  }
  return !options.cities.empty() && !options.accessPoints.empty() && !options.ready.empty();
}

Mutex g_outputMutex;

// One line of live output.
void say(const std::string& line) {
  MutexLock lock(g_outputMutex);
  std::printf("  %s\n", line.c_str());
  std::fflush(stdout);
}

std::string degrees(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", value);
  return text;
}

// Reports the positioning server's requests in the order they came. What a
// location request was answered is told by the locator (`located`), on the
// server's thread; the report waits for it.
class RequestReporter {
 public:
  explicit RequestReporter(FakePositioningServer& server) : server_(server) {}
  void located(std::string line) {
    MutexLock lock(mu_);
    answers_.push_back(std::move(line));
  }
  void poll() {
    const std::vector<testing::HttpRequest> requests = server_.http().requests();
    for (; seen_ < requests.size(); ++seen_) {
      const testing::HttpRequest& request = requests[seen_];
      const std::string path = request.path();
      if (path == "/location") {
        MutexLock lock(mu_);
        if (answers_.empty()) return;  // being answered: next time
        say(answers_.front());
        answers_.erase(answers_.begin());
      } else if (path == "/registration") {
        say("positioning server: registration of a new user");
      } else if (path == "/tiling") {
        say("positioning server: tiling request; offering the tiles of every city");
      } else if (path.rfind("/tiles/", 0) == 0) {
        say("positioning server: download of tile " + path.substr(7, path.rfind('/') - 7));
      } else {
        say("positioning server: " + request.method + " " + path + " (not served)");
      }
    }
  }

 private:
  FakePositioningServer& server_;
  size_t seen_ = 0;
  Mutex mu_;
  std::vector<std::string> answers_ ZONARA_GUARDED_BY(mu_);
};

// Reports the geolocation server's requests: what each asked and where the
// server's data places it.
class GeolocationReporter {
 public:
  GeolocationReporter(GeolocationServer& server, const AccessPointLocator& locator, const CityTable& cities,
                      const City& ipCity)
      : server_(server), locator_(locator), cities_(cities), ipCity_(ipCity) {}
  void poll() {
    const std::vector<testing::HttpRequest> requests = server_.http().requests();
    for (; seen_ < requests.size(); ++seen_) say("geolocation server: " + describe(requests[seen_]));
  }

 private:
  std::string describe(const testing::HttpRequest& request) const {
    const nlohmann::json body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object()) return request.method + " " + request.path() + " (not a JSON request)";
    auto accessPoints = body.find("wifiAccessPoints");
    if (accessPoints == body.end() || !accessPoints->is_array() || accessPoints->empty()) {
      return "IP-address request: " + ipCity_.name + " (marked as an IP-address position)";
    }
    std::vector<std::string> macs;
    for (const nlohmann::json& entry : *accessPoints) {
      if (entry.is_object() && entry.contains("macAddress") && entry["macAddress"].is_string())
        macs.push_back(entry["macAddress"].get<std::string>());
    }
    const std::optional<AccessPointLocator::Fix> fix = locator_.locate(macs);
    const std::string asked = "Wi-Fi request with " + std::to_string(macs.size()) + " access points, ";
    if (!fix) return asked + "none known: notFound";
    return asked + std::to_string(fix->known) + " known: " + degrees(fix->latitude) + " " + degrees(fix->longitude) +
           " (" + cities_.nearest(fix->latitude, fix->longitude).name + ")";
  }

  GeolocationServer& server_;
  const AccessPointLocator& locator_;
  const CityTable& cities_;
  const City& ipCity_;
  size_t seen_ = 0;
};

// The stand-in world read from the files: the cities, the access points
// and the tile files served.
struct World {
  CityTable table;
  const City* ipCity = nullptr;  // in `table`
  AccessPointLocator locator;
  std::vector<FakePositioningServer::Tile> tiles;
};

// Reads the files the options name; null (after saying why) when one
// cannot be read or is malformed.
std::unique_ptr<World> loadWorld(const Options& options) {
  std::string error;
  const std::optional<std::string> citiesText = readFile(options.cities);
  std::istringstream citiesIn(citiesText.value_or(""));
  std::optional<CityTable> table = citiesText ? CityTable::parse(citiesIn, error) : std::nullopt;
  if (!table) {
    std::fprintf(stderr, "zonara-demo-services: %s: %s\n", options.cities.c_str(),
                 citiesText ? error.c_str() : "cannot read");
    return nullptr;
  }
  auto world = std::make_unique<World>(World{std::move(*table), nullptr, {}, {}});
  world->ipCity = options.ipCity.empty() ? &world->table.cities().front() : world->table.find(options.ipCity);
  if (!world->ipCity) {
    std::fprintf(stderr, "zonara-demo-services: no city %s in %s\n", options.ipCity.c_str(), options.cities.c_str());
    return nullptr;
  }
  for (const std::string& path : options.accessPoints) {
    const std::optional<std::string> text = readFile(path);
    std::istringstream in(text.value_or(""));
    if (!text || !world->locator.addCSV(in, error)) {
      std::fprintf(stderr, "zonara-demo-services: %s: %s\n", path.c_str(), text ? error.c_str() : "cannot read");
      return nullptr;
    }
  }
  for (const auto& [name, path] : options.tiles) {
    std::optional<std::string> bytes = readFile(path);
    if (!bytes) {
      std::fprintf(stderr, "zonara-demo-services: cannot read the tile file %s\n", path.c_str());
      return nullptr;
    }
    world->tiles.push_back({name.substr(0, name.rfind('_')), name.substr(name.rfind('_') + 1), std::move(*bytes)});
  }
  return world;
}

// The servers on 127.0.0.1, answering from the world, and the reports of
// what they are asked.
class Servers {
 public:
  // Throws std::runtime_error when a server cannot listen.
  Servers(const World& world, bool cityServices)
      : world_(world),
        positioning_(std::make_unique<FakePositioningServer>()),
        geolocation_(std::make_unique<GeolocationServer>()),
        cityServices_(cityServices ? std::make_unique<CityServices>(world.table, *world.ipCity, say) : nullptr),
        reporter_(*positioning_),
        geolocationReporter_(*geolocation_, world.locator, world.table, *world.ipCity) {
    for (const FakePositioningServer::Tile& tile : world.tiles) positioning_->addTile(tile);
    for (const WPS::API::LocatedAccessPoint& accessPoint : world.locator.accessPoints()) {
      geolocation_->addAccessPoint(accessPoint.mac.toColonString(), accessPoint.latitude, accessPoint.longitude);
    }
    geolocation_->setIpLocation(std::make_pair(world.ipCity->latitude, world.ipCity->longitude));
    // Called under the server's lock: it touches only the tables and the
    // reporter's own list.
    positioning_->setLocator([this](const testing::HttpRequest& request) { return locate(request); });
  }

  ~Servers() {
    // The servers stop (and join their threads) before the reporters they use go.
    positioning_.reset();
    geolocation_.reset();
    cityServices_.reset();
  }

  // The addresses, as shell assignments for the --ready file.
  [[nodiscard]] std::string addresses() const {
    std::string text =
        "POSITIONING_SERVER_URL=" + positioning_->url() + "\nGEOLOCATION_SERVER_URL=" + geolocation_->url() + "\n";
    if (cityServices_) text += "CITY_SERVICES_URL=" + cityServices_->url() + "\n";
    return text;
  }

  // Prints the requests that came since the last call.
  void report() {
    reporter_.poll();
    geolocationReporter_.poll();
  }

 private:
  std::optional<WPS::API::LocatedAccessPoint> locate(const testing::HttpRequest& request) {
    const std::vector<std::string> macs = RequestMacs(request.body);
    const std::optional<AccessPointLocator::Fix> fix = world_.locator.locate(macs);
    const std::string asked = "positioning server: location request with " + std::to_string(macs.size()) +
                              " access points, ";
    if (!fix) {
      reporter_.located(asked + "none known: no location");
      return std::nullopt;
    }
    reporter_.located(asked + std::to_string(fix->known) + " known: " + degrees(fix->latitude) + " " +
                      degrees(fix->longitude) + " (" + world_.table.nearest(fix->latitude, fix->longitude).name +
                      ")");
    WPS::API::LocatedAccessPoint where;
    where.latitude = fix->latitude;
    where.longitude = fix->longitude;
    return where;
  }

  const World& world_;
  std::unique_ptr<FakePositioningServer> positioning_;
  std::unique_ptr<GeolocationServer> geolocation_;
  std::unique_ptr<CityServices> cityServices_;
  RequestReporter reporter_;
  GeolocationReporter geolocationReporter_;
};

// Reports requests every 0.1 s until SIGTERM or SIGINT.
void reportUntilSignalled(Servers& servers) {
  RunLoop& loop = RunLoop::main();
  onTerminationSignals([&loop] { loop.stop(); });
  const RunLoop::TimerId timer =
      loop.addTimer(std::chrono::milliseconds(100), true, [&servers] { servers.report(); });
  loop.run();
  loop.cancelTimer(timer);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::unique_ptr<World> world = loadWorld(options);
  if (!world) return 1;

  std::string error;
  std::unique_ptr<DBusConnection> bus = DBusConnection::openSession(&error);
  if (!bus) {
    std::fprintf(stderr, "zonara-demo-services: no session bus: %s\n", error.c_str());
    return 1;
  }
  testing::FakeNotificationService notifications(*bus);
  notifications.onNotification = [&options](const testing::FakeNotificationService::Notification& n) {
    std::string actions;
    for (size_t i = 0; i < n.actionKeys.size(); ++i) {
      actions += (i ? ", " : "  [actions: ") + n.actionKeys[i] + "=" + n.actionLabels[i];
    }
    say("NOTIFICATION #" + std::to_string(n.id) + "  " + n.summary + ": " + n.body + (actions.empty() ? "" : actions + "]"));
    if (!options.notifications.empty()) {
      std::ofstream(options.notifications, std::ios::app) << n.summary << ": " << n.body << "\n";
    }
  };
  notifications.onAction = [](const testing::FakeNotificationService::Notification& n, const std::string& key) {
    say("ACTION        " + key + " on notification #" + std::to_string(n.id));
  };

  std::unique_ptr<Servers> servers;
  try {
    servers = std::make_unique<Servers>(*world, options.cityServices);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonara-demo-services: %s\n", e.what());
    return 1;
  }
  if (int failure = writeFileAtomically(options.ready, servers->addresses()); failure != 0) {
    std::fprintf(stderr, "zonara-demo-services: cannot write %s: %s\n", options.ready.c_str(), std::strerror(failure));
    return 1;
  }
  reportUntilSignalled(*servers);
  return 0;
}
