// The names Zonara's programs share with one another and with the session:
// bundle identifiers, the bus name, the preferences domain and the
// notifications. Defined here once; every program and test uses these.
#pragma once

namespace zonara {

// The helper's bundle identifier, which is also the name it serves on the
// session bus and the name of the preferences domain shared by the helper
// and the control program ($XDG_CONFIG_HOME/org.quillon.ZonaraHelper.plist).
inline constexpr const char* kHelperIdentifier = "org.quillon.ZonaraHelper";
inline constexpr const char* kHelperBusName = kHelperIdentifier;
inline constexpr const char* kPreferencesDomain = kHelperIdentifier;
// The bundle identifier of the preference pane, whose executable is the
// control program.
inline constexpr const char* kPrefPaneIdentifier = "org.quillon.Zonara";
// The name users see: the title of notifications, the application name given
// to the notification service, the user agent.
inline constexpr const char* kApplicationName = "Zonara";

// Distributed notifications (session bus). "ZonaraShutdown" asks the helper
// serving the session to end; "ZonaraPreferencesChanged" tells every process
// that a preference was written (object: the key).
inline constexpr const char* kShutdownNotification = "ZonaraShutdown";
inline constexpr const char* kPreferencesChangedNotification = "ZonaraPreferencesChanged";

// Local notification: the sensor aggregator has a location change for the
// helper.
inline constexpr const char* kSensorNotification = "TelluroSensorNotification";
// Local notification: the computer joined a network (posted before the
// location check that follows).
inline constexpr const char* kNetworkChangedNotification = "ZonaraNetworkChanged";

// The helper's object on the session bus: its string properties, read by
// `zonara status` and announced through PropertiesChanged, and its methods.
inline constexpr const char* kDetectedTimezoneProperty = "DetectedTimezone";
inline constexpr const char* kCurrentLocationProperty = "CurrentLocation";
inline constexpr const char* kLastPositionProperty = "LastPosition";
inline constexpr const char* kZoneFoundProperty = "ZoneFound";
inline constexpr const char* kBorderDistanceProperty = "BorderDistance";
inline constexpr const char* kLastDecisionProperty = "LastDecision";
inline constexpr const char* kLastDecisionReasonProperty = "LastDecisionReason";
// Undoes the last change, as the notification's "Undo" does.
inline constexpr const char* kUndoMethod = "Undo";

}  // namespace zonara
