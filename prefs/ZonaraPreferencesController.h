// The one class through which the helper and the control program (the
// preference pane's role) read and write Zonara's settings, and through which
// the control program starts, stops and finds the helper and puts it into the
// user's login items.
//
// Settings live in the preferences domain "org.quillon.ZonaraHelper" (the
// helper's bundle identifier; $XDG_CONFIG_HOME/org.quillon.ZonaraHelper.plist),
// so every process sees the same values. Each write is synchronised at once
// and announced to the session by the distributed notification
// "ZonaraPreferencesChanged" (object: the key; user info: "pid", the writer's
// process id as decimal text); every controller synchronises the domain when
// that notification arrives, so its next read sees the other process's write.
//
// Bundles: the control program is the executable of the pane bundle
// "Zonara.prefPane" (identifier "org.quillon.Zonara"), and the helper is the
// pane's resource "ZonaraHelper.app" (identifier "org.quillon.ZonaraHelper"):
//   Zonara.prefPane/Contents/Info.plist
//   Zonara.prefPane/Contents/MacOS/zonara
//   Zonara.prefPane/Contents/Resources/ZonaraHelper.app/Contents/Info.plist
//   Zonara.prefPane/Contents/Resources/ZonaraHelper.app/Contents/MacOS/ZonaraHelper
// The plain commands on PATH are symbolic links into these bundles.
//
// The controller is a process-wide singleton, made on first use and never
// destroyed. Thread safety: main thread only (the thread whose run loop
// delivers the distributed notifications).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/dbus.h"
#include "platform/preferences_store.h"
#include "platform/zonara_names.h"
#include "platform/bundle.h"
#include "prefs/LoginItemsAE.h"
#include "prefs/ProcessManager.h"

namespace zonara {

class ZonaraPreferencesController {
 public:
  static constexpr const char* kPrefPaneFileName = "Zonara.prefPane";
  static constexpr const char* kHelperResourceName = "ZonaraHelper";
  static constexpr const char* kHelperResourceType = "app";
  static constexpr const char* kZonaraEnabledKey = "ZonaraEnabled";
  static constexpr const char* kPidKey = "pid";

  // What the controller works with. Everything borrowed must outlive the
  // controller (which is never destroyed: in practice, static objects).
  struct Services {
    // Distributed notifications; null: the controller opens the session bus
    // itself (without one it neither posts nor hears notifications).
    DistributedNotificationCenter* distributedCenter = nullptr;
    // Folder of the preferences domain ("" = the XDG configuration folder).
    std::string preferencesDirectory;
    // The session's processes; null: /proc.
    ProcessManager* processManager = nullptr;
    // Folders searched for "PreferencePanes/Zonara.prefPane"; nullopt: the
    // defaults of `defaultLibraryFolders`.
    std::optional<std::vector<std::string>> libraryFolders;
    // The running program, whose bundle is the "loaded bundle"; "" = this
    // process's executable.
    std::string mainExecutablePath;
  };

  // The singleton; the first call makes it with default services.
  [[nodiscard]] static ZonaraPreferencesController& sharedController();
  // Makes the singleton with `services`, or, when it exists already, drops
  // `services` and returns the existing one. The singleton observes
  // "ZonaraPreferencesChanged" with `zonaraPreferencesChanged`.
  static ZonaraPreferencesController& init(Services services);
  // A controller of its own that is not the singleton (tests, and tools that
  // need look-ups without the caches of the shared one). It observes
  // "ZonaraPreferencesChanged" until destroyed.
  [[nodiscard]] static std::unique_ptr<ZonaraPreferencesController> makeUnshared(Services services);
  ~ZonaraPreferencesController();

  ZonaraPreferencesController(const ZonaraPreferencesController&) = delete;
  ZonaraPreferencesController& operator=(const ZonaraPreferencesController&) = delete;

  // --- Value access -------------------------------------------------------
  // A copy of the stored value, or nullopt when absent.
  [[nodiscard]] std::optional<PrefValue> objectForKey(const std::string& key);
  // Absent or unconvertible values read as false / 0.
  [[nodiscard]] bool boolForKey(const std::string& key);
  [[nodiscard]] int32_t integerForKey(const std::string& key);
  // Stores `value`, synchronises the domain at once (a failed write is only
  // logged by the store) and posts "ZonaraPreferencesChanged" with `key` as
  // object and {"pid": this process's id}.
  void setObjectForKey(const PrefValue& value, const std::string& key);
  void setBoolForKey(bool value, const std::string& key);
  void setIntegerForKey(int32_t value, const std::string& key);
  // Writes pending changes and re-reads the domain.
  void synchronize();
  // Materialises `defaults` into the stored domain: keys missing from it are
  // written with the default value, stored values win. Then synchronises.
  void registerDefaults(const PrefValue::Dictionary& defaults);
  // All keys and values currently stored.
  [[nodiscard]] PrefValue::Dictionary dictionaryRepresentation();
  // Observer of "ZonaraPreferencesChanged": synchronises the domain.
  void zonaraPreferencesChanged(const DistributedNotification& notification);

  // --- Helper control -----------------------------------------------------
  // True as soon as a process of the session runs from a bundle with that
  // identifier.
  [[nodiscard]] bool isRunning(const std::string& bundleIdentifier);
  [[nodiscard]] bool isZonaraRunning();
  // Stores `running` under "ZonaraEnabled"; then stops the helper
  // (`terminateZonara`) or launches it (`launchZonara(noMatterWhat)`).
  // False when a launch was wanted but could not be started.
  bool setZonaraRunning(bool running, bool noMatterWhat);
  // Starts the helper bundle's program detached (own session, standard
  // streams on /dev/null), without waiting. Unless `noMatterWhat`, nothing is
  // started when a helper already runs. False when there is no helper bundle
  // or the program could not be started.
  bool launchZonara(bool noMatterWhat);
  // Posts "ZonaraShutdown"; the helper that serves the session ends.
  void terminateZonara();

  // --- Bundles ------------------------------------------------------------
  // The bundle of the earliest-launched process of the session with that
  // identifier, or null. Failures of the walk are logged and give what was
  // found so far. The caller owns the result.
  [[nodiscard]] std::unique_ptr<Bundle> bundleForProcessWithBundleIdentifier(const std::string& bundleIdentifier);
  [[nodiscard]] std::unique_ptr<Bundle> runningHelperAppBundle();
  // Cached once found (borrowed; lives as long as the controller): the
  // running helper's bundle, else the pane's "ZonaraHelper.app" resource.
  [[nodiscard]] const Bundle* helperAppBundle();
  // Cached once found (borrowed); null when no pane can be found.
  [[nodiscard]] const Bundle* zonaraPrefPaneBundle();

  // --- Login item ---------------------------------------------------------
  // True when a login item's "URL" is the file URL of the helper's program
  // (the executable of the pane's "ZonaraHelper.app": the session starts
  // programs, it does not open bundles). False when the items cannot be read.
  [[nodiscard]] bool shouldStartZonaraAtLogin();
  // Adds or removes that login item. False when there is no pane.
  bool setShouldStartZonaraAtLogin(bool enabled);
  // Adds a login item for `path` (not hidden) unless one with its file URL
  // exists; or removes the first such item. An empty path does nothing.
  void setStartAtLogin(const std::string& path, bool enabled);

  // User, program-prefix and local library folders, in that order:
  // "$HOME/.local/lib/zonara", "<folder of the running program>/../lib/zonara",
  // "/usr/local/lib/zonara".
  [[nodiscard]] static std::vector<std::string> defaultLibraryFolders(const std::string& mainExecutablePath);

 private:
  explicit ZonaraPreferencesController(Services services);
  [[nodiscard]] std::string helperExecutableInPane();
  [[nodiscard]] std::unique_ptr<Bundle> prefPaneFromRunningHelper();

  Services services_;
  std::unique_ptr<DBusConnection> ownBus_;
  std::unique_ptr<DistributedNotificationCenter> ownCenter_;
  std::unique_ptr<ProcessManager> ownProcessManager_;
  std::unique_ptr<PreferencesDomain> domain_;
  DistributedNotificationCenter::ObserverId observer_ = 0;
  // Filled lazily, never cleared.
  std::unique_ptr<Bundle> prefPaneBundle_;
  std::unique_ptr<Bundle> helperBundle_;
};

// For code that holds no controller: through the singleton...
[[nodiscard]] std::optional<PrefValue> ZonaraPreferencesController_objectForKey(const std::string& key);
// ...and straight from the stored domain (read fresh from its file).
[[nodiscard]] bool ZonaraPreferencesController_boolForKey(const std::string& key);
[[nodiscard]] int32_t ZonaraPreferencesController_integerForKey(const std::string& key);

}  // namespace zonara
