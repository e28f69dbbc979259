// zonara-tzdata: writes the time-zone boundary file read by the look-up from
// the published quadtree of geobuf polygons.
//
//   zonara-tzdata INDEX_JSON GEO_DAT OUTPUT --release LABEL
#include <cstdio>
#include <cstring>
#include <string>

#include "timezone/tzdata_convert.h"

namespace {

int usage() {
  std::fprintf(stderr, "usage: zonara-tzdata INDEX_JSON GEO_DAT OUTPUT --release LABEL\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string paths[3];
  std::string release;
  int positional = 0;
  bool haveRelease = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--release") == 0 && i + 1 < argc) {
      release = argv[++i];
      haveRelease = true;
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      usage();
      return 0;
    } else if (argv[i][0] == '-' || positional == 3) {
      return usage();
    } else {
      paths[positional++] = argv[i];
    }
  }
  if (positional != 3 || !haveRelease || release.empty()) return usage();
  zonara::timezone::ConvertStats stats;
  std::string error;
  if (!zonara::timezone::convertBoundaryData(paths[0], paths[1], paths[2], release, &stats, &error)) {
    std::fprintf(stderr, "zonara-tzdata: %s\n", error.c_str());
    return 1;
  }
  std::printf("zonara-tzdata: %s: %zu zones, %zu cells (%zu with polygons, %zu sub-cells with edges), %zu vertices, %llu bytes\n",
              paths[2].c_str(), stats.zones, stats.leaves, stats.mixedCells, stats.subCells, stats.vertices,
              static_cast<unsigned long long>(stats.fileBytes));
  return 0;
}
