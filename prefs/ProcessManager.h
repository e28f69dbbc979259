// The processes of the user's session, walked one at a time the way the
// preferences controller looks for the helper: next process, its information
// record (launch date), its information dictionary (bundle identifier and
// path).
//
// On Linux the session is the set of this user's processes (same real user
// id) attached to this process's D-Bus session: a process whose environment
// names another session bus (DBUS_SESSION_BUS_ADDRESS) belongs to another
// session and is left out; processes without the variable, and every process
// when this one has none, belong to it. So two users, or a test's private bus,
// never see each other's helper.
//
// Thread safety: a `ProcessManager` belongs to one thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/preferences_store.h"
#include "platform/processes.h"
#include "prefs/LoginItemsAE.h"

namespace zonara {

// Identifies one process during a walk. {0, 0} (`kNoProcess`) starts a walk.
struct ProcessSerialNumber {
  uint32_t highLongOfPSN = 0;
  uint32_t lowLongOfPSN = 0;
  friend bool operator==(const ProcessSerialNumber&, const ProcessSerialNumber&) = default;
};
inline constexpr ProcessSerialNumber kNoProcess{0, 0};

inline constexpr OSStatus kParamErr = -50;
// No process with that serial number; also "end of the walk".
inline constexpr OSStatus kProcNotFound = -600;

struct ProcessInfo {
  pid_t processIdentifier = 0;
  // Launch time in clock ticks since the machine started (modulo 2^32).
  uint32_t launchDate = 0;
};

// Keys of a process's information dictionary.
inline constexpr const char* kProcessBundleIdentifierKey = "CFBundleIdentifier";
inline constexpr const char* kProcessBundlePathKey = "BundlePath";

class ProcessManager {
 public:
  virtual ~ProcessManager() = default;
  // Moves `*psn` to the next process of the session; `kNoProcess` starts a
  // new walk (a new snapshot of the process list). Returns 0, `kProcNotFound`
  // after the last process, or another negative status.
  [[nodiscard]] virtual OSStatus getNextProcess(ProcessSerialNumber* psn) = 0;
  // Fills `*info` for a process met in the current walk; 0 or a status.
  [[nodiscard]] virtual OSStatus getProcessInformation(const ProcessSerialNumber& psn, ProcessInfo* info) = 0;
  // The process's information dictionary: "CFBundleIdentifier" and
  // "BundlePath" when its program lives in a bundle, and "pid". nullopt when
  // it cannot be read (the process has ended since the walk began).
  [[nodiscard]] virtual std::optional<PrefValue::Dictionary> copyProcessInformation(
      const ProcessSerialNumber& psn) = 0;
};

// The short text of a status, as printed after it in log lines.
[[nodiscard]] const char* statusComment(OSStatus status);

// The process table under `procRoot`. A serial number is {0, pid}.
class LinuxProcessManager final : public ProcessManager {
 public:
  explicit LinuxProcessManager(std::string procRoot = "/proc") : processes_(std::move(procRoot)) {}
  [[nodiscard]] OSStatus getNextProcess(ProcessSerialNumber* psn) override;
  [[nodiscard]] OSStatus getProcessInformation(const ProcessSerialNumber& psn, ProcessInfo* info) override;
  [[nodiscard]] std::optional<PrefValue::Dictionary> copyProcessInformation(const ProcessSerialNumber& psn) override;

 private:
  struct Entry {
    pid_t pid;
    uint64_t startTicks;
  };
  [[nodiscard]] bool inOurSession(pid_t pid, const std::string& ourBus) const;
  void takeSnapshot();
  [[nodiscard]] const Entry* find(const ProcessSerialNumber& psn) const;

  const ProcessTable processes_;
  std::vector<Entry> snapshot_;
};

}  // namespace zonara
