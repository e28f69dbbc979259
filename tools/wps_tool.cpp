// wps-tool: command-line access to the positioning library's pieces, for
// operators and tests.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/tile_commands.h"

namespace {

void usage() {
  std::fprintf(stderr, "usage:\n%s", zonara::tools::tileUsage());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    usage();
    return args.empty() ? 2 : 0;
  }
  int status = 2;
  if (args[0] == "tile") status = zonara::tools::runTileCommand({args.begin() + 1, args.end()});
  if (status == 2) usage();
  return status;
}
