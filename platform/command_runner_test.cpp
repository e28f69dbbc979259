#include "platform/command_runner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

TEST(SubprocessCommandRunnerTest, PassesArgumentsAndReportsHowTheProgramEnded) {
  SubprocessCommandRunner runner;
  testing::TempDir scratch("runner-");
  const std::string out = scratch.file("args.txt");
  // Arguments with spaces arrive intact; the runner waits for the program.
  EXPECT_EQ(runner.run({"/bin/sh", "-c", "printf '%s|' \"$@\" > \"$0\"", out, "Europe/Paris", "a b"}), 0);
  std::ifstream in(out);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "Europe/Paris|a b|");

  struct Case {
    std::vector<std::string> argv;
    int expected;
  };
  for (const Case& c : std::vector<Case>{{{"sh", "-c", "exit 3"}, 3},
                                         {{"/bin/sh", "-c", "kill -TERM $$"}, 128 + 15},
                                         {{"/nonexistent/program"}, -1},
                                         {{}, -1}}) {
    EXPECT_EQ(runner.run(c.argv), c.expected) << (c.argv.empty() ? "(empty)" : c.argv.back());
  }
}

}  // namespace
}  // namespace zonara
