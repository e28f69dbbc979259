#include "prefs/ZonaraPreferencesController.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/file_system.h"
#include "platform/processes.h"
#include "platform/system_log.h"
#include "platform/xdg.h"

namespace zonara {
namespace {

ZonaraPreferencesController* gSharedController = nullptr;

std::string parentFolder(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const size_t slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  return slash == 0 ? "/" : p.substr(0, slash);
}

std::string lowercase(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool isPaneIdentifier(const Bundle& bundle) {
  return strcasecmp(bundle.bundleIdentifier().c_str(), kPrefPaneIdentifier) == 0;
}

// The absolute path with symbolic links resolved when it exists, else as given.
std::string canonicalPath(const std::string& path) { return resolvedPath(path).value_or(path); }

// Whether a login item runs `program` (a real path): its URL's path is
// resolved too, so an entry that runs the program through a link counts.
bool itemRuns(const PrefValue& item, const std::string& program) {
  auto it = item.asDictionary().find(kLoginItemURL);
  if (it == item.asDictionary().end() || !it->second.isString()) return false;
  const std::string path = PathFromFileURL(it->second.asString());
  return !path.empty() && canonicalPath(path) == program;
}

}  // namespace

ZonaraPreferencesController& ZonaraPreferencesController::sharedController() {
  if (gSharedController == nullptr) init(Services{});
  return *gSharedController;
}

ZonaraPreferencesController& ZonaraPreferencesController::init(Services services) {
  if (gSharedController != nullptr) return *gSharedController;
  // Never destroyed: the one controller lives as long as the process.
  gSharedController = new ZonaraPreferencesController(std::move(services));
  return *gSharedController;
}

std::unique_ptr<ZonaraPreferencesController> ZonaraPreferencesController::makeUnshared(Services services) {
  return std::unique_ptr<ZonaraPreferencesController>(new ZonaraPreferencesController(std::move(services)));
}

ZonaraPreferencesController::ZonaraPreferencesController(Services services) : services_(std::move(services)) {
  domain_ = std::make_unique<PreferencesDomain>(kPreferencesDomain, services_.preferencesDirectory);
  if (services_.mainExecutablePath.empty()) services_.mainExecutablePath = currentExecutablePath();
  if (!services_.libraryFolders) services_.libraryFolders = defaultLibraryFolders(services_.mainExecutablePath);
  if (services_.processManager == nullptr) {
    ownProcessManager_ = std::make_unique<LinuxProcessManager>();
    services_.processManager = ownProcessManager_.get();
  }
  if (services_.distributedCenter == nullptr) {
    std::string error;
    ownBus_ = DBusConnection::openSession(&error);
    if (ownBus_) {
      ownCenter_ = std::make_unique<DBusDistributedNotificationCenter>(*ownBus_);
      services_.distributedCenter = ownCenter_.get();
    } else {
      SystemLogAt(LogPriority::Debug, "preferences: no session bus (%s); changes are not announced", error.c_str());
    }
  }
  if (services_.distributedCenter != nullptr) {
    observer_ = services_.distributedCenter->addObserver(
        kPreferencesChangedNotification, [this](const DistributedNotification& n) { zonaraPreferencesChanged(n); });
  }
}

ZonaraPreferencesController::~ZonaraPreferencesController() {
  if (observer_ != 0 && services_.distributedCenter != nullptr) services_.distributedCenter->removeObserver(observer_);
}

// --- Value access ---------------------------------------------------------

std::optional<PrefValue> ZonaraPreferencesController::objectForKey(const std::string& key) {
  return domain_->copyValue(key);
}

bool ZonaraPreferencesController::boolForKey(const std::string& key) {
  std::optional<PrefValue> v = objectForKey(key);
  return v && v->asBool();
}

int32_t ZonaraPreferencesController::integerForKey(const std::string& key) {
  std::optional<PrefValue> v = objectForKey(key);
  return v ? static_cast<int32_t>(v->asInteger()) : 0;
}

void ZonaraPreferencesController::setObjectForKey(const PrefValue& value, const std::string& key) {
  domain_->setValue(key, value);
  (void)domain_->synchronize();  // a failure is logged by the store
  if (services_.distributedCenter != nullptr) {
    services_.distributedCenter->post({kPreferencesChangedNotification, key, {{kPidKey, std::to_string(currentProcessId())}}});
  }
}

void ZonaraPreferencesController::setBoolForKey(bool value, const std::string& key) {
  setObjectForKey(PrefValue::boolean(value), key);
}

void ZonaraPreferencesController::setIntegerForKey(int32_t value, const std::string& key) {
  setObjectForKey(PrefValue::integer(value), key);
}

void ZonaraPreferencesController::synchronize() { (void)domain_->synchronize(); }

void ZonaraPreferencesController::registerDefaults(const PrefValue::Dictionary& defaults) {
  // Read the stored domain fresh, lay it over the defaults (stored values
  // win) and store the result: only the keys missing so far are written.
  (void)domain_->synchronize();
  for (const auto& [key, value] : defaults) {
    if (!domain_->copyValue(key)) domain_->setValue(key, value);
  }
  (void)domain_->synchronize();
}

PrefValue::Dictionary ZonaraPreferencesController::dictionaryRepresentation() {
  PrefValue::Dictionary all;
  for (const std::string& key : domain_->keys()) {
    if (std::optional<PrefValue> v = domain_->copyValue(key)) all.emplace(key, std::move(*v));
  }
  return all;
}

void ZonaraPreferencesController::zonaraPreferencesChanged(const DistributedNotification&) {
  (void)domain_->synchronize();
}

// --- Helper control -------------------------------------------------------

bool ZonaraPreferencesController::isRunning(const std::string& bundleIdentifier) {
  ProcessManager& processes = *services_.processManager;
  ProcessSerialNumber psn = kNoProcess;
  while (processes.getNextProcess(&psn) == 0) {
    std::optional<PrefValue::Dictionary> info = processes.copyProcessInformation(psn);
    if (!info) continue;
    auto it = info->find(kProcessBundleIdentifierKey);
    if (it != info->end() && it->second.isString() && it->second.asString() == bundleIdentifier) return true;
  }
  return false;
}

bool ZonaraPreferencesController::isZonaraRunning() { return isRunning(kHelperIdentifier); }

bool ZonaraPreferencesController::setZonaraRunning(bool running, bool noMatterWhat) {
  setBoolForKey(running, kZonaraEnabledKey);
  if (!running) {
    terminateZonara();
    return true;
  }
  return launchZonara(noMatterWhat);
}

bool ZonaraPreferencesController::launchZonara(bool noMatterWhat) {
  if (!noMatterWhat && isZonaraRunning()) return true;
  const Bundle* helper = helperAppBundle();
  if (helper == nullptr) {
    SystemLogAt(LogPriority::Error, "launchZonara: cannot find the ZonaraHelper application");
    return false;
  }
  const std::string program = helper->executablePath();
  if (program.empty()) {
    SystemLogAt(LogPriority::Error, "launchZonara: %s has no program", helper->bundlePath().c_str());
    return false;
  }
  // Detached, in a session of its own, holding none of our descriptors or
  // terminal.
  SpawnOptions options;
  options.workingFolder = helper->bundlePath();
  options.silenceOutput = true;
  options.newSession = true;
  std::string error;
  if (!spawnDetached({program}, options, &error)) {
    SystemLogAt(LogPriority::Error, "launchZonara: cannot start %s: %s", program.c_str(), error.c_str());
    return false;
  }
  return true;
}

void ZonaraPreferencesController::terminateZonara() {
  if (services_.distributedCenter != nullptr) services_.distributedCenter->post({kShutdownNotification, "", {}});
}

// --- Bundles --------------------------------------------------------------

std::unique_ptr<Bundle> ZonaraPreferencesController::bundleForProcessWithBundleIdentifier(
    const std::string& bundleIdentifier) {
  static const char* kMethod = "bundleForProcessWithBundleIdentifier";
  ProcessManager& processes = *services_.processManager;
  // A process whose dictionary cannot be copied has ended during the walk:
  // start over with a fresh list, which no longer holds it.
  for (;;) {
    std::unique_ptr<Bundle> result;
    uint32_t bestLaunchDate = UINT32_MAX;
    ProcessSerialNumber psn = kNoProcess;
    bool restart = false;
    while (!restart) {
      OSStatus err = processes.getNextProcess(&psn);
      if (err == kProcNotFound) return result;
      if (err != 0) {
        SystemLog("%s: GetNextProcess returned %i/%s", kMethod, static_cast<int>(err), statusComment(err));
        return result;
      }
      ProcessInfo info;
      err = processes.getProcessInformation(psn, &info);
      if (err != 0) {
        SystemLog("Couldn't get information about process %lu,%lu: GetProcessInformation returned %i/%s",
                  static_cast<unsigned long>(psn.highLongOfPSN), static_cast<unsigned long>(psn.lowLongOfPSN),
                  static_cast<int>(err), statusComment(err));
        SystemLog("%s: GetNextProcess returned %i/%s", kMethod, static_cast<int>(err), statusComment(err));
        return result;
      }
      if (!(info.launchDate < bestLaunchDate)) continue;
      std::optional<PrefValue::Dictionary> dict = processes.copyProcessInformation(psn);
      if (!dict) {
        restart = true;
        continue;
      }
      auto id = dict->find(kProcessBundleIdentifierKey);
      auto path = dict->find(kProcessBundlePathKey);
      if (id != dict->end() && id->second.isString() && id->second.asString() == bundleIdentifier &&
          path != dict->end() && path->second.isString()) {
        result = Bundle::bundleWithPath(path->second.asString());
        bestLaunchDate = info.launchDate;
      }
    }
  }
}

std::unique_ptr<Bundle> ZonaraPreferencesController::runningHelperAppBundle() {
  return bundleForProcessWithBundleIdentifier(kHelperIdentifier);
}

const Bundle* ZonaraPreferencesController::helperAppBundle() {
  if (helperBundle_) return helperBundle_.get();
  helperBundle_ = runningHelperAppBundle();
  if (!helperBundle_) {
    if (const Bundle* pane = zonaraPrefPaneBundle()) {
      helperBundle_ = Bundle::bundleWithPath(pane->pathForResource(kHelperResourceName, kHelperResourceType));
    }
  }
  return helperBundle_.get();
}

std::unique_ptr<Bundle> ZonaraPreferencesController::prefPaneFromRunningHelper() {
  std::unique_ptr<Bundle> helper = runningHelperAppBundle();
  if (!helper) return nullptr;
  // Zonara.prefPane/Contents/Resources/ZonaraHelper.app: the pane is three
  // levels up; a helper placed straight in a pane folder has it as parent.
  const std::string parent = parentFolder(helper->bundlePath());
  if (lowercase(Bundle::pathExtension(parent)) == "prefpane") {
    if (auto pane = Bundle::bundleWithPath(parent)) return pane;
  }
  const std::string threeUp = parentFolder(parentFolder(parent));
  if (lowercase(Bundle::pathExtension(threeUp)) == "prefpane") {
    if (auto pane = Bundle::bundleWithPath(threeUp)) return pane;
  }
  return nullptr;
}

const Bundle* ZonaraPreferencesController::zonaraPrefPaneBundle() {
  if (prefPaneBundle_) return prefPaneBundle_.get();
  // 1. The running program's own bundle.
  if (auto main = Bundle::bundleWithPath(Bundle::bundlePathForExecutable(services_.mainExecutablePath))) {
    if (main->bundleIdentifier() == kPrefPaneIdentifier) prefPaneBundle_ = std::move(main);
  }
  // 2. Around the running helper.
  if (!prefPaneBundle_) prefPaneBundle_ = prefPaneFromRunningHelper();
  // 3. "PreferencePanes/Zonara.prefPane" in the library folders.
  if (!prefPaneBundle_) {
    for (const std::string& folder : *services_.libraryFolders) {
      auto pane = Bundle::bundleWithPath(folder + "/PreferencePanes/" + kPrefPaneFileName);
      if (pane && isPaneIdentifier(*pane)) {
        prefPaneBundle_ = std::move(pane);
        break;
      }
    }
  }
  // 4. Any pane of the right identifier under "PreferencePanes".
  if (!prefPaneBundle_) {
    for (const std::string& folder : *services_.libraryFolders) {
      for (const std::string& path : findFolders(folder + "/PreferencePanes", ".prefPane")) {
        auto pane = Bundle::bundleWithPath(path);
        if (pane && isPaneIdentifier(*pane)) {
          prefPaneBundle_ = std::move(pane);
          break;
        }
      }
      if (prefPaneBundle_) break;
    }
  }
  return prefPaneBundle_.get();
}

std::vector<std::string> ZonaraPreferencesController::defaultLibraryFolders(const std::string& mainExecutablePath) {
  std::vector<std::string> folders;
  if (const std::string home = homeFolder(); !home.empty() && home[0] == '/') {
    folders.push_back(home + "/.local/lib/zonara");
  }
  if (!mainExecutablePath.empty()) {
    folders.push_back(parentFolder(parentFolder(mainExecutablePath)) + "/lib/zonara");
  }
  folders.push_back("/usr/local/lib/zonara");
  return folders;
}

// --- Login item -----------------------------------------------------------

std::string ZonaraPreferencesController::helperExecutableInPane() {
  const Bundle* pane = zonaraPrefPaneBundle();
  if (pane == nullptr) return "";
  std::unique_ptr<Bundle> helper = Bundle::bundleWithPath(pane->pathForResource(kHelperResourceName, kHelperResourceType));
  return helper ? helper->executablePath() : "";
}

bool ZonaraPreferencesController::shouldStartZonaraAtLogin() {
  const std::string program = helperExecutableInPane();
  if (program.empty()) return false;
  const std::string real = canonicalPath(program);
  std::unique_ptr<PrefValue::Array> items;
  if (LIAECopyLoginItems(&items) != 0) return false;
  return std::any_of(items->begin(), items->end(), [&](const PrefValue& item) { return itemRuns(item, real); });
}

bool ZonaraPreferencesController::setShouldStartZonaraAtLogin(bool enabled) {
  const std::string program = helperExecutableInPane();
  if (program.empty()) return false;
  setStartAtLogin(program, enabled);
  return true;
}

void ZonaraPreferencesController::setStartAtLogin(const std::string& path, bool enabled) {
  if (path.empty()) return;
  // Both sides compared by real path: an entry running the program through a
  // link is the same item.
  const std::string real = canonicalPath(path);
  const std::string url = FileURLFromPath(real);
  std::unique_ptr<PrefValue::Array> items;
  if (LIAECopyLoginItems(&items) == 0) {
    for (size_t i = 0; i < items->size(); ++i) {
      if (!itemRuns((*items)[i], real)) continue;
      if (!enabled) (void)LIAERemove(static_cast<int32_t>(i));
      return;
    }
  }
  if (enabled) (void)LIAEAddURLAtEnd(&url, false);
}

// --- Plain functions ------------------------------------------------------

std::optional<PrefValue> ZonaraPreferencesController_objectForKey(const std::string& key) {
  return ZonaraPreferencesController::sharedController().objectForKey(key);
}

bool ZonaraPreferencesController_boolForKey(const std::string& key) {
  PreferencesDomain domain(kPreferencesDomain);
  std::optional<PrefValue> v = domain.copyValue(key);
  return v && v->asBool();
}

int32_t ZonaraPreferencesController_integerForKey(const std::string& key) {
  PreferencesDomain domain(kPreferencesDomain);
  std::optional<PrefValue> v = domain.copyValue(key);
  return v ? static_cast<int32_t>(v->asInteger()) : 0;
}

}  // namespace zonara
