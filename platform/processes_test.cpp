#include "platform/processes.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "platform/file_system.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

// Sets an environment variable for one test and puts the old value back.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name), old_(environmentValue(name)) {
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedVariable() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(ProcessesTest, EnvironmentValues) {
  {
    ScopedVariable set("ZONARA_PROCESSES_TEST", "value");
    EXPECT_EQ(environmentValue("ZONARA_PROCESSES_TEST"), "value");
  }
  {
    ScopedVariable empty("ZONARA_PROCESSES_TEST", "");
    EXPECT_EQ(environmentValue("ZONARA_PROCESSES_TEST"), "");
  }
  EXPECT_EQ(environmentValue("ZONARA_PROCESSES_TEST"), std::nullopt);
}

TEST(ProcessesTest, ProgramsAreFoundOnPathInOrder) {
  testing::TempDir scratch("path-");
  for (const char* folder : {"first", "second", "third"}) ASSERT_EQ(createFolderIfAbsent(scratch.file(folder)), 0);
  // Only executable files count: "tool" in the first folder is not one.
  ASSERT_EQ(writeFileAtomically(scratch.file("first/tool"), "", 0644), 0);
  ASSERT_EQ(writeFileAtomically(scratch.file("second/tool"), "#!/bin/sh\n", 0755), 0);
  ASSERT_EQ(writeFileAtomically(scratch.file("third/tool"), "#!/bin/sh\n", 0755), 0);
  ASSERT_EQ(createFolderIfAbsent(scratch.file("third/folder")), 0);
  const std::string path = scratch.file("first") + "::" + scratch.file("second") + ":" + scratch.file("third");
  ScopedVariable searchPath("PATH", path.c_str());

  struct Case {
    std::string program;
    std::optional<std::string> found;
  };
  const Case cases[] = {
      {"tool", scratch.file("second/tool")},
      {"folder", std::nullopt},          // a folder is not a program
      {"missing", std::nullopt},
      {"", std::nullopt},
      {"bin/tool", "bin/tool"},          // a name with a folder is taken as it is
      {"/no/such/tool", "/no/such/tool"},
  };
  for (const Case& c : cases) EXPECT_EQ(programOnPath(c.program), c.found) << c.program;
}

TEST(ProcessesTest, WithoutPathTheUsualFoldersAreSearched) {
  ScopedVariable noPath("PATH", nullptr);
  const std::optional<std::string> sh = programOnPath("sh");
  ASSERT_TRUE(sh.has_value());
  EXPECT_TRUE(*sh == "/usr/bin/sh" || *sh == "/bin/sh" || *sh == "/usr/local/bin/sh") << *sh;
}

TEST(ProcessesTest, ThisProcess) {
  EXPECT_EQ(currentProcessId(), getpid());
  const std::string exe = currentExecutablePath();
  EXPECT_EQ(exe.substr(exe.rfind('/') + 1), "files_processes_test");
  EXPECT_TRUE(isExecutableFile(exe));
  ProcessTable table;
  const std::vector<pid_t> ours = table.userProcessIds();
  EXPECT_NE(std::find(ours.begin(), ours.end(), getpid()), ours.end());
  EXPECT_EQ(table.executablePath(getpid()), exe);
}

}  // namespace
}  // namespace zonara
