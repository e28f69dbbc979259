#include "prefs/ProcessManager.h"

#include "platform/bundle.h"

namespace zonara {

const char* statusComment(OSStatus status) {
  switch (status) {
    case 0: return "no error";
    case kParamErr: return "error in user parameter list";
    case kProcNotFound: return "no eligible process with specified descriptor";
    default: return "unknown error";
  }
}

bool LinuxProcessManager::inOurSession(pid_t pid, const std::string& ourBus) const {
  if (ourBus.empty()) return true;
  std::optional<std::string> bus = processes_.environmentVariable(pid, "DBUS_SESSION_BUS_ADDRESS");
  return !bus || *bus == ourBus;
}

void LinuxProcessManager::takeSnapshot() {
  snapshot_.clear();
  const std::string ourBus = environmentValue("DBUS_SESSION_BUS_ADDRESS").value_or("");
  for (pid_t pid : processes_.userProcessIds()) {
    std::optional<uint64_t> ticks = processes_.startTicks(pid);
    if (!ticks) continue;  // ended while we looked
    if (!inOurSession(pid, ourBus)) continue;
    snapshot_.push_back({pid, *ticks});
  }
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
  std::optional<uint64_t> ticks = processes_.startTicks(e->pid);
  if (!ticks || *ticks != e->startTicks) return std::nullopt;
  PrefValue::Dictionary dict;
  dict["pid"] = PrefValue::integer(e->pid);
  // No program (a kernel thread, or a process that has died and not yet been
  // reaped): not an application, but still a process of the list.
  const std::string exe = processes_.executablePath(e->pid);
  if (exe.empty()) return dict;
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
