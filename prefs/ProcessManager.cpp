#include "prefs/ProcessManager.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "prefs/Bundle.h"

namespace zonara {

const char* statusComment(OSStatus status) {
  switch (status) {
    case 0: return "no error";
    case kParamErr: return "error in user parameter list";
    case kProcNotFound: return "no eligible process with specified descriptor";
    default: return "unknown error";
  }
}

std::optional<uint64_t> LinuxProcessManager::readStartTicks(pid_t pid) const {
  std::ifstream in(procRoot_ + "/" + std::to_string(pid) + "/stat");
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

bool LinuxProcessManager::inOurSession(pid_t pid, const std::string& ourBus) const {
  if (ourBus.empty()) return true;
  std::ifstream in(procRoot_ + "/" + std::to_string(pid) + "/environ", std::ios::binary);
  if (!in) return true;
  const std::string prefix = "DBUS_SESSION_BUS_ADDRESS=";
  std::string var;
  while (std::getline(in, var, '\0')) {
    if (var.compare(0, prefix.size(), prefix) == 0) return var.substr(prefix.size()) == ourBus;
  }
  return true;
}

void LinuxProcessManager::takeSnapshot() {
  snapshot_.clear();
  DIR* dir = opendir(procRoot_.c_str());
  if (dir == nullptr) return;
  const char* busEnv = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const std::string ourBus = busEnv ? busEnv : "";
  const uid_t me = getuid();
  while (dirent* e = readdir(dir)) {
    char* end = nullptr;
    long pid = std::strtol(e->d_name, &end, 10);
    if (*end != '\0' || pid <= 0) continue;
    struct stat st;
    if (stat((procRoot_ + "/" + e->d_name).c_str(), &st) != 0 || st.st_uid != me) continue;
    std::optional<uint64_t> ticks = readStartTicks(static_cast<pid_t>(pid));
    if (!ticks) continue;  // ended while we looked
    if (!inOurSession(static_cast<pid_t>(pid), ourBus)) continue;
    snapshot_.push_back({static_cast<pid_t>(pid), *ticks});
  }
  closedir(dir);
  std::sort(snapshot_.begin(), snapshot_.end(), [](const Entry& a, const Entry& b) { return a.pid < b.pid; });
}

const LinuxProcessManager::Entry* LinuxProcessManager::find(const ProcessSerialNumber& psn) const {
  if (psn.highLongOfPSN != 0) return nullptr;
  for (const Entry& e : snapshot_) {
    if (static_cast<uint32_t>(e.pid) == psn.lowLongOfPSN) return &e;
  }
  return nullptr;
}

OSStatus LinuxProcessManager::getNextProcess(ProcessSerialNumber* psn) {
  if (psn == nullptr) return kParamErr;
  if (*psn == kNoProcess) {
    takeSnapshot();
    if (snapshot_.empty()) return kProcNotFound;
    *psn = {0, static_cast<uint32_t>(snapshot_.front().pid)};
    return 0;
  }
  const Entry* current = find(*psn);
  if (current == nullptr) return kParamErr;
  const size_t next = static_cast<size_t>(current - snapshot_.data()) + 1;
  if (next >= snapshot_.size()) return kProcNotFound;
  *psn = {0, static_cast<uint32_t>(snapshot_[next].pid)};
  return 0;
}

OSStatus LinuxProcessManager::getProcessInformation(const ProcessSerialNumber& psn, ProcessInfo* info) {
  if (info == nullptr) return kParamErr;
  const Entry* e = find(psn);
  if (e == nullptr) return kProcNotFound;
  info->processIdentifier = e->pid;
  info->launchDate = static_cast<uint32_t>(e->startTicks);
  return 0;
}

std::optional<PrefValue::Dictionary> LinuxProcessManager::copyProcessInformation(const ProcessSerialNumber& psn) {
  const Entry* e = find(psn);
  if (e == nullptr) return std::nullopt;
  // The same process still (a reused pid has another start time)?
  std::optional<uint64_t> ticks = readStartTicks(e->pid);
  if (!ticks || *ticks != e->startTicks) return std::nullopt;
  PrefValue::Dictionary dict;
  dict["pid"] = PrefValue::integer(e->pid);
  char target[PATH_MAX];
  const std::string base = procRoot_ + "/" + std::to_string(e->pid);
  ssize_t n = readlink((base + "/exe").c_str(), target, sizeof target - 1);
  // No program (a kernel thread, or a process that has died and not yet been
  // reaped): not an application, but still a process of the list.
  if (n <= 0) return dict;
  target[n] = '\0';
  std::string exe = target;
  const std::string deleted = " (deleted)";
  if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
    exe.resize(exe.size() - deleted.size());
  }
  const std::string bundlePath = Bundle::bundlePathForExecutable(exe);
  if (bundlePath.empty()) return dict;
  std::unique_ptr<Bundle> bundle = Bundle::bundleWithPath(bundlePath);
  if (!bundle) return dict;
  dict[kProcessBundlePathKey] = PrefValue::string(bundle->bundlePath());
  const std::string identifier = bundle->bundleIdentifier();
  if (!identifier.empty()) dict[kProcessBundleIdentifierKey] = PrefValue::string(identifier);
  return dict;
}

}  // namespace zonara
