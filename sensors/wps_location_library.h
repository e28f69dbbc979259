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

// Learned places of the installation whose data folder is `dataFolder`
// ("$XDG_DATA_HOME/Zonara"): the tile files in "<dataFolder>/Learned", bound
// to the realm kept in its account file "<dataFolder>/Telluro.plist".
class LearnedPlaces {
 public:
  explicit LearnedPlaces(std::string dataFolder);
  // Has the library learn and use them (a realm is made when there is none).
  // False when no realm can be kept or the library refuses.
  [[nodiscard]] bool enable();
  // Has the library neither learn nor use them (nothing is deleted).
  static void disable();
  struct Counts {
    unsigned long accessPoints = 0;
    unsigned long places = 0;
  };
  // What is learned (nothing when no realm was ever made).
  [[nodiscard]] Counts counts();
  // Deletes everything learned, also files set aside as unreadable; returns
  // the number of access points forgotten.
  unsigned long forget();

 private:
  // Points the library at the folder, without making a realm; false when
  // there is none.
  [[nodiscard]] bool open();
  std::string folder_;
  std::string accountPath_;
};

}  // namespace zonara
