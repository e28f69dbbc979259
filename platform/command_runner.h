// Running another program and waiting for it.
//
// Thread safety: `run` may be called from any thread; it blocks the caller
// until the program has ended.
#pragma once

#include <string>
#include <vector>

namespace zonara {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs argv[0] (searched on PATH when it has no slash) with the remaining
  // arguments, standard input from /dev/null and output inherited, and waits
  // for it. Returns its exit status, 128 + signal number when it was killed,
  // or -1 when it could not be started (argv empty, not found, ...).
  [[nodiscard]] virtual int run(const std::vector<std::string>& argv) = 0;
};

// GSubprocess.
class SubprocessCommandRunner final : public CommandRunner {
 public:
  [[nodiscard]] int run(const std::vector<std::string>& argv) override;
};

}  // namespace zonara
