#include "platform/processes.h"

#include <dirent.h>
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/file_system.h"

namespace zonara {
namespace {

std::string readLink(const std::string& path) {
  char target[PATH_MAX];
  ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  if (n <= 0) return "";
  return std::string(target, static_cast<size_t>(n));
}

}  // namespace

std::string currentExecutablePath() { return readLink("/proc/self/exe"); }

pid_t currentProcessId() { return getpid(); }

std::optional<std::string> environmentValue(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> programOnPath(const std::string& program) {
  if (program.empty()) return std::nullopt;
  if (program.find('/') != std::string::npos) return program;
  std::stringstream folders(environmentValue("PATH").value_or("/usr/local/bin:/usr/bin:/bin"));
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    if (folder.empty()) continue;
    const std::string candidate = folder + "/" + program;
    if (isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

std::string ProcessTable::path(pid_t pid, const char* entry) const {
  return procRoot_ + "/" + std::to_string(pid) + "/" + entry;
}

std::vector<pid_t> ProcessTable::userProcessIds() const {
  std::vector<pid_t> ids;
  DIR* dir = opendir(procRoot_.c_str());
  if (dir == nullptr) return ids;
  const uid_t me = getuid();
  while (dirent* e = readdir(dir)) {
    char* end = nullptr;
    long pid = std::strtol(e->d_name, &end, 10);
    if (*end != '\0' || pid <= 0) continue;
    struct stat st;
    if (stat((procRoot_ + "/" + e->d_name).c_str(), &st) != 0 || st.st_uid != me) continue;
    ids.push_back(static_cast<pid_t>(pid));
  }
  closedir(dir);
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::optional<uint64_t> ProcessTable::startTicks(pid_t pid) const {
  std::ifstream in(path(pid, "stat"));
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  // "pid (comm) state ppid ...": the command name may hold spaces and
  // parentheses, so count fields after the last ')'. Start time is field 22.
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(line.substr(close + 1));
  std::string field;
  for (int n = 3; n <= 22; ++n) {
    if (!(fields >> field)) return std::nullopt;
  }
  char* end = nullptr;
  unsigned long long ticks = std::strtoull(field.c_str(), &end, 10);
  if (end == field.c_str() || *end != '\0') return std::nullopt;
  return ticks;
}

std::string ProcessTable::executablePath(pid_t pid) const {
  std::string exe = readLink(path(pid, "exe"));
  const std::string deleted = " (deleted)";
  if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
    exe.resize(exe.size() - deleted.size());
  }
  return exe;
}

std::optional<std::string> ProcessTable::commandName(pid_t pid) const {
  std::ifstream comm(path(pid, "comm"));
  std::string name;
  if (!comm || !std::getline(comm, name)) return std::nullopt;
  return name;
}

std::optional<std::string> ProcessTable::environmentVariable(pid_t pid, const std::string& name) const {
  std::ifstream in(path(pid, "environ"), std::ios::binary);
  if (!in) return std::nullopt;
  const std::string prefix = name + "=";
  std::string var;
  while (std::getline(in, var, '\0')) {
    if (var.compare(0, prefix.size(), prefix) == 0) return var.substr(prefix.size());
  }
  return std::nullopt;
}

bool spawnDetached(const std::vector<std::string>& argv, const SpawnOptions& options, std::string* error) {
  if (argv.empty() || argv.front().empty()) {
    if (error) *error = "no program";
    return false;
  }
  std::vector<gchar*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<gchar*>(arg.c_str()));
  args.push_back(nullptr);
  int flags = G_SPAWN_STDIN_FROM_DEV_NULL;
  if (options.searchPath) flags |= G_SPAWN_SEARCH_PATH;
  if (options.silenceOutput) flags |= G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL;
  GSpawnChildSetupFunc setup = nullptr;
  if (options.newSession) setup = [](gpointer) { setsid(); };
  GError* failure = nullptr;
  // Without DO_NOT_REAP_CHILD GLib reaps the program through an intermediate
  // child, so it never becomes our zombie.
  const gboolean ok =
      g_spawn_async(options.workingFolder.empty() ? nullptr : options.workingFolder.c_str(), args.data(), nullptr,
                    static_cast<GSpawnFlags>(flags), setup, nullptr, nullptr, &failure);
  if (!ok) {
    if (error) *error = failure ? failure->message : "cannot start";
    if (failure) g_error_free(failure);
  }
  return ok;
}

bool terminateProcess(pid_t pid) { return pid > 0 && kill(pid, SIGTERM) == 0; }

}  // namespace zonara
