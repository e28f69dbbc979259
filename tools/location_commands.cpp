#include "tools/location_commands.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "wps/api/wpsapi.h"
#include "wps/api/wpsapi_internal.h"

namespace zonara {
namespace tools {
namespace {

constexpr int kUsageError = 2;

constexpr const char* kRequestOptions =
    "  --server URL        positioning server (default: https://api.beacondb.net/v1/geolocate);\n"
    "                      a URL ending in /v1/geolocate speaks the geolocation JSON API\n"
    "                      (no user or realm needed), any other the XML protocol\n"
    "  --user NAME         account user name\n"
    "  --realm REALM       account realm\n"
    "  --lookup MODE       street address to ask for: none, limited or full (default none)\n"
    "  --proxy HOST:PORT   HTTP proxy for the server requests\n"
    "  --local-files DIR   a folder of tile files for on-device positioning (repeatable)\n";
constexpr const char* kNoNetworkOption =
    "  --no-network        never ask the server: clears the server URL (tiles only)\n";

// Options shared by the commands that talk to the server.
struct RequestOptions {
  std::optional<std::string> server;
  std::string user;
  std::string realm;
  std::string newUser;
  WPS_StreetAddressLookup lookup = WPS_NO_STREET_ADDRESS_LOOKUP;
  std::optional<std::string> proxyHost;
  int proxyPort = 0;
  std::vector<std::string> localFiles;
  bool noNetwork = false;
  bool help = false;
};

bool parseLookup(const std::string& text, WPS_StreetAddressLookup& out) {
  if (text == "none") {
    out = WPS_NO_STREET_ADDRESS_LOOKUP;
  } else if (text == "limited") {
    out = WPS_LIMITED_STREET_ADDRESS_LOOKUP;
  } else if (text == "full") {
    out = WPS_FULL_STREET_ADDRESS_LOOKUP;
  } else {
    return false;
  }
  return true;
}

// "HOST:PORT" with a port of 1..65535.
bool parseProxy(const std::string& text, std::string& host, int& port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return false;
  const std::string portText = text.substr(colon + 1);
  char* end = nullptr;
  const long value = std::strtol(portText.c_str(), &end, 10);
  if (*end != '\0' || value < 1 || value > 65535) return false;
  host = text.substr(0, colon);
  port = static_cast<int>(value);
  return true;
}

// Parses `args` into `options`, accepting only the options named in
// `accepted` ("--server", ...). Prints the problem and returns false on error.
bool parseOptions(const char* command, const std::vector<std::string>& args,
                  const std::vector<std::string>& accepted, RequestOptions& options) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--help" || arg == "-h") {
      options.help = true;
      continue;
    }
    bool known = false;
    for (const auto& name : accepted) known = known || name == arg;
    if (known && arg == "--no-network") {
      options.noNetwork = true;
      continue;
    }
    if (!known) {
      std::fprintf(stderr, "wps-tool %s: unknown option %s\n", command, arg.c_str());
      return false;
    }
    if (i + 1 >= args.size()) {
      std::fprintf(stderr, "wps-tool %s: %s needs a value\n", command, arg.c_str());
      return false;
    }
    const std::string& value = args[++i];
    if (arg == "--server") {
      options.server = value;
    } else if (arg == "--user") {
      options.user = value;
    } else if (arg == "--realm") {
      options.realm = value;
    } else if (arg == "--new-user") {
      options.newUser = value;
    } else if (arg == "--lookup") {
      if (!parseLookup(value, options.lookup)) {
        std::fprintf(stderr, "wps-tool %s: --lookup takes none, limited or full, not %s\n", command, value.c_str());
        return false;
      }
    } else if (arg == "--proxy") {
      std::string host;
      if (!parseProxy(value, host, options.proxyPort)) {
        std::fprintf(stderr, "wps-tool %s: --proxy takes HOST:PORT, not %s\n", command, value.c_str());
        return false;
      }
      options.proxyHost = host;
    } else if (arg == "--local-files") {
      options.localFiles.push_back(value);
    }
  }
  return true;
}

// Hands the options' settings to the library.
void applySettings(const RequestOptions& options) {
  if (options.server) (void)WPS_set_server_url(options.server->c_str());
  // An empty server URL turns network mode off: only the tiles are asked.
  if (options.noNetwork) (void)WPS_set_server_url("");
  if (options.proxyHost) (void)WPS_set_proxy(options.proxyHost->c_str(), options.proxyPort, nullptr, nullptr);
  if (!options.localFiles.empty()) {
    std::vector<const char*> paths;
    for (const auto& path : options.localFiles) paths.push_back(path.c_str());
    paths.push_back(nullptr);
    (void)WPS_set_local_files_path(paths.data());
  }
}

int failed(int code) {
  std::fprintf(stderr, "%s\n", returnCodeName(code).c_str());
  return code;
}

const std::vector<std::string> kRequestOptionNames = {"--server", "--user",  "--realm",
                                                      "--lookup", "--proxy", "--local-files"};

}  // namespace

std::string returnCodeName(int code) {
  switch (code) {
    case WPS_OK:
      return "WPS_OK";
    case WPS_ERROR_NO_LOCATION_FROM_SCAN:
      return "WPS_ERROR_NO_LOCATION_FROM_SCAN";
    case WPS_ERROR_UNAUTHORIZED:
      return "WPS_ERROR_UNAUTHORIZED";
    case WPS_ERROR_SERVER_UNAVAILABLE:
      return "WPS_ERROR_SERVER_UNAVAILABLE";
    case WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED:
      return "WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED";
    case WPS_ERROR_PROXY_UNAUTHORIZED:
      return "WPS_ERROR_PROXY_UNAUTHORIZED";
    case WPS_ERROR:
      return "WPS_ERROR";
    default:
      return "WPS code " + std::to_string(code);
  }
}

int runLocateCommand(const std::vector<std::string>& args) {
  RequestOptions options;
  std::vector<std::string> accepted = kRequestOptionNames;
  accepted.push_back("--no-network");
  if (!parseOptions("locate", args, accepted, options)) return kUsageError;
  if (options.help) {
    std::printf(
        "usage: wps-tool locate [OPTIONS]\n"
        "Scans Wi-Fi (up to 5 s) and asks the tiles, then the server, where this computer is.\n"
        "Prints LATITUDE LONGITUDE HPE NAP (degrees, metres of error, access points used),\n"
        "followed by \"ip\" when the server could only locate the IP address.\n"
        "On failure prints the result code's name to stderr and exits with the code.\n%s%s",
        kRequestOptions, kNoNetworkOption);
    return 0;
  }
  applySettings(options);
  const WPS_SimpleAuthentication auth{options.user.c_str(), options.realm.c_str()};
  WPS_Location* location = nullptr;
  const WPS_ReturnCode code = WPS_location(&auth, options.lookup, &location);
  if (code == WPS_OK && location != nullptr) {
    std::printf("%.6f %.6f %.1f %u%s\n", location->latitude, location->longitude, location->hpe, location->nap,
                location->source == WPS_SOURCE_IP_ADDRESS ? " ip" : "");
  }
  WPS_free_location(location);
  return code == WPS_OK ? 0 : failed(code);
}

int runIpLocateCommand(const std::vector<std::string>& args) {
  RequestOptions options;
  if (!parseOptions("ip-locate", args, kRequestOptionNames, options)) return kUsageError;
  if (options.help) {
    std::printf(
        "usage: wps-tool ip-locate [OPTIONS]\n"
        "Asks the server where this computer's IP address is. Prints IP LATITUDE LONGITUDE\n"
        "(IP is \"-\" when the server does not say).\n"
        "On failure prints the result code's name to stderr and exits with the code.\n%s",
        kRequestOptions);
    return 0;
  }
  applySettings(options);
  const WPS_SimpleAuthentication auth{options.user.c_str(), options.realm.c_str()};
  WPS_IPLocation* location = nullptr;
  const WPS_ReturnCode code = WPS_ip_location(&auth, options.lookup, &location);
  if (code == WPS_OK && location != nullptr) {
    std::printf("%s %.6f %.6f\n", location->ip[0] != '\0' ? location->ip : "-", location->latitude,
                location->longitude);
  }
  WPS_free_ip_location(location);
  return code == WPS_OK ? 0 : failed(code);
}

int runRegisterCommand(const std::vector<std::string>& args) {
  RequestOptions options;
  if (!parseOptions("register", args, {"--server", "--user", "--realm", "--new-user", "--proxy"}, options)) {
    return kUsageError;
  }
  if (options.help) {
    std::printf(
        "usage: wps-tool register --server URL --user NAME --realm REALM --new-user NAME [--proxy HOST:PORT]\n"
        "Registers the user name NAME in REALM with the server, through the registering account\n"
        "given by --user and --realm. Prints nothing on success; on failure prints the result\n"
        "code's name to stderr and exits with the code.\n");
    return 0;
  }
  if (!options.server || options.user.empty() || options.realm.empty() || options.newUser.empty()) {
    std::fprintf(stderr, "wps-tool register: --server, --user, --realm and --new-user are required\n");
    return kUsageError;
  }
  applySettings(options);
  const WPS_SimpleAuthentication account{options.user.c_str(), options.realm.c_str()};
  const WPS_SimpleAuthentication newUser{options.newUser.c_str(), options.realm.c_str()};
  const WPS_ReturnCode code = WPS_register_user(&account, &newUser);
  return code == WPS_OK ? 0 : failed(code);
}

int runScanCommand(const std::vector<std::string>& args) {
  for (const auto& arg : args) {
    if (arg == "--help" || arg == "-h") {
      std::printf(
          "usage: wps-tool scan\n"
          "Scans Wi-Fi once through the positioning library and prints one access point per\n"
          "line: MAC RSSI SSID. Set WPS_SCAN_FILE to replay a scan file instead of the card.\n");
      return 0;
    }
    std::fprintf(stderr, "wps-tool scan: unknown argument %s\n", arg.c_str());
    return kUsageError;
  }
  const WPS_ScanCallback print = [](void*, WPS_ReturnCode result, const WPS_ScanResult* scan) {
    if (result == WPS_OK && scan != nullptr) {
      for (const auto& ap : *scan->accessPoints) {
        std::printf("%s %d %s\n", ap.mac.toString().c_str(), ap.rssi, ap.ssid.c_str());
      }
    }
    return WPS_STOP;
  };
  const WPS_ReturnCode code = WPS_periodic_scan(0, 1, print, nullptr);
  return code == WPS_OK ? 0 : failed(code);
}

const char* locationUsage() {
  return "  wps-tool locate [--server URL] [--user NAME] [--realm REALM] [--lookup none|limited|full]\n"
         "                 [--proxy HOST:PORT] [--local-files DIR]... [--no-network]\n"
         "  wps-tool ip-locate [same options as locate]\n"
         "  wps-tool register --server URL --user NAME --realm REALM --new-user NAME\n"
         "  wps-tool scan\n";
}

}  // namespace tools
}  // namespace zonara
