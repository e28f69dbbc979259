// How the library downloads tiles: the folder, the download quotas and the
// progress callback the application sets with WPS_tiling.
#pragma once

#include <string>

#include "wps/api/wpsapi.h"

namespace WPS {
namespace API {

// Tile download settings given to WPS_tiling.
struct TilingParameters {
  std::string directory;                   // where downloaded tiles are kept; "" = no tiling
  unsigned long maxDataSizePerSession = 0;  // bytes one session may download
  unsigned long maxDataSizeTotal = 0;       // bytes the directory may hold
  WPS_TilingCallback callback = nullptr;    // may be null
  void* callbackArg = nullptr;              // handed to the callback

  [[nodiscard]] bool configured() const { return !directory.empty(); }
  friend bool operator==(const TilingParameters&, const TilingParameters&) = default;
};

}  // namespace API
}  // namespace WPS
