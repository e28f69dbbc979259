#include "platform/workspace.h"

#include <dirent.h>
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <sstream>

#include "platform/preferences_store.h"

namespace zonara {

std::string LinuxWorkspace::bundleIdentifierForExecutable(const std::string& path) {
  // <bundle>/Contents/MacOS/<exe>
  auto macos = path.rfind('/');
  if (macos == std::string::npos) return "";
  std::string dir = path.substr(0, macos);
  const std::string suffix = "/Contents/MacOS";
  if (dir.size() <= suffix.size() || dir.compare(dir.size() - suffix.size(), suffix.size(), suffix) != 0) return "";
  std::string contents = dir.substr(0, dir.size() - std::string("/MacOS").size());
  std::ifstream in(contents + "/Info.plist", std::ios::binary);
  if (!in) return "";
  std::stringstream text;
  text << in.rdbuf();
  auto dict = parsePropertyList(text.str());
  if (!dict) return "";
  auto it = dict->find("CFBundleIdentifier");
  if (it == dict->end() || !it->second.isString()) return "";
  return it->second.asString();
}

std::vector<RunningApplication> LinuxWorkspace::launchedApplications() {
  std::vector<RunningApplication> apps;
  DIR* dir = opendir(procRoot_.c_str());
  if (!dir) return apps;
  const uid_t me = getuid();
  while (dirent* entry = readdir(dir)) {
    char* end = nullptr;
    long pid = std::strtol(entry->d_name, &end, 10);
    if (*end != '\0' || pid <= 0) continue;
    std::string base = procRoot_ + "/" + entry->d_name;
    struct stat st;
    if (stat(base.c_str(), &st) != 0 || st.st_uid != me) continue;
    RunningApplication app;
    app.processIdentifier = static_cast<pid_t>(pid);
    char target[PATH_MAX];
    ssize_t n = readlink((base + "/exe").c_str(), target, sizeof target - 1);
    if (n > 0) {
      target[n] = '\0';
      std::string exe = target;
      const std::string deleted = " (deleted)";
      if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
        exe.resize(exe.size() - deleted.size());
      }
      app.name = exe.substr(exe.rfind('/') + 1);
      app.bundleIdentifier = bundleIdentifierForExecutable(exe);
    } else {
      // Not ours to read (or a kernel thread): fall back to the command name.
      std::ifstream comm(base + "/comm");
      if (!comm || !std::getline(comm, app.name)) continue;
    }
    apps.push_back(std::move(app));
  }
  closedir(dir);
  std::sort(apps.begin(), apps.end(),
            [](const RunningApplication& a, const RunningApplication& b) { return a.processIdentifier < b.processIdentifier; });
  return apps;
}

bool LinuxWorkspace::quitApplication(pid_t pid) { return pid > 0 && kill(pid, SIGTERM) == 0; }

bool LinuxWorkspace::launchApplication(const std::string& name) {
  if (name.empty()) return false;
  gchar* argv[] = {const_cast<gchar*>(name.c_str()), nullptr};
  GError* error = nullptr;
  gboolean ok = g_spawn_async(nullptr, argv, nullptr,
                              static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDIN_FROM_DEV_NULL), nullptr,
                              nullptr, nullptr, &error);
  if (!ok) g_error_free(error);
  return ok;
}

}  // namespace zonara
