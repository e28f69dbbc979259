// Where the time-zone boundary file ("timezone-boundaries.dat", written by
// zonara-tzdata at build time) is found at run time, and opening it.
//
// Places, in this order:
//   1. the path in ZONARA_TZ_DATA, when set: then that file alone (a file the
//      user named explicitly is never silently replaced by another);
//   2. zonara/timezone-boundaries.dat under $XDG_DATA_HOME (default
//      ~/.local/share), then under each folder of $XDG_DATA_DIRS (default
//      /usr/local/share:/usr/share), then under the install prefix's share/;
//   3. share/zonara/timezone-boundaries.dat under each folder above the
//      running program, nearest first: build/bin/zonara finds
//      build/share/zonara/, a program inside an installed bundle
//      (<prefix>/lib/zonara/.../Contents/MacOS/) finds <prefix>/share/zonara/.
//
// Thread safety: the functions are re-entrant; `BoundaryDataSearch` is a
// plain value.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "timezone/boundary_index.h"

namespace zonara::timezone {

// The inputs of the search, separate from the process so tests can vary them.
struct BoundaryDataSearch {
  static constexpr const char* kFileName = "timezone-boundaries.dat";

  // ZONARA_TZ_DATA ("" = not set).
  std::string explicitPath;
  // The XDG data home ("" = none) and data folders, in order (platform/xdg.h).
  std::string dataHome;
  std::vector<std::string> dataDirs;
  // The prefix the build was configured to install into ("" = none).
  std::string installPrefix;
  // The running program's path ("" = unknown).
  std::string executablePath;

  // The values of this process: its environment, the configured install
  // prefix and /proc/self/exe.
  [[nodiscard]] static BoundaryDataSearch forThisProcess();

  // Every place looked at, in order (files that may not exist).
  [[nodiscard]] std::vector<std::string> candidates() const;
};

// The first candidate that is an existing regular file, or "" when none is.
[[nodiscard]] std::string findBoundaryData(const BoundaryDataSearch& search);

// An opened boundary file and where it came from.
struct BoundaryData {
  std::unique_ptr<BoundaryIndex> index;
  std::string path;
};

// Opens the first candidate that exists and opens. A file that exists but
// cannot be opened (truncated, corrupt, another format) is passed over for the
// next one, except the explicitly named file. On failure `index` is null and
// `error` says what was looked at and why each file was refused.
[[nodiscard]] BoundaryData openBoundaryData(const BoundaryDataSearch& search, std::string* error);

}  // namespace zonara::timezone
