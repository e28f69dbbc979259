// The running applications of the session and starting or ending them.
//
// Thread safety: any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zonara {

struct RunningApplication {
  pid_t processIdentifier = 0;
  // The identifier of the application bundle the executable lives in (the
  // "CFBundleIdentifier" of the bundle's Contents/Info.plist), or empty.
  std::string bundleIdentifier;
  // The executable's file name.
  std::string name;
};

class Workspace {
 public:
  virtual ~Workspace() = default;
  // The user's running processes, in ascending process id order.
  [[nodiscard]] virtual std::vector<RunningApplication> launchedApplications() = 0;
  // Asks the process to quit (SIGTERM); does not wait. False when the signal
  // could not be sent.
  virtual bool quitApplication(pid_t pid) = 0;
  // Starts the program `name` (searched on PATH) detached from this process,
  // without waiting. False when it could not be started.
  virtual bool launchApplication(const std::string& name) = 0;
};

// Over the process table, signals and detached spawning (processes.h).
// `procRoot` is the proc file system's mount point (tests point it elsewhere).
class LinuxWorkspace final : public Workspace {
 public:
  explicit LinuxWorkspace(std::string procRoot = "/proc") : procRoot_(std::move(procRoot)) {}
  [[nodiscard]] std::vector<RunningApplication> launchedApplications() override;
  bool quitApplication(pid_t pid) override;
  bool launchApplication(const std::string& name) override;

  // The bundle identifier for an executable path: the enclosing
  // "<bundle>/Contents/MacOS/<exe>" bundle's Info.plist, else empty.
  [[nodiscard]] static std::string bundleIdentifierForExecutable(const std::string& path);

 private:
  const std::string procRoot_;
};

}  // namespace zonara
