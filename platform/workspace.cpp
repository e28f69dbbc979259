#include "platform/workspace.h"

#include "platform/bundle.h"
#include "platform/processes.h"

namespace zonara {

std::string LinuxWorkspace::bundleIdentifierForExecutable(const std::string& path) {
  std::unique_ptr<Bundle> bundle = Bundle::bundleWithPath(Bundle::bundlePathForExecutable(path));
  return bundle ? bundle->bundleIdentifier() : "";
}

std::vector<RunningApplication> LinuxWorkspace::launchedApplications() {
  const ProcessTable processes(procRoot_);
  std::vector<RunningApplication> apps;
  for (pid_t pid : processes.userProcessIds()) {
    RunningApplication app;
    app.processIdentifier = pid;
    if (const std::string exe = processes.executablePath(pid); !exe.empty()) {
      app.name = exe.substr(exe.rfind('/') + 1);
      app.bundleIdentifier = bundleIdentifierForExecutable(exe);
    } else if (std::optional<std::string> command = processes.commandName(pid)) {
      // Not ours to read (or a kernel thread): the command name instead.
      app.name = *command;
    } else {
      continue;  // ended meanwhile
    }
    apps.push_back(std::move(app));
  }
  return apps;
}

bool LinuxWorkspace::quitApplication(pid_t pid) { return terminateProcess(pid); }

bool LinuxWorkspace::launchApplication(const std::string& name) {
  if (name.empty()) return false;
  SpawnOptions options;
  options.searchPath = true;
  return spawnDetached({name}, options);
}

}  // namespace zonara
