#include "sensors/location_sensing.h"

#include <gtest/gtest.h>

#include <optional>

#include "platform/preferences_store.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

constexpr const char* kDefault = "https://api.beacondb.net/v1/geolocate";

// Only a missing PositioningServerURL means the default server; the empty
// text means none, and the reachability host follows the server.
TEST(LocationSensingSettingsTest, PositioningServerFromThePreferences) {
  const struct {
    const char* name;
    std::optional<PrefValue> server;
    std::optional<PrefValue> reachability;
    const char* expectedServer;
    const char* expectedHost;
  } cases[] = {
      {"missing: the default", std::nullopt, std::nullopt, kDefault, "api.beacondb.net"},
      {"empty: no server", PrefValue::string(""), std::nullopt, "", ""},
      {"not text: the default", PrefValue::integer(3), std::nullopt, kDefault, "api.beacondb.net"},
      {"another server", PrefValue::string("http://user@127.0.0.1:8080/v1/geolocate"), std::nullopt,
       "http://user@127.0.0.1:8080/v1/geolocate", "127.0.0.1"},
      {"own reachability host", PrefValue::string("https://[::1]:9/wps2/"), PrefValue::string("example.org"),
       "https://[::1]:9/wps2/", "example.org"},
      {"no server, own reachability host", PrefValue::string(""), PrefValue::string("example.org"), "",
       "example.org"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TempDir scratch("sensing-settings-");
    PreferencesDomain preferences("org.example.Test", scratch.path());
    if (c.server) preferences.setValue("PositioningServerURL", *c.server);
    if (c.reachability) preferences.setValue("ReachabilityHost", *c.reachability);
    const LocationSensingSettings settings = LocationSensingSettings::fromPreferences(preferences, kDefault);
    EXPECT_EQ(settings.positioningServerURL, c.expectedServer);
    EXPECT_EQ(settings.reachabilityHost, c.expectedHost);
    EXPECT_EQ(settings.ipLocationURL, "");
  }
}

// LearnPlaces is on unless set to false.
TEST(LocationSensingSettingsTest, LearnPlacesFromThePreferences) {
  const struct {
    const char* name;
    std::optional<PrefValue> value;
    bool expected;
  } cases[] = {
      {"missing: on", std::nullopt, true},
      {"true", PrefValue::boolean(true), true},
      {"false", PrefValue::boolean(false), false},
      {"0", PrefValue::integer(0), false},
      {"text NO", PrefValue::string("NO"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TempDir scratch("sensing-settings-");
    PreferencesDomain preferences("org.example.Test", scratch.path());
    if (c.value) preferences.setValue("LearnPlaces", *c.value);
    EXPECT_EQ(LocationSensingSettings::fromPreferences(preferences, kDefault).learnPlaces, c.expected);
  }
}

}  // namespace
}  // namespace zonara
