// wps-tool: command-line access to the positioning library, for operators and
// tests: location requests through the public WPS_ functions, Wi-Fi scans and
// tile files.
#include <cstdio>
#include <string>
#include <vector>

#include "tools/location_commands.h"
#include "tools/tile_commands.h"

namespace {

void usage(FILE* out) {
  std::fprintf(out, "usage:\n%s%s", zonara::tools::locationUsage(), zonara::tools::tileUsage());
  std::fprintf(out, "Every command takes --help.\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    usage(args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  const std::string command = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (command == "locate") return zonara::tools::runLocateCommand(rest);
  if (command == "ip-locate") return zonara::tools::runIpLocateCommand(rest);
  if (command == "register") return zonara::tools::runRegisterCommand(rest);
  if (command == "scan") return zonara::tools::runScanCommand(rest);
  if (command == "tile") {
    bool help = false;
    for (const auto& arg : rest) help = help || arg == "--help" || arg == "-h";
    if (help) {
      std::printf("usage:\n%s", zonara::tools::tileUsage());
      return 0;
    }
    const int status = zonara::tools::runTileCommand(rest);
    if (status == 2) usage(stderr);
    return status;
  }
  usage(stderr);
  return 2;
}
