// The lookup wrapper's view of the positioning library, through its public
// WPS_ functions.
//
// Thread safety: any thread (the library serialises its calls).
#pragma once

#include <string>

#include "sensors/telluro_helper.h"

namespace zonara {

class WpsLocationLibrary final : public LocationLibrary {
 public:
  [[nodiscard]] WPS_ReturnCode registerUser(const WPS_SimpleAuthentication& registrar,
                                            const WPS_SimpleAuthentication& user) override;
  [[nodiscard]] WPS_ReturnCode tiling(const std::string& folder, unsigned long perSession,
                                      unsigned long total) override;
  // No street address is asked for; the library's record is freed here.
  [[nodiscard]] WPS_ReturnCode location(const WPS_SimpleAuthentication& authentication, double* longitude,
                                        double* latitude, PositionQuality* quality) override;
  [[nodiscard]] WPS_ReturnCode ipLocation(double* longitude, double* latitude) override;
  // Only a server of the XML protocol has accounts and tiles.
  [[nodiscard]] bool usesAccounts() override;
  // Points the library at `url`; "" means no server (no network use).
  static void setServerURL(const std::string& url);
};

}  // namespace zonara
