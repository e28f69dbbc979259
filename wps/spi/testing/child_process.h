// A program started as a child process by a test, owned by one object.
//
// `ChildProcess::start` forks and executes the program with the test's own
// environment plus the additions and minus the removals asked for, standard
// input on /dev/null, and standard output and standard error each sent
//   - nowhere (/dev/null, the default),
//   - to the test's own streams,
//   - to a file (truncated), or
//   - to a pipe or a pseudo-terminal that a reader thread of this object
//     drains into memory (and, when `mirrorFile` is set, into that file as
//     well). A pseudo-terminal makes the program believe it writes to a
//     terminal (programs that log to standard error only when it is a
//     terminal then do); it is put in raw mode, so text arrives unchanged.
// The child runs in a session (and process group) of its own, so nothing it
// starts is left behind: the destructor kills the whole group with SIGKILL,
// reaps the child and joins the reader threads -- also when a test ends early
// on a failed assertion.
//
// Exit status as returned by `waitFor`/`terminate`/`exitStatus`: the exit
// code (0..255), or 128 + signal number when a signal ended it.
//
// Failure: `start` returns nullptr and fills `error` when the program cannot
// be found or the process cannot be made (an exec that fails in the child
// ends it with status 127). Nothing throws except std::bad_alloc.
//
// Thread safety: one thread uses the object; the captured-output accessors
// may be called from any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zonara::testing {

class ChildProcess {
 public:
  enum class Output {
    Null,      // /dev/null
    Inherit,   // the test's own stream
    File,      // `file`, truncated
    Pipe,      // captured through a pipe
    Terminal,  // captured through a pseudo-terminal in raw mode
  };
  struct Stream {
    Output kind = Output::Null;
    std::string file;        // for Output::File
    std::string mirrorFile;  // Pipe/Terminal: captured text is appended here too
  };
  struct Options {
    std::vector<std::string> argv;  // argv[0]: a path, or a name looked up on PATH
    std::map<std::string, std::string> setEnvironment;
    std::vector<std::string> unsetEnvironment;
    std::string workingDirectory;  // "" = the test's
    Stream out;
    Stream err;
  };

  [[nodiscard]] static std::unique_ptr<ChildProcess> start(const Options& options, std::string* error = nullptr);
  // Kills the process group (SIGKILL) if the child still runs, reaps it and
  // joins the readers.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // True until the child has ended (reaps it when it has).
  [[nodiscard]] bool running();
  // The exit status once the child has ended, else nullopt (does not wait).
  [[nodiscard]] std::optional<int> exitStatus();
  // Waits up to `timeout` for the child to end (polling); its exit status, or
  // nullopt when it still runs.
  [[nodiscard]] std::optional<int> waitFor(std::chrono::milliseconds timeout);
  // SIGTERM, then after `grace` SIGKILL to the group; returns the exit status
  // (128 + 9 when it had to be killed).
  int terminate(std::chrono::milliseconds grace = std::chrono::seconds(5));
  // Sends `signal` to the child only.
  bool signal(int signal);

  // Captured text of standard output / standard error so far ("" for streams
  // that are not captured).
  [[nodiscard]] std::string capturedOut() const;
  [[nodiscard]] std::string capturedErr() const;
  // Waits until the captured standard output / error contains `text` (at or
  // after byte `from`) or `timeout` passed; true when it does.
  [[nodiscard]] bool waitForOut(const std::string& text, std::chrono::milliseconds timeout, size_t from = 0) const;
  [[nodiscard]] bool waitForErr(const std::string& text, std::chrono::milliseconds timeout, size_t from = 0) const;

  // Waits until every captured stream has reached end of file (the child and
  // everything that inherited the stream closed it) or `timeout` passed; true
  // when they have. After that the captured text is complete.
  [[nodiscard]] bool waitForEndOfOutput(std::chrono::milliseconds timeout) const;

  // Resident set size from /proc/<pid>/status, in KiB: the peak (VmHWM) and
  // the current value (VmRSS). nullopt once the child has ended or when the
  // kernel does not say.
  [[nodiscard]] std::optional<long> peakRssKiB() const;
  [[nodiscard]] std::optional<long> currentRssKiB() const;

 private:
  struct Capture;
  ChildProcess() = default;
  static std::unique_ptr<Capture> startCapture(int fd, const Stream& stream);
  void reap(int status);

  pid_t pid_ = -1;
  std::optional<int> status_;
  std::unique_ptr<Capture> out_;
  std::unique_ptr<Capture> err_;
};

// The value (in KiB) of a "Name:   123 kB" line of /proc/<pid>/status.
[[nodiscard]] std::optional<long> ProcStatusKiB(pid_t pid, const std::string& name);

}  // namespace zonara::testing
