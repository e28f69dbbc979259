#include "app/testing/helper_services.h"

#include <filesystem>
#include <fstream>

#include "platform/testing/source_dir.h"

namespace zonara::testing {

namespace {

// Makes the folders and the zone file before the members that read them.
const std::string& prepared(const std::string& root, const std::string& systemZone) {
  std::filesystem::create_directories(root + "/config");
  std::ofstream(root + "/timezone") << systemZone << "\n";
  return root;
}

}  // namespace

HelperServices::HelperServices(const std::string& root, const std::string& systemZone)
    : root_(prepared(root, systemZone)),
      zones(timezoneFile()),
      preferences(kPreferencesDomain, configFolder()) {
  const std::string script = "printf '%s\\n' \"$1\" >> '" + root_ + "/commands' && printf '%s\\n' \"$1\" > '" +
                             timezoneFile() + "'";
  preferences.setValue("SetTimezoneCommand",
                       PrefValue::array({PrefValue::string("/bin/sh"), PrefValue::string("-c"),
                                         PrefValue::string(script), PrefValue::string("set-timezone")}));
}

AppController::Services HelperServices::services() {
  AppController::Services s;
  s.application = &application;
  s.runLoop = &RunLoop::main();
  s.notificationCenter = &center;
  s.distributedCenter = &distributed;
  s.server = &server;
  s.commandRunner = &runner;
  s.workspace = &workspace;
  s.notifier = &notifier;
  s.zones = &zones;
  s.fetcher = &fetcher;
  s.preferences = &preferences;
  s.preferencesDirectory = configFolder();
  s.dataHome = dataHome();
  s.historyPath = historyFile();
  s.iconPath = SourceDir() + "/app/resources/Zonara.png";
  return s;
}

std::vector<std::string> HelperServices::commands() const {
  std::vector<std::string> out;
  std::ifstream in(root_ + "/commands");
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace zonara::testing
