#include "wps/spi/testing/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "wps/spi/testing/temp_dir.h"

namespace zonara::testing {
namespace {

using namespace std::chrono_literals;

// A file of this program's scratch folder.
std::string scratch(const std::string& name) {
  static const TempDir folder("child-process-");
  return folder.file(name);
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::unique_ptr<ChildProcess> shell(const std::string& script, ChildProcess::Options options = {}) {
  options.argv = {"sh", "-c", script};
  std::string error;
  auto child = ChildProcess::start(options, &error);
  EXPECT_TRUE(child) << error;
  return child;
}

TEST(ChildProcessTest, ExitStatusesOfNormalEndsAndSignals) {
  struct Case {
    std::string script;
    int status;
  };
  for (const Case& c : std::vector<Case>{{"exit 0", 0}, {"exit 3", 3}, {"kill -TERM $$", 128 + SIGTERM},
                                         {"kill -KILL $$", 128 + SIGKILL}, {"exec /nonexistent/program", 127}}) {
    auto child = shell(c.script);
    ASSERT_TRUE(child);
    EXPECT_EQ(child->waitFor(5s), c.status) << c.script;
    EXPECT_FALSE(child->running());
  }
  // A program that is not there is refused before anything starts.
  std::string error;
  EXPECT_EQ(ChildProcess::start({{"no-such-program-anywhere"}, {}, {}, "", {}, {}}, &error), nullptr);
  EXPECT_NE(error.find("no-such-program-anywhere"), std::string::npos);
}

TEST(ChildProcessTest, EnvironmentAdditionsAndRemovalsAndCapturedStreams) {
  setenv("CHILD_PROCESS_TEST_KEEP", "kept", 1);
  setenv("CHILD_PROCESS_TEST_DROP", "dropped", 1);
  ChildProcess::Options options;
  options.setEnvironment = {{"CHILD_PROCESS_TEST_NEW", "a b"}, {"CHILD_PROCESS_TEST_KEEP", "replaced"}};
  options.unsetEnvironment = {"CHILD_PROCESS_TEST_DROP"};
  options.out = {ChildProcess::Output::Pipe, "", scratch("mirror.txt")};
  options.err = {ChildProcess::Output::File, scratch("err.txt"), ""};
  std::filesystem::remove(scratch("mirror.txt"));
  auto child = shell(
      "echo \"$CHILD_PROCESS_TEST_NEW|$CHILD_PROCESS_TEST_KEEP|${CHILD_PROCESS_TEST_DROP-unset}\"; echo oops >&2; "
      "[ -t 1 ] && echo terminal",
      options);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->waitFor(5s), 1);  // the last test fails: a pipe is no terminal
  EXPECT_TRUE(child->waitForEndOfOutput(5s));
  EXPECT_EQ(child->capturedOut(), "a b|replaced|unset\n");
  EXPECT_EQ(child->capturedErr(), "");
  EXPECT_EQ(slurp(scratch("err.txt")), "oops\n");
  child.reset();  // the reader is done with the mirror
  EXPECT_EQ(slurp(scratch("mirror.txt")), "a b|replaced|unset\n");
}

TEST(ChildProcessTest, ATerminalStreamLooksLikeATerminalAndPassesTextUnchanged) {
  ChildProcess::Options options;
  options.err = {ChildProcess::Output::Terminal, "", ""};
  auto child = shell("[ -t 2 ] && printf 'line one\\nline two\\n' >&2; sleep 0.2", options);
  ASSERT_TRUE(child);
  EXPECT_TRUE(child->waitForErr("line two\n", 5s));
  EXPECT_EQ(child->waitFor(5s), 0);
  EXPECT_EQ(child->capturedErr(), "line one\nline two\n");  // no carriage returns added
}

TEST(ChildProcessTest, TerminateEscalatesToKillAndDestructionLeavesNothingBehind) {
  // Ignores SIGTERM: killed after the grace time.
  ChildProcess::Options options;
  options.out = {ChildProcess::Output::Pipe, "", ""};
  auto stubborn = shell("trap '' TERM; echo ready; while :; do sleep 0.05; done", options);
  ASSERT_TRUE(stubborn);
  ASSERT_TRUE(stubborn->waitForOut("ready", 5s));
  EXPECT_EQ(stubborn->terminate(200ms), 128 + SIGKILL);

  // Starts a grandchild; destroying the object ends both.
  auto parent = shell("sleep 30 & echo $!; wait", options);
  ASSERT_TRUE(parent);
  ASSERT_TRUE(parent->waitForOut("\n", 5s));
  const pid_t grandchild = std::stoi(parent->capturedOut());
  EXPECT_TRUE(parent->running());
  EXPECT_TRUE(parent->peakRssKiB().value_or(0) > 0);
  EXPECT_TRUE(parent->currentRssKiB().value_or(0) > 0);
  parent.reset();
  // The grandchild was re-parented and is reaped by someone else: wait until
  // it is gone or a zombie.
  bool gone = false;
  for (int i = 0; i < 250 && !gone; ++i) {
    std::ifstream stat("/proc/" + std::to_string(grandchild) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    gone = text.empty() || text.find(") Z") != std::string::npos;
    if (!gone) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(gone);
}

TEST(ChildProcessTest, ProcStatusValues) {
  EXPECT_GT(ProcStatusKiB(getpid(), "VmHWM").value_or(0), 0);
  EXPECT_FALSE(ProcStatusKiB(getpid(), "NoSuchLine").has_value());
  EXPECT_FALSE(ProcStatusKiB(-5, "VmHWM").has_value());
}

}  // namespace
}  // namespace zonara::testing
