#include "prefs/HelperPreferences.h"

#include <cmath>

namespace zonara {

const std::vector<HelperPreferenceDefault>& helperPreferenceDefaults() {
  static const std::vector<HelperPreferenceDefault> defaults = {
      {kTrustIPLocationOverVPNKey, "false", "use positions from the IP address while a VPN carries the default route"},
      {kRecheckMinutesKey, "30", "look again after this many minutes without a look-up (0: never)"},
  };
  return defaults;
}

bool trustIPLocationOverVPN(PreferencesDomain& preferences) {
  const std::optional<PrefValue> value = preferences.copyValue(kTrustIPLocationOverVPNKey);
  return value ? value->asBool() : kTrustIPLocationOverVPNDefault;
}

std::chrono::minutes recheckInterval(PreferencesDomain& preferences) {
  const std::optional<PrefValue> value = preferences.copyValue(kRecheckMinutesKey);
  int64_t minutes = kRecheckMinutesDefault;
  if (value && value->type() == PrefValue::Type::Integer) {
    minutes = value->asInteger();
  } else if (value && value->type() == PrefValue::Type::Real && std::isfinite(value->asReal())) {
    minutes = static_cast<int64_t>(std::floor(value->asReal()));
  }
  return std::chrono::minutes(minutes < 0 ? 0 : minutes);
}

}  // namespace zonara
