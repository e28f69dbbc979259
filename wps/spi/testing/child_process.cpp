#include "wps/spi/testing/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "wps/spi/concurrent.h"

extern char** environ;

namespace zonara::testing {

using namespace std::chrono_literals;

// One captured stream: the parent's end of the pipe or terminal, drained by a
// thread into `text` (and the mirror file). `wake` ends the thread early.
struct ChildProcess::Capture {
  int fd = -1;
  int wake[2] = {-1, -1};
  int mirror = -1;
  std::thread reader;
  mutable WPS::SPI::StdMutex mu;
  mutable std::condition_variable_any grew;
  std::string text WPS_GUARDED_BY(mu);
  bool ended WPS_GUARDED_BY(mu) = false;  // the reader has finished

  ~Capture() {
    if (reader.joinable()) {
      if (wake[1] >= 0) (void)::write(wake[1], "x", 1);
      reader.join();
    }
    for (int f : {fd, wake[0], wake[1], mirror})
      if (f >= 0) ::close(f);
  }

  void run() {
    read();
    WPS::SPI::StdMutexLock lock(mu);
    ended = true;
    grew.notify_all();
  }

  void read() {
    char buffer[4096];
    for (;;) {
      pollfd fds[2] = {{fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      // Drain what is there before honouring the wake-up, so the text the
      // child wrote before it ended is never lost.
      if (fds[0].revents != 0) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
          if (mirror >= 0) (void)!::write(mirror, buffer, static_cast<size_t>(n));
          WPS::SPI::StdMutexLock lock(mu);
          text.append(buffer, static_cast<size_t>(n));
          grew.notify_all();
          continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return;  // end of file, or EIO from a terminal nobody holds any more
      }
      if (fds[1].revents != 0) return;
    }
  }

  bool waitFor(const std::string& part, std::chrono::milliseconds timeout, size_t from) const {
    WPS::SPI::StdMutexLock lock(mu);
    return grew.wait_for(mu, timeout, [&]() WPS_REQUIRES(mu) {
      return text.size() > from && text.find(part, from) != std::string::npos;
    });
  }

  // Waits until the reader has finished or `deadline` passed; true when it has.
  bool waitForEnd(std::chrono::steady_clock::time_point deadline) const {
    WPS::SPI::StdMutexLock lock(mu);
    return grew.wait_until(mu, deadline, [this]() WPS_REQUIRES(mu) { return ended; });
  }

  std::string snapshot() const {
    WPS::SPI::StdMutexLock lock(mu);
    return text;
  }
};

namespace {

std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::stringstream folders(path ? path : "/usr/bin:/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

bool fail(std::string* error, const std::string& what) {
  if (error) *error = what + (errno ? std::string(": ") + std::strerror(errno) : std::string());
  return false;
}

// Opens what the child's stream `target` (1 or 2) becomes; for captured
// streams also the parent's end. Returns false on failure.
bool prepareStream(const ChildProcess::Stream& stream, int* childFd, int* parentFd, std::string* error) {
  switch (stream.kind) {
    case ChildProcess::Output::Null:
      *childFd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
      return *childFd >= 0 || fail(error, "/dev/null");
    case ChildProcess::Output::Inherit:
      *childFd = -1;
      return true;
    case ChildProcess::Output::File:
      *childFd = ::open(stream.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      return *childFd >= 0 || fail(error, stream.file);
    case ChildProcess::Output::Pipe: {
      int fds[2];
      if (::pipe2(fds, O_CLOEXEC) != 0) return fail(error, "pipe");
      *parentFd = fds[0];
      *childFd = fds[1];
      return true;
    }
    case ChildProcess::Output::Terminal: {
      const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
      if (master < 0) return fail(error, "posix_openpt");
      char name[128];
      if (::grantpt(master) != 0 || ::unlockpt(master) != 0 || ::ptsname_r(master, name, sizeof name) != 0) {
        ::close(master);
        return fail(error, "pseudo-terminal");
      }
      const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
      if (slave < 0) {
        ::close(master);
        return fail(error, name);
      }
      termios mode{};
      if (::tcgetattr(slave, &mode) == 0) {
        ::cfmakeraw(&mode);
        (void)::tcsetattr(slave, TCSANOW, &mode);
      }
      *parentFd = master;
      *childFd = slave;
      return true;
    }
  }
  return false;
}


// The program's argument and environment vectors, made before fork: after
// it, in a process with threads, only async-signal-safe calls are allowed.
class ExecVectors {
 public:
  explicit ExecVectors(const ChildProcess::Options& options) : argText_(options.argv) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
      const std::string text = *entry;
      const size_t eq = text.find('=');
      if (eq != std::string::npos) environment[text.substr(0, eq)] = text.substr(eq + 1);
    }
    for (const std::string& name : options.unsetEnvironment) environment.erase(name);
    for (const auto& [name, value] : options.setEnvironment) environment[name] = value;
    for (const auto& [name, value] : environment) envText_.push_back(name + "=" + value);
    for (std::string& entry : envText_) envp_.push_back(entry.data());
    envp_.push_back(nullptr);
    for (std::string& arg : argText_) argv_.push_back(arg.data());
    argv_.push_back(nullptr);
  }
  char* const* argv() const { return argv_.data(); }
  char* const* envp() const { return envp_.data(); }

 private:
  std::vector<std::string> argText_, envText_;
  std::vector<char*> argv_, envp_;
};

// The descriptors of a start: the child's ends (standard input from
// /dev/null, the output streams) and the test's ends of the captured ones.
// Whatever is still open when the object goes is closed.
struct StartDescriptors {
  int input = -1, childOut = -1, childErr = -1, parentOut = -1, parentErr = -1;

  ~StartDescriptors() {
    for (int f : {input, childOut, childErr, parentOut, parentErr})
      if (f >= 0) ::close(f);
  }
  // Hands the test's end of a stream over (it is no longer closed here).
  int release(int* fd) { return std::exchange(*fd, -1); }
};

// In the forked child: a session of its own, no blocked signals, the
// standard descriptors in place, then the program. Only async-signal-safe
// calls from here on.
[[noreturn]] void execInChild(const std::string& program, const ExecVectors& vectors,
                              const StartDescriptors& fds, const char* workingDirectory) {
  ::setsid();
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::dup2(fds.input, STDIN_FILENO);
  if (fds.childOut >= 0) ::dup2(fds.childOut, STDOUT_FILENO);
  if (fds.childErr >= 0) ::dup2(fds.childErr, STDERR_FILENO);
  // Descriptors above 2 were opened close-on-exec by this object; others
  // the test holds must not leak into the program either.
  ::close_range(3, ~0U, 0);
  if (workingDirectory && ::chdir(workingDirectory) != 0) ::_exit(126);
  ::execve(program.c_str(), vectors.argv(), vectors.envp());
  ::_exit(127);
}

}  // namespace

// Reads the test's end of a captured stream on a thread of its own; null
// when the stream is not captured.
std::unique_ptr<ChildProcess::Capture> ChildProcess::startCapture(int fd, const Stream& stream) {
  if (fd < 0) return nullptr;
  auto c = std::make_unique<Capture>();
  c->fd = fd;
  if (::pipe2(c->wake, O_CLOEXEC) != 0) return c;  // no reader: the text stays empty
  if (!stream.mirrorFile.empty())
    c->mirror = ::open(stream.mirrorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  c->reader = std::thread([raw = c.get()] { raw->run(); });
  return c;
}

std::unique_ptr<ChildProcess> ChildProcess::start(const Options& options, std::string* error) {
  errno = 0;
  if (options.argv.empty()) {
    fail(error, "no program");
    return nullptr;
  }
  const std::string program = findProgram(options.argv[0]);
  if (program.empty()) {
    fail(error, "not found: " + options.argv[0]);
    return nullptr;
  }
  const ExecVectors vectors(options);
  StartDescriptors fds;
  fds.input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fds.input < 0) {
    fail(error, "/dev/null");
    return nullptr;
  }
  if (!prepareStream(options.out, &fds.childOut, &fds.parentOut, error) ||
      !prepareStream(options.err, &fds.childErr, &fds.parentErr, error)) {
    return nullptr;
  }
  const char* workingDirectory = options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();

  const pid_t pid = ::fork();
  if (pid < 0) {
    fail(error, "fork");
    return nullptr;
  }
  if (pid == 0) execInChild(program, vectors, fds, workingDirectory);
  std::unique_ptr<ChildProcess> child(new ChildProcess);
  child->pid_ = pid;
  child->out_ = startCapture(fds.release(&fds.parentOut), options.out);
  child->err_ = startCapture(fds.release(&fds.parentErr), options.err);
  return child;  // `fds` closes the child's ends here
}

ChildProcess::~ChildProcess() {
  if (!status_ && pid_ > 0) {
    ::kill(-pid_, SIGKILL);
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    reap(status);
  } else if (pid_ > 0) {
    ::kill(-pid_, SIGKILL);  // whatever the child left running in its group
  }
  // The readers end at end of file; the wake-up in ~Capture covers output
  // still held open by something outside the group.
  out_.reset();
  err_.reset();
}

void ChildProcess::reap(int status) {
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ChildProcess::running() { return !exitStatus().has_value(); }

std::optional<int> ChildProcess::exitStatus() {
  if (status_ || pid_ <= 0) return status_;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) reap(status);
  return status_;
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (std::optional<int> status = exitStatus()) return status;
    if (std::chrono::steady_clock::now() >= end) return std::nullopt;
    std::this_thread::sleep_for(5ms);
  }
}

int ChildProcess::terminate(std::chrono::milliseconds grace) {
  if (status_) return *status_;
  (void)signal(SIGTERM);
  if (std::optional<int> status = waitFor(grace)) return *status;
  ::kill(-pid_, SIGKILL);
  ::kill(pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  reap(status);
  return *status_;
}

bool ChildProcess::signal(int signal) { return !status_ && pid_ > 0 && ::kill(pid_, signal) == 0; }

std::string ChildProcess::capturedOut() const {
  return out_ ? out_->snapshot() : "";
}

std::string ChildProcess::capturedErr() const {
  return err_ ? err_->snapshot() : "";
}

bool ChildProcess::waitForEndOfOutput(std::chrono::milliseconds timeout) const {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (const Capture* c : {out_.get(), err_.get()}) {
    if (!c || !c->reader.joinable()) continue;
    if (!c->waitForEnd(end)) return false;
  }
  return true;
}

bool ChildProcess::waitForOut(const std::string& text, std::chrono::milliseconds timeout, size_t from) const {
  return out_ && out_->waitFor(text, timeout, from);
}

bool ChildProcess::waitForErr(const std::string& text, std::chrono::milliseconds timeout, size_t from) const {
  return err_ && err_->waitFor(text, timeout, from);
}

std::optional<long> ProcStatusKiB(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, name.size() + 1, name + ":") != 0) continue;
    try {
      return std::stol(line.substr(name.size() + 1));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

std::optional<long> ChildProcess::peakRssKiB() const {
  if (status_) return std::nullopt;
  return ProcStatusKiB(pid_, "VmHWM");
}

std::optional<long> ChildProcess::currentRssKiB() const {
  if (status_) return std::nullopt;
  return ProcStatusKiB(pid_, "VmRSS");
}

}  // namespace zonara::testing
