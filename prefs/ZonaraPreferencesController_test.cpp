#include "prefs/ZonaraPreferencesController.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/run_loop.h"
#include "platform/system_log.h"
#include "platform/testing/system_log_capture.h"
#include "platform/testing/test_bus.h"
#include "wps/spi/testing/temp_dir.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

fs::path binDir() { return fs::canonical("/proc/self/exe").parent_path().parent_path() / "bin"; }

// A bundle folder with its Info.plist.
fs::path makeBundle(const fs::path& path, const std::string& identifier, const std::string& executable = "") {
  fs::create_directories(path / "Contents/MacOS");
  fs::create_directories(path / "Contents/Resources");
  PrefValue::Dictionary info{{"CFBundleIdentifier", PrefValue::string(identifier)}};
  if (!executable.empty()) info["CFBundleExecutable"] = PrefValue::string(executable);
  std::ofstream(path / "Contents/Info.plist") << serializePropertyList(info);
  return fs::canonical(path);
}

// "<pane>/Contents/Resources/ZonaraHelper.app" holding a copy of the built
// helper (a hard link when the file system allows), so that the process runs
// from inside the bundle.
fs::path makePaneWithHelper(const fs::path& pane) {
  makeBundle(pane, "org.quillon.Zonara", "zonara");
  const fs::path helper = makeBundle(pane / "Contents/Resources/ZonaraHelper.app", "org.quillon.ZonaraHelper",
                                     "ZonaraHelper");
  const fs::path exe = helper / "Contents/MacOS/ZonaraHelper";
  std::error_code ec;
  fs::create_hard_link(binDir() / "ZonaraHelper", exe, ec);
  if (ec) fs::copy_file(binDir() / "ZonaraHelper", exe);
  return helper;
}

// A scripted process list: serial numbers are {0, 1-based position}.
class FakeProcessManager final : public ProcessManager {
 public:
  struct Process {
    uint32_t launchDate = 0;
    std::string identifier;
    std::string bundlePath;
    int copyFailures = 0;        // the first n dictionary copies fail
    OSStatus infoStatus = 0;     // GetProcessInformation's answer
  };
  std::vector<Process> processes;
  OSStatus nextStatusAtEnd = kProcNotFound;  // what follows the last process
  int walks = 0;

  OSStatus getNextProcess(ProcessSerialNumber* psn) override {
    if (*psn == kNoProcess) ++walks;
    const uint32_t next = psn->lowLongOfPSN + 1;
    if (next > processes.size()) return nextStatusAtEnd;
    *psn = {0, next};
    return 0;
  }
  OSStatus getProcessInformation(const ProcessSerialNumber& psn, ProcessInfo* info) override {
    const Process& p = processes.at(psn.lowLongOfPSN - 1);
    if (p.infoStatus != 0) return p.infoStatus;
    info->processIdentifier = static_cast<pid_t>(psn.lowLongOfPSN);
    info->launchDate = p.launchDate;
    return 0;
  }
  std::optional<PrefValue::Dictionary> copyProcessInformation(const ProcessSerialNumber& psn) override {
    Process& p = processes.at(psn.lowLongOfPSN - 1);
    if (p.copyFailures > 0) {
      --p.copyFailures;
      return std::nullopt;
    }
    PrefValue::Dictionary d;
    if (!p.identifier.empty()) d[kProcessBundleIdentifierKey] = PrefValue::string(p.identifier);
    if (!p.bundlePath.empty()) d[kProcessBundlePathKey] = PrefValue::string(p.bundlePath);
    return d;
  }
};

class ControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CONFIG_HOME", (tmp_ / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (tmp_ / "data").c_str(), 1);
  }

  // A controller of its own, alive until the test ends.
  ZonaraPreferencesController* controller(ProcessManager* processes,
                                                          std::vector<std::string> libraryFolders = {},
                                                          std::string mainExecutable = "/nowhere/bin/zonara") {
    ZonaraPreferencesController::Services s;
    s.distributedCenter = center_;
    s.processManager = processes;
    s.libraryFolders = std::move(libraryFolders);
    s.mainExecutablePath = std::move(mainExecutable);
    controllers_.push_back(ZonaraPreferencesController::makeUnshared(std::move(s)));
    return controllers_.back().get();
  }

  // Hears nothing and posts nowhere.
  class NoCenter final : public DistributedNotificationCenter {
   public:
    void post(const DistributedNotification&) override {}
    ObserverId addObserver(const std::string&, Observer) override { return 1; }
    void removeObserver(ObserverId) override {}
  };

  testing::TempDir scratch_{"ctl"};
  const fs::path tmp_{scratch_.path()};
  NoCenter noCenter_;
  DistributedNotificationCenter* center_ = &noCenter_;
  std::vector<std::unique_ptr<ZonaraPreferencesController>> controllers_;
};

// --- The process walk ------------------------------------------------------

TEST_F(ControllerTest, TheEarliestLaunchedProcessOfTheIdentifierWins) {
  const std::string a = makeBundle(tmp_ / "a/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const std::string b = makeBundle(tmp_ / "b/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const std::string c = makeBundle(tmp_ / "c/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const std::string other = makeBundle(tmp_ / "Other.app", "org.example.Other");
  struct Case {
    const char* what;
    std::vector<FakeProcessManager::Process> processes;
    std::string expected;  // bundle path, "" for none
  };
  const std::vector<Case> cases = {
      {"later pid launched first", {{500, "org.quillon.ZonaraHelper", a}, {100, "org.quillon.ZonaraHelper", b}}, b},
      {"earlier pid launched first", {{100, "org.quillon.ZonaraHelper", a}, {500, "org.quillon.ZonaraHelper", b}}, a},
      {"equal dates: the one met first", {{300, "org.quillon.ZonaraHelper", c}, {300, "org.quillon.ZonaraHelper", a}}, c},
      {"an earlier process of another identifier does not count",
       {{500, "org.quillon.ZonaraHelper", a}, {10, "org.example.Other", other}}, a},
      {"identifier without a bundle path", {{10, "org.quillon.ZonaraHelper", ""}}, ""},
      {"no processes", {}, ""},
      {"the largest date never wins", {{UINT32_MAX, "org.quillon.ZonaraHelper", a}}, ""},
  };
  for (const Case& c : cases) {
    FakeProcessManager processes;
    processes.processes = c.processes;
    auto ctl = controller(&processes);
    std::unique_ptr<Bundle> found = ctl->runningHelperAppBundle();
    EXPECT_EQ(found ? found->bundlePath() : "", c.expected) << c.what;
    EXPECT_EQ(ctl->isZonaraRunning(), !c.processes.empty() && c.processes[0].identifier == "org.quillon.ZonaraHelper")
        << c.what;
  }
}

TEST_F(ControllerTest, AProcessWhoseDictionaryCannotBeReadRestartsTheWalk) {
  const std::string a = makeBundle(tmp_ / "a/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const std::string b = makeBundle(tmp_ / "b/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  FakeProcessManager processes;
  // The earlier helper (b) is met after a process whose dictionary fails
  // twice: the walk starts over twice and still ends with b.
  processes.processes = {{200, "org.quillon.ZonaraHelper", a}, {50, "", "", 2}, {100, "org.quillon.ZonaraHelper", b}};
  auto ctl = controller(&processes);
  std::unique_ptr<Bundle> found = ctl->runningHelperAppBundle();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->bundlePath(), b);
  EXPECT_EQ(processes.walks, 3);
}

TEST_F(ControllerTest, WalkFailuresAreLoggedAndGiveWhatWasFoundSoFar) {
  const std::string a = makeBundle(tmp_ / "a/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const std::string b = makeBundle(tmp_ / "b/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  {
    FakeProcessManager processes;
    processes.processes = {{200, "org.quillon.ZonaraHelper", a}};
    processes.nextStatusAtEnd = kParamErr;
    testing::SystemLogCapture log;
    std::unique_ptr<Bundle> found = controller(&processes)->runningHelperAppBundle();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->bundlePath(), a);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "bundleForProcessWithBundleIdentifier: GetNextProcess returned -50/error in user "
                             "parameter list"}));
  }
  {
    FakeProcessManager processes;
    processes.processes = {{200, "org.quillon.ZonaraHelper", a}, {10, "", "", 0, kProcNotFound},
                           {100, "org.quillon.ZonaraHelper", b}};
    testing::SystemLogCapture log;
    std::unique_ptr<Bundle> found = controller(&processes)->runningHelperAppBundle();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->bundlePath(), a);  // the walk stopped before b
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Couldn't get information about process 0,2: GetProcessInformation returned -600/no eligible "
                  "process with specified descriptor",
                  "bundleForProcessWithBundleIdentifier: GetNextProcess returned -600/no eligible process with "
                  "specified descriptor"}));
  }
}

// --- Finding the pane and the helper ---------------------------------------

TEST_F(ControllerTest, TheHelperInsideThePaneFindsThePaneThreeLevelsUp) {
  const fs::path pane = makeBundle(tmp_ / "Somewhere/Zonara.prefPane", "org.quillon.Zonara");
  const fs::path helper = makeBundle(pane / "Contents/Resources/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  FakeProcessManager processes;
  processes.processes = {{100, "org.quillon.ZonaraHelper", helper}};
  auto ctl = controller(&processes);
  const Bundle* found = ctl->zonaraPrefPaneBundle();
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->bundlePath(), pane.string());
  // Cached: still found once the helper has gone.
  processes.processes.clear();
  EXPECT_EQ(ctl->zonaraPrefPaneBundle(), found);

  // A helper straight inside a pane folder finds it as its parent.
  const fs::path flatPane = makeBundle(tmp_ / "Flat.PREFPANE", "org.quillon.Zonara");
  const fs::path flatHelper = makeBundle(flatPane / "ZonaraHelper.app", "org.quillon.ZonaraHelper");
  processes.processes = {{100, "org.quillon.ZonaraHelper", flatHelper}};
  const Bundle* flat = controller(&processes)->zonaraPrefPaneBundle();
  EXPECT_TRUE(flat != nullptr && flat->bundlePath() == flatPane.string());

  // A helper somewhere else gives no pane from step 2 (and none elsewhere).
  const fs::path loose = makeBundle(tmp_ / "a/b/c/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  processes.processes = {{100, "org.quillon.ZonaraHelper", loose}};
  EXPECT_EQ(controller(&processes)->zonaraPrefPaneBundle(), nullptr);
}

TEST_F(ControllerTest, PaneLookUpsInOrder) {
  FakeProcessManager none;
  const fs::path user = tmp_ / "user", local = tmp_ / "local";
  const std::vector<std::string> folders{user.string(), local.string()};

  // Step 1: the running program lives in the pane.
  const fs::path own = makeBundle(tmp_ / "own/Zonara.prefPane", "org.quillon.Zonara", "zonara");
  const Bundle* found = controller(&none, folders, (own / "Contents/MacOS/zonara").string())->zonaraPrefPaneBundle();
  EXPECT_TRUE(found && found->bundlePath() == own.string());
  // ... but not when its identifier differs only by case (steps 3 and 4 ignore case).
  const fs::path upper = makeBundle(tmp_ / "upper/Zonara.prefPane", "ORG.QUILLON.ZONARA", "zonara");
  EXPECT_EQ(controller(&none, folders, (upper / "Contents/MacOS/zonara").string())->zonaraPrefPaneBundle(), nullptr);

  // Step 3: PreferencePanes/Zonara.prefPane, identifier compared ignoring case;
  // the first folder that has one wins.
  makeBundle(local / "PreferencePanes/Zonara.prefPane", "Org.Quillon.Zonara");
  found = controller(&none, folders)->zonaraPrefPaneBundle();
  EXPECT_TRUE(found && found->bundlePath() == fs::canonical(local / "PreferencePanes/Zonara.prefPane").string());
  makeBundle(user / "PreferencePanes/Zonara.prefPane", "org.quillon.Zonara");
  found = controller(&none, folders)->zonaraPrefPaneBundle();
  EXPECT_TRUE(found && found->bundlePath() == fs::canonical(user / "PreferencePanes/Zonara.prefPane").string());

  // Step 4: any "*.prefPane" of the identifier under PreferencePanes, not
  // descending into panes; "prefpane" in lower case does not count.
  fs::remove_all(user);
  fs::remove_all(local);
  makeBundle(user / "PreferencePanes/Other.prefPane", "org.example.other");
  makeBundle(user / "PreferencePanes/Other.prefPane/Inner.prefPane", "org.quillon.Zonara");
  makeBundle(user / "PreferencePanes/lower.prefpane", "org.quillon.Zonara");
  EXPECT_EQ(controller(&none, folders)->zonaraPrefPaneBundle(), nullptr);
  const fs::path renamed = makeBundle(local / "PreferencePanes/Vendor/Zonara 2.prefPane", "org.quillon.zonara");
  found = controller(&none, folders)->zonaraPrefPaneBundle();
  EXPECT_TRUE(found && found->bundlePath() == renamed.string());
}

TEST_F(ControllerTest, HelperBundleIsTheRunningOneElseThePanesResource) {
  const fs::path pane = makeBundle(tmp_ / "lib/PreferencePanes/Zonara.prefPane", "org.quillon.Zonara");
  const fs::path resource = makeBundle(pane / "Contents/Resources/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  const fs::path running = makeBundle(tmp_ / "elsewhere/ZonaraHelper.app", "org.quillon.ZonaraHelper");
  FakeProcessManager processes;
  processes.processes = {{100, "org.quillon.ZonaraHelper", running}};
  const Bundle* helper = controller(&processes, {(tmp_ / "lib").string()})->helperAppBundle();
  EXPECT_TRUE(helper && helper->bundlePath() == running.string());
  processes.processes.clear();
  helper = controller(&processes, {(tmp_ / "lib").string()})->helperAppBundle();
  EXPECT_TRUE(helper && helper->bundlePath() == resource.string());
  EXPECT_EQ(controller(&processes, {})->helperAppBundle(), nullptr);
}

// --- Login item --------------------------------------------------------------

TEST_F(ControllerTest, LoginItemIsAddedOnceAndRemoved) {
  const fs::path pane = makeBundle(tmp_ / "lib/PreferencePanes/Zonara.prefPane", "org.quillon.Zonara");
  const fs::path helper =
      makeBundle(pane / "Contents/Resources/ZonaraHelper.app", "org.quillon.ZonaraHelper", "ZonaraHelper");
  std::ofstream(helper / "Contents/MacOS/ZonaraHelper") << "#!/bin/sh\n";
  fs::permissions(helper / "Contents/MacOS/ZonaraHelper", fs::perms::owner_all);
  // Someone else's item sorts first, so ours is not at index 0.
  const fs::path other = tmp_ / "aaa-other";
  std::ofstream(other) << "#!/bin/sh\n";
  fs::permissions(other, fs::perms::owner_all);
  const std::string otherURL = FileURLFromPath(other.string());
  ASSERT_EQ(LIAEAddURLAtEnd(&otherURL, false), 0);

  FakeProcessManager none;
  auto ctl = controller(&none, {(tmp_ / "lib").string()});
  auto count = [] {
    std::unique_ptr<PrefValue::Array> items;
    EXPECT_EQ(LIAECopyLoginItems(&items), 0);
    return items ? items->size() : 0u;
  };
  EXPECT_FALSE(ctl->shouldStartZonaraAtLogin());
  ASSERT_TRUE(ctl->setShouldStartZonaraAtLogin(true));
  EXPECT_TRUE(ctl->shouldStartZonaraAtLogin());
  EXPECT_EQ(count(), 2u);
  ASSERT_TRUE(ctl->setShouldStartZonaraAtLogin(true));  // no duplicate
  EXPECT_EQ(count(), 2u);
  ASSERT_TRUE(ctl->setShouldStartZonaraAtLogin(false));
  EXPECT_FALSE(ctl->shouldStartZonaraAtLogin());
  std::unique_ptr<PrefValue::Array> items;
  ASSERT_EQ(LIAECopyLoginItems(&items), 0);
  ASSERT_EQ(items->size(), 1u);  // the other item stays
  EXPECT_EQ(items->at(0).asDictionary().at(kLoginItemURL).asString(), otherURL);
  ctl->setStartAtLogin("", true);  // nothing
  EXPECT_EQ(count(), 1u);

  // An entry that runs the helper through a link (as the installed command
  // on PATH does) is the helper's item: recognised, not added twice, removed.
  const fs::path link = tmp_ / "zonara-helper";
  fs::create_symlink(helper / "Contents/MacOS/ZonaraHelper", link);
  const std::string linkURL = FileURLFromPath(link.string());
  ASSERT_EQ(LIAEAddURLAtEnd(&otherURL, false), 0);
  {
    const fs::path autostart = tmp_ / "config/autostart";
    std::ofstream(autostart / "zonara-helper.desktop")
        << "[Desktop Entry]\nType=Application\nExec=" << link.string() << "\n";
  }
  EXPECT_TRUE(ctl->shouldStartZonaraAtLogin());
  ASSERT_TRUE(ctl->setShouldStartZonaraAtLogin(true));
  EXPECT_EQ(count(), 3u);  // the other item twice, the helper's once
  ASSERT_TRUE(ctl->setShouldStartZonaraAtLogin(false));
  EXPECT_FALSE(ctl->shouldStartZonaraAtLogin());
  EXPECT_EQ(count(), 2u);

  // Without a pane there is nothing to add.
  EXPECT_FALSE(controller(&none, {})->setShouldStartZonaraAtLogin(true));
  EXPECT_FALSE(controller(&none, {})->shouldStartZonaraAtLogin());
}

// --- Preferences -----------------------------------------------------------

class BusControllerTest : public ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    ASSERT_TRUE(bus_.ok());
    bus_.exportAsSessionBus();
    connection_ = DBusConnection::openAddress(bus_.address(), nullptr);
    ASSERT_TRUE(connection_);
    dbusCenter_ = std::make_unique<DBusDistributedNotificationCenter>(*connection_);
    center_ = dbusCenter_.get();
  }
  void TearDown() override {
    controllers_.clear();
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }

  testing::TestBus bus_;
  std::unique_ptr<DBusConnection> connection_;
  std::unique_ptr<DBusDistributedNotificationCenter> dbusCenter_;
};

TEST_F(BusControllerTest, WritesAreStoredAndAnnouncedWithKeyAndPid) {
  FakeProcessManager none;
  auto ctl = controller(&none);
  std::vector<DistributedNotification> heard;
  auto id = center_->addObserver("ZonaraPreferencesChanged", [&](const DistributedNotification& n) { heard.push_back(n); });
  ctl->setBoolForKey(true, "ZonaraEnabled");
  ctl->setIntegerForKey(-7, "Count");
  ctl->setObjectForKey(PrefValue::string("x"), "Name");
  ASSERT_TRUE(RunLoop::current().runUntil([&] { return heard.size() == 3; }, 3s));
  center_->removeObserver(id);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(heard[0].object, "ZonaraEnabled");
  EXPECT_EQ(heard[1].object, "Count");
  EXPECT_EQ(heard[2].object, "Name");
  for (const auto& n : heard) EXPECT_EQ(n.userInfo, (std::map<std::string, std::string>{{"pid", pid}}));

  // Written to the file at once, with their types.
  PreferencesDomain file("org.quillon.ZonaraHelper");
  EXPECT_EQ(file.copyValue("ZonaraEnabled"), PrefValue::boolean(true));
  EXPECT_EQ(file.copyValue("Count"), PrefValue::integer(-7));
  EXPECT_EQ(file.copyValue("Name"), PrefValue::string("x"));
  EXPECT_TRUE(ZonaraPreferencesController_boolForKey("ZonaraEnabled"));
  EXPECT_EQ(ZonaraPreferencesController_integerForKey("Count"), -7);
  EXPECT_EQ(ctl->integerForKey("Name"), 0);  // not a number
  EXPECT_FALSE(ctl->boolForKey("Missing"));
}

TEST_F(BusControllerTest, AnotherWriterBecomesVisibleWhenItsNotificationArrives) {
  FakeProcessManager none;
  auto reader = controller(&none);
  EXPECT_FALSE(reader->objectForKey("Shared"));
  // Another process writes the file and announces it.
  PreferencesDomain other("org.quillon.ZonaraHelper");
  other.setValue("Shared", PrefValue::integer(42));
  ASSERT_TRUE(other.synchronize());
  EXPECT_FALSE(reader->objectForKey("Shared"));  // still the values last read
  center_->post({"ZonaraPreferencesChanged", "Shared", {{"pid", "1"}}});
  ASSERT_TRUE(RunLoop::current().runUntil([&] { return reader->objectForKey("Shared").has_value(); }, 3s));
  EXPECT_EQ(reader->integerForKey("Shared"), 42);
}

TEST_F(ControllerTest, RegisterDefaultsKeepsStoredValuesAndAddsMissingOnes) {
  FakeProcessManager none;
  {
    // No stored domain yet: the defaults become the stored domain.
    auto ctl = controller(&none);
    ctl->registerDefaults({{"A", PrefValue::integer(1)}});
    EXPECT_EQ(PreferencesDomain("org.quillon.ZonaraHelper").copyValue("A"), PrefValue::integer(1));
  }
  PreferencesDomain stored("org.quillon.ZonaraHelper");
  stored.setValue("A", PrefValue::integer(5));
  stored.setValue("Mine", PrefValue::string("kept"));
  ASSERT_TRUE(stored.synchronize());
  auto ctl = controller(&none);
  ctl->registerDefaults({{"A", PrefValue::integer(1)}, {"B", PrefValue::boolean(true)}});
  PreferencesDomain after("org.quillon.ZonaraHelper");
  EXPECT_EQ(after.copyValue("A"), PrefValue::integer(5));
  EXPECT_EQ(after.copyValue("B"), PrefValue::boolean(true));
  EXPECT_EQ(after.copyValue("Mine"), PrefValue::string("kept"));
  EXPECT_EQ(ctl->dictionaryRepresentation().size(), 3u);
}

TEST_F(ControllerTest, InitReturnsTheOneSharedController) {
  // No session bus: the singleton lives on after this test and must not hold
  // one of a test's private buses.
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (tmp_ / "no-bus").string()).c_str(), 1);
  ZonaraPreferencesController::Services services;
  services.preferencesDirectory = (tmp_ / "first").string();
  ZonaraPreferencesController& first = ZonaraPreferencesController::init(services);
  services.preferencesDirectory = (tmp_ / "second").string();
  EXPECT_EQ(&ZonaraPreferencesController::init(services), &first);
  EXPECT_EQ(&ZonaraPreferencesController::sharedController(), &first);
  first.setObjectForKey(PrefValue::string("v"), "K");
  EXPECT_TRUE(fs::exists(tmp_ / "first/org.quillon.ZonaraHelper.plist"));
  EXPECT_FALSE(fs::exists(tmp_ / "second"));
  EXPECT_EQ(ZonaraPreferencesController_objectForKey("K"), PrefValue::string("v"));
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

// --- Real helpers on a private bus ------------------------------------------

std::vector<pid_t> processesRunning(const fs::path& executable) {
  std::vector<pid_t> pids;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ec;
    fs::path exe = fs::read_symlink(entry.path() / "exe", ec);
    if (!ec && exe == executable) pids.push_back(std::stoi(name));
  }
  return pids;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

TEST_F(BusControllerTest, TwoHelpersTheFirstLaunchedIsTheRunningBundle) {
  // Helpers under test must not touch the machine's zone or the network.
  PreferencesDomain prefs("org.quillon.ZonaraHelper");
  prefs.setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string("/bin/true")}));
  prefs.setValue("TimezoneServiceURL", PrefValue::string("http://127.0.0.1:9"));
  ASSERT_TRUE(prefs.synchronize());

  const fs::path lib = tmp_ / "lib";
  const fs::path installed = makePaneWithHelper(lib / "PreferencePanes/Zonara.prefPane");
  const fs::path old = makePaneWithHelper(tmp_ / "old/Zonara.prefPane");
  const fs::path installedExe = installed / "Contents/MacOS/ZonaraHelper";
  const fs::path oldExe = old / "Contents/MacOS/ZonaraHelper";

  LinuxProcessManager processes;
  auto ctl = controller(&processes, {lib.string()});
  EXPECT_FALSE(ctl->isZonaraRunning());
  ASSERT_TRUE(ctl->helperAppBundle());
  EXPECT_EQ(ctl->helperAppBundle()->bundlePath(), installed.string());

  // The old copy is started first, by hand.
  pid_t first = fork();
  if (first == 0) {
    execl(oldExe.c_str(), oldExe.c_str(), nullptr);
    _exit(127);
  }
  ASSERT_TRUE(waitUntil([&] { return ctl->isZonaraRunning(); }, 5s));
  std::unique_ptr<Bundle> running = ctl->runningHelperAppBundle();
  ASSERT_TRUE(running);
  EXPECT_EQ(running->bundlePath(), old.string());

  // Without the flag nothing more starts; with it the installed one starts too.
  EXPECT_TRUE(ctl->launchZonara(false));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(processesRunning(installedExe).empty());
  EXPECT_TRUE(ctl->setZonaraRunning(true, true));
  EXPECT_TRUE(ctl->boolForKey("ZonaraEnabled"));
  ASSERT_TRUE(waitUntil([&] { return processesRunning(installedExe).size() == 1; }, 5s));
  const pid_t second = processesRunning(installedExe).front();
  running = ctl->runningHelperAppBundle();
  ASSERT_TRUE(running);
  EXPECT_EQ(running->bundlePath(), old.string());  // still the first launched

  // "ZonaraShutdown" ends the serving (first) helper; the inert second stays.
  ctl->setZonaraRunning(false, false);
  EXPECT_FALSE(ctl->boolForKey("ZonaraEnabled"));
  int status = 0;
  ASSERT_TRUE(waitUntil([&] { return waitpid(first, &status, WNOHANG) == first; }, 5s));
  EXPECT_TRUE(ctl->isZonaraRunning());
  running = ctl->runningHelperAppBundle();
  EXPECT_TRUE(running && running->bundlePath() == installed.string());

  // A dead helper, even one not yet reaped, is not running.
  kill(second, SIGKILL);
  EXPECT_TRUE(waitUntil([&] { return !ctl->isZonaraRunning(); }, 5s));
  EXPECT_EQ(ctl->runningHelperAppBundle(), nullptr);
}

TEST_F(BusControllerTest, ADeadHelperThatIsNotYetReapedIsNotRunning) {
  const fs::path helper = makePaneWithHelper(tmp_ / "Zonara.prefPane");
  const fs::path exe = helper / "Contents/MacOS/ZonaraHelper";
  PreferencesDomain prefs("org.quillon.ZonaraHelper");
  prefs.setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string("/bin/true")}));
  ASSERT_TRUE(prefs.synchronize());
  LinuxProcessManager processes;
  auto ctl = controller(&processes);
  pid_t pid = fork();
  if (pid == 0) {
    execl(exe.c_str(), exe.c_str(), nullptr);
    _exit(127);
  }
  ASSERT_TRUE(waitUntil([&] { return ctl->isZonaraRunning(); }, 5s));
  kill(pid, SIGKILL);
  // Our child stays a zombie until reaped below.
  ASSERT_TRUE(waitUntil([&] { return !ctl->isZonaraRunning(); }, 5s));
  siginfo_t info{};
  EXPECT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);  // really a zombie still
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_FALSE(ctl->isZonaraRunning());
}

}  // namespace
}  // namespace zonara
