// This process and the others of the user: identity, the process table under
// /proc, and starting programs detached.
//
// Thread safety: any thread. A `ProcessTable` holds no state beyond its root.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zonara {

// The running program's executable (its absolute path); "" when unknown.
[[nodiscard]] std::string currentExecutablePath();
[[nodiscard]] pid_t currentProcessId();

// The value of this process's environment variable `name`; nullopt when it
// is not set (an empty value is a value).
[[nodiscard]] std::optional<std::string> environmentValue(const std::string& name);

// Where the session would find `program`: a name with a slash as it is, a
// bare name in the first folder of PATH (default "/usr/local/bin:/usr/bin:
// /bin") that holds an executable file of that name; nullopt when none does.
[[nodiscard]] std::optional<std::string> programOnPath(const std::string& program);

// The processes of the machine as the proc file system shows them. `procRoot`
// is its mount point (tests point it at a folder of their own). A process may
// end at any moment: every read answers nullopt or "" then.
class ProcessTable {
 public:
  explicit ProcessTable(std::string procRoot = "/proc") : procRoot_(std::move(procRoot)) {}

  // The ids of the processes owned by this process's real user, ascending.
  [[nodiscard]] std::vector<pid_t> userProcessIds() const;
  // Start time in clock ticks since the machine started; it tells a process
  // from a later one that reuses its id.
  [[nodiscard]] std::optional<uint64_t> startTicks(pid_t pid) const;
  // The program's path (" (deleted)" of a replaced file removed); "" when it
  // cannot be read (another user's process, a kernel thread, a zombie).
  [[nodiscard]] std::string executablePath(pid_t pid) const;
  // The command name the kernel keeps (at most 15 characters).
  [[nodiscard]] std::optional<std::string> commandName(pid_t pid) const;
  // The value of an environment variable of the process as it started;
  // nullopt when it has none or its environment cannot be read.
  [[nodiscard]] std::optional<std::string> environmentVariable(pid_t pid, const std::string& name) const;

 private:
  [[nodiscard]] std::string path(pid_t pid, const char* entry) const;
  const std::string procRoot_;
};

struct SpawnOptions {
  // Folder the program starts in ("" = ours).
  std::string workingFolder;
  // Look a program named without a folder up on PATH.
  bool searchPath = false;
  // Standard output and error to /dev/null (standard input always is).
  bool silenceOutput = false;
  // In a session of its own, so it outlives our terminal and session.
  bool newSession = false;
};

// Starts `argv` (program first) detached from this process: not waited for
// and reaped without us, holding none of our descriptors. False, with the
// reason in `*error` when given, when it could not be started.
[[nodiscard]] bool spawnDetached(const std::vector<std::string>& argv, const SpawnOptions& options,
                                 std::string* error = nullptr);

// Asks the process to end (SIGTERM); does not wait. False when the signal
// could not be sent.
bool terminateProcess(pid_t pid);

}  // namespace zonara
