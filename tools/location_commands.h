// The wps-tool commands over the positioning library's public WPS_ functions:
//
//   locate     one location request (WPS_location); prints
//              "LATITUDE LONGITUDE HPE NAP"
//   ip-locate  the server's location of this computer's IP address
//              (WPS_ip_location); prints "IP LATITUDE LONGITUDE"
//   register   registers a new user name with the server (WPS_register_user)
//   scan       one Wi-Fi scan (WPS_periodic_scan); prints "MAC RSSI SSID" per
//              access point
//
// Results go to stdout, problems to stderr. Exit status: 0 on success; the
// WPS_ReturnCode of a failed call (its name is printed to stderr); 2 for a
// usage error.
//
// Thread safety: each function runs on the calling thread and may be called
// once at a time (they change the library's process-wide settings).
#pragma once

#include <string>
#include <vector>

namespace zonara {
namespace tools {

// `args` start after the command's name. `--help` prints the command's usage
// to stdout and returns 0.
[[nodiscard]] int runLocateCommand(const std::vector<std::string>& args);
[[nodiscard]] int runIpLocateCommand(const std::vector<std::string>& args);
[[nodiscard]] int runRegisterCommand(const std::vector<std::string>& args);
[[nodiscard]] int runScanCommand(const std::vector<std::string>& args);

// The name of a WPS_ReturnCode ("WPS_ERROR_UNAUTHORIZED"), or "WPS code N"
// for a number that is none of them.
[[nodiscard]] std::string returnCodeName(int code);

// Usage of the commands above, one line each.
[[nodiscard]] const char* locationUsage();

}  // namespace tools
}  // namespace zonara
