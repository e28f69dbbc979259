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
  EXPECT_EQ(runner.run({"/bin/sh", "-c", "printf '%s|' \"$@\" > \"$0\"", out, "Europe/Paris", "a b"}).status, 0);
  std::ifstream in(out);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "Europe/Paris|a b|");

  struct Case {
    std::vector<std::string> argv;
    int expected;
    std::string output;  // "" = only that some reason is given
  };
  for (const Case& c : std::vector<Case>{
           {{"sh", "-c", "echo out; echo err >&2; exit 3"}, 3, "out\nerr\n"},
           {{"/bin/sh", "-c", "kill -TERM $$"}, 128 + 15, ""},
           {{"/nonexistent/program"}, -1, ""},
           {{}, -1, ""}}) {
    const CommandResult result = runner.run(c.argv);
    EXPECT_EQ(result.status, c.expected) << (c.argv.empty() ? "(empty)" : c.argv.back());
    if (!c.output.empty()) {
      EXPECT_EQ(result.output, c.output);
    }
    if (c.expected == -1) {
      EXPECT_FALSE(result.output.empty());  // why it could not run
    }
  }
  // Output past the limit is dropped without blocking the program.
  const CommandResult big = runner.run({"sh", "-c", "head -c 200000 /dev/zero; echo done >&2"});
  EXPECT_EQ(big.status, 0);
  EXPECT_EQ(big.output.size(), 64u * 1024);
}

}  // namespace
}  // namespace zonara
