// Running another program and waiting for it.
//
// Thread safety: `run` may be called from any thread; it blocks the caller
// until the program has ended.
#pragma once

#include <string>
#include <vector>

namespace zonara {

// How a program ended and what it wrote.
struct CommandResult {
  // Exit status, 128 + signal number when it was killed, or -1 when it could
  // not be started (argv empty, not found, ...).
  int status = -1;
  // Its standard output and standard error, interleaved as written (at most
  // the first 64 KiB); for a program that could not start, the reason.
  std::string output;
};

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs argv[0] (searched on PATH when it has no slash) with the remaining
  // arguments, standard input from /dev/null, and waits for it.
  [[nodiscard]] virtual CommandResult run(const std::vector<std::string>& argv) = 0;
};

// GSubprocess.
class SubprocessCommandRunner final : public CommandRunner {
 public:
  [[nodiscard]] CommandResult run(const std::vector<std::string>& argv) override;
};

}  // namespace zonara
