// The "tile" commands of wps-tool: build a tile file from CSV, show its tile
// headers, look MACs up in it.
#pragma once

#include <string>
#include <vector>

namespace zonara {
namespace tools {

// Runs `wps-tool tile ARGS...` (`args` starts after "tile"). Writes results to
// stdout and problems to stderr. Returns the process exit status: 0 success,
// 1 failure, 2 usage error.
[[nodiscard]] int runTileCommand(const std::vector<std::string>& args);

// One-paragraph usage of the tile commands.
[[nodiscard]] const char* tileUsage();

}  // namespace tools
}  // namespace zonara
