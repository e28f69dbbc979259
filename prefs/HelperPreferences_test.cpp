#include "prefs/HelperPreferences.h"

#include <gtest/gtest.h>

#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

// What a user may have stored (by `zonara set` or by hand) and what the helper
// makes of it.
TEST(HelperPreferencesTest, ValuesAsStoredOrTheDefaults) {
  testing::TempDir folder("helper-prefs-");
  PreferencesDomain prefs("org.quillon.ZonaraHelper", folder.path());
  struct Case {
    std::optional<PrefValue> stored;
    std::chrono::minutes recheck;
    bool trust;
  };
  const Case cases[] = {
      {std::nullopt, 30min, false},
      {PrefValue::integer(5), 5min, true},
      {PrefValue::integer(0), 0min, false},
      {PrefValue::integer(-3), 0min, true},
      {PrefValue::real(2.7), 2min, true},
      {PrefValue::boolean(true), 30min, true},
      {PrefValue::boolean(false), 30min, false},
      {PrefValue::string("YES"), 30min, true},
      {PrefValue::string("soon"), 30min, false},
  };
  for (const Case& c : cases) {
    for (const char* key : {kRecheckMinutesKey, kTrustIPLocationOverVPNKey}) {
      if (c.stored) {
        prefs.setValue(key, *c.stored);
      } else {
        prefs.removeValue(key);
      }
    }
    EXPECT_EQ(recheckInterval(prefs), c.recheck);
    EXPECT_EQ(trustIPLocationOverVPN(prefs), c.trust);
  }
  ASSERT_EQ(helperPreferenceDefaults().size(), 2u);
  EXPECT_STREQ(helperPreferenceDefaults()[1].defaultValue, "30");
}

}  // namespace
}  // namespace zonara
