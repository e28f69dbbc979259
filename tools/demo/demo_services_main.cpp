// zonara-demo-services: the stand-in world of the demonstration (scripts/demo).
//
// On 127.0.0.1 it serves a positioning server that locates the access points
// of the data set, registers users and offers the tile files built from it;
// a geolocation JSON API server that knows the same access points and places
// the computer's IP address in the IP city;
// a time-zone service and an IP-location page for the cities of the table.
// On the session bus (DBUS_SESSION_BUS_ADDRESS) it is the desktop
// notification service. Everything it is asked, and every notification, is
// printed as it happens.
//
// When it is ready it writes the servers' addresses to the --ready file, as
// shell assignments:
//   POSITIONING_SERVER_URL=http://127.0.0.1:PORT
//   GEOLOCATION_SERVER_URL=http://127.0.0.1:PORT/v1/geolocate
//   CITY_SERVICES_URL=http://127.0.0.1:PORT
// and it appends "SUMMARY: BODY" for each notification to the
// --notifications file. It runs until SIGTERM or SIGINT.
//
// Exit status: 0 after a signal, 1 when it cannot start (bad files, no
// session bus, no port), 2 for usage errors.
#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/dbus.h"
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
    "                            [--tile ID_VERSION=FILE]... [--ip-city ID] [--notifications FILE]\n";

struct Options {
  std::string cities;
  std::vector<std::string> accessPoints;
  std::vector<std::pair<std::string, std::string>> tiles;  // "paris_1", file
  std::string ipCity;
  std::string ready;
  std::string notifications;
};

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
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

std::mutex g_outputMutex;

// One line of live output.
void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_outputMutex);
  std::printf("  %s\n", line.c_str());
  std::fflush(stdout);
}

bool readFile(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  out = text.str();
  return true;
}

// Writes `text` to `path` through a temporary file, so a reader never sees
// half of it.
bool writeAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    if (!(out << text) || !out.flush()) return false;
  }
  return std::rename(temporary.c_str(), path.c_str()) == 0;
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
    std::lock_guard<std::mutex> lock(mu_);
    answers_.push_back(std::move(line));
  }
  void poll() {
    const std::vector<testing::HttpRequest> requests = server_.http().requests();
    for (; seen_ < requests.size(); ++seen_) {
      const testing::HttpRequest& request = requests[seen_];
      const std::string path = request.path();
      if (path == "/location") {
        std::lock_guard<std::mutex> lock(mu_);
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
  std::mutex mu_;
  std::vector<std::string> answers_;
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

// Calls `reporter.poll()` every 0.1 s on the main loop.
template <typename Reporter>
void pollEveryTenthOfASecond(Reporter& reporter) {
  g_timeout_add(
      100,
      [](gpointer data) -> gboolean {
        static_cast<Reporter*>(data)->poll();
        return G_SOURCE_CONTINUE;
      },
      &reporter);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  std::string error;
  std::ifstream citiesFile(options.cities);
  std::optional<CityTable> table = CityTable::parse(citiesFile, error);
  if (!citiesFile.is_open() || !table) {
    std::fprintf(stderr, "zonara-demo-services: %s: %s\n", options.cities.c_str(),
                 citiesFile.is_open() ? error.c_str() : "cannot read");
    return 1;
  }
  const City* ipCity = options.ipCity.empty() ? &table->cities().front() : table->find(options.ipCity);
  if (!ipCity) {
    std::fprintf(stderr, "zonara-demo-services: no city %s in %s\n", options.ipCity.c_str(), options.cities.c_str());
    return 1;
  }
  AccessPointLocator locator;
  for (const std::string& path : options.accessPoints) {
    std::ifstream in(path);
    if (!in || !locator.addCSV(in, error)) {
      std::fprintf(stderr, "zonara-demo-services: %s: %s\n", path.c_str(), in ? error.c_str() : "cannot read");
      return 1;
    }
  }

  std::unique_ptr<DBusConnection> bus = DBusConnection::openSession(&error);
  if (!bus) {
    std::fprintf(stderr, "zonara-demo-services: no session bus: %s\n", error.c_str());
    return 1;
  }
  testing::FakeNotificationService notifications(*bus);
  notifications.onNotification = [&options](const testing::FakeNotificationService::Notification& n) {
    say("NOTIFICATION  " + n.summary + ": " + n.body);
    if (!options.notifications.empty()) {
      std::ofstream(options.notifications, std::ios::app) << n.summary << ": " << n.body << "\n";
    }
  };

  std::unique_ptr<FakePositioningServer> positioning;
  std::unique_ptr<GeolocationServer> geolocation;
  std::unique_ptr<CityServices> cityServices;
  try {
    positioning = std::make_unique<FakePositioningServer>();
    geolocation = std::make_unique<GeolocationServer>();
    cityServices = std::make_unique<CityServices>(*table, *ipCity, say);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zonara-demo-services: %s\n", e.what());
    return 1;
  }
  for (const auto& [name, path] : options.tiles) {
    FakePositioningServer::Tile tile;
    tile.id = name.substr(0, name.rfind('_'));
    tile.version = name.substr(name.rfind('_') + 1);
    if (!readFile(path, tile.bytes)) {
      std::fprintf(stderr, "zonara-demo-services: cannot read the tile file %s\n", path.c_str());
      return 1;
    }
    positioning->addTile(std::move(tile));
  }
  for (const WPS::API::LocatedAccessPoint& accessPoint : locator.accessPoints()) {
    geolocation->addAccessPoint(accessPoint.mac.toColonString(), accessPoint.latitude, accessPoint.longitude);
  }
  geolocation->setIpLocation(std::make_pair(ipCity->latitude, ipCity->longitude));
  const CityTable& cities = *table;
  RequestReporter reporter(*positioning);
  GeolocationReporter geolocationReporter(*geolocation, locator, cities, *ipCity);
  // Called under the server's lock: it touches only the tables and the
  // reporter's own list.
  positioning->setLocator([&locator, &cities, &reporter](const testing::HttpRequest& request)
                              -> std::optional<WPS::API::LocatedAccessPoint> {
    const std::vector<std::string> macs = RequestMacs(request.body);
    const std::optional<AccessPointLocator::Fix> fix = locator.locate(macs);
    if (!fix) {
      reporter.located("positioning server: location request with " + std::to_string(macs.size()) +
                       " access points, none known: no location");
      return std::nullopt;
    }
    reporter.located("positioning server: location request with " + std::to_string(macs.size()) +
                     " access points, " + std::to_string(fix->known) + " known: " + degrees(fix->latitude) + " " +
                     degrees(fix->longitude) + " (" + cities.nearest(fix->latitude, fix->longitude).name + ")");
    WPS::API::LocatedAccessPoint where;
    where.latitude = fix->latitude;
    where.longitude = fix->longitude;
    return where;
  });

  if (!writeAtomically(options.ready, "POSITIONING_SERVER_URL=" + positioning->url() +
                                          "\nGEOLOCATION_SERVER_URL=" + geolocation->url() +
                                          "\nCITY_SERVICES_URL=" + cityServices->url() + "\n")) {
    std::fprintf(stderr, "zonara-demo-services: cannot write %s\n", options.ready.c_str());
    return 1;
  }

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  for (int signal : {SIGTERM, SIGINT}) {
    g_unix_signal_add(
        signal,
        [](gpointer data) -> gboolean {
          g_main_loop_quit(static_cast<GMainLoop*>(data));
          return G_SOURCE_CONTINUE;
        },
        loop);
  }
  pollEveryTenthOfASecond(reporter);
  pollEveryTenthOfASecond(geolocationReporter);
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
  // The servers stop (and join their threads) before the tables they read go.
  positioning.reset();
  geolocation.reset();
  cityServices.reset();
  return 0;
}
