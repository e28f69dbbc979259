// wps-scan: shows what the positioning library's Wi-Fi adapter sees.
//
//   wps-scan [--count N] [--interval MS]
//
// Opens the first adapter (the scan file named by WPS_SCAN_FILE, else the
// nl80211 card), runs N scans (default 1) MS milliseconds apart (default 500)
// and prints each access point as "MAC RSSI CHANNEL SSID", scans separated by
// an empty line. Exit status 0, 1 when there is no adapter or it cannot be
// opened, 2 on a usage error, or the scan's error code.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "wps/spi/concurrent.h"
#include "wps/spi/wifi_adapter.h"

namespace {

void usage(FILE* out) {
  std::fprintf(out,
               "usage: wps-scan [--count N] [--interval MS]\n"
               "Scans Wi-Fi through the positioning library's adapter and prints one\n"
               "access point per line: MAC RSSI CHANNEL SSID. Set WPS_SCAN_FILE to\n"
               "replay a scan file instead of the wireless card.\n");
}

bool number(const char* text, long minimum, long& out) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < minimum) return false;
  out = value;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  long count = 1;
  long interval = 500;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return 0;
    }
    if ((arg == "--count" || arg == "--interval") && i + 1 < argc) {
      if (!number(argv[++i], arg == "--count" ? 1 : 0, arg == "--count" ? count : interval)) {
        std::fprintf(stderr, "wps-scan: bad value for %s: %s\n", arg.c_str(), argv[i]);
        return 2;
      }
      continue;
    }
    usage(stderr);
    return 2;
  }

  auto adapters = WPS::SPI::WifiAdapter::enumerateAdapters();
  if (adapters.empty()) {
    std::fprintf(stderr, "wps-scan: no wireless available\n");
    return 1;
  }
  WPS::SPI::WifiAdapter& adapter = *adapters.front();
  int rc = adapter.open();
  if (rc != 0) {
    std::fprintf(stderr, "wps-scan: cannot open the adapter: %s\n", std::strerror(rc));
    return 1;
  }
  for (long scan = 0; scan < count; ++scan) {
    if (scan > 0) {
      WPS::SPI::Thread::msleep(interval);
      std::printf("\n");
    }
    WPS::SPI::AccessPointList aps;
    rc = adapter.startScan();
    if (rc == 0) rc = adapter.getScannedAccessPoints(aps);
    if (rc != 0) {
      std::fprintf(stderr, "wps-scan: scan failed: %d\n", rc);
      adapter.close();
      return rc;
    }
    for (const auto& ap : aps) {
      std::printf("%s %d %u %s\n", ap.mac.toString().c_str(), ap.rssi, static_cast<unsigned>(ap.channel),
                  ap.ssid.c_str());
    }
    std::fflush(stdout);
  }
  adapter.close();
  return 0;
}
