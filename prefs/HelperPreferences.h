// The helper's preferences that decide when it looks for its position and
// which positions it trusts: their keys, their defaults, and how they are
// read. Shared by the helper and the control program (which lists them in
// its help).
//
// Thread safety: the readers use the given domain (see PreferencesDomain).
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "platform/preferences_store.h"

namespace zonara {

// Use positions found from the IP address while a VPN carries the default
// route (they then place the computer where the VPN ends).
inline constexpr const char* kTrustIPLocationOverVPNKey = "TrustIPLocationOverVPN";
inline constexpr bool kTrustIPLocationOverVPNDefault = false;

// Look for the position again when this many minutes passed without a
// look-up; 0 never.
inline constexpr const char* kRecheckMinutesKey = "RecheckMinutes";
inline constexpr int64_t kRecheckMinutesDefault = 30;

struct HelperPreferenceDefault {
  const char* key;
  const char* defaultValue;  // as `zonara set` takes it
  const char* meaning;
};

// The preferences above with their defaults, in the order of the help text.
[[nodiscard]] const std::vector<HelperPreferenceDefault>& helperPreferenceDefaults();

// The stored value ("YES", "true" and non-zero numbers are true), or the
// default when absent.
[[nodiscard]] bool trustIPLocationOverVPN(PreferencesDomain& preferences);
// The stored number of minutes (an integer, or a real rounded down; negative
// ones count as 0), or the default when absent or not a number.
[[nodiscard]] std::chrono::minutes recheckInterval(PreferencesDomain& preferences);

}  // namespace zonara
