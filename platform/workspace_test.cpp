#include "platform/workspace.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

namespace fs = std::filesystem;

TEST(LinuxWorkspaceTest, BundleIdentifierComesFromTheEnclosingBundle) {
  testing::TempDir scratch("workspace-");
  fs::path root = fs::path(scratch.path()) / "Calendar.app";
  fs::create_directories(root / "Contents/MacOS");
  std::ofstream(root / "Contents/Info.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>CFBundleIdentifier</key><string>com.apple.iCal</string></dict></plist>\n";
  EXPECT_EQ(LinuxWorkspace::bundleIdentifierForExecutable((root / "Contents/MacOS/iCal").string()), "com.apple.iCal");
  EXPECT_EQ(LinuxWorkspace::bundleIdentifierForExecutable("/usr/bin/sleep"), "");
  EXPECT_EQ(LinuxWorkspace::bundleIdentifierForExecutable((root / "Contents/iCal").string()), "");
}

TEST(LinuxWorkspaceTest, ListsARunningChildAndQuitsIt) {
  pid_t child = fork();
  if (child == 0) {
    execl("/bin/sleep", "sleep", "30", nullptr);
    _exit(127);
  }
  ASSERT_GT(child, 0);
  LinuxWorkspace workspace;
  bool found = false;
  for (int attempt = 0; attempt < 100 && !found; ++attempt) {
    for (const auto& app : workspace.launchedApplications()) {
      if (app.processIdentifier == child && app.name == "sleep") found = true;
    }
    if (!found) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(found);
  auto apps = workspace.launchedApplications();
  EXPECT_TRUE(std::is_sorted(apps.begin(), apps.end(), [](const auto& a, const auto& b) {
    return a.processIdentifier < b.processIdentifier;
  }));
  EXPECT_TRUE(workspace.quitApplication(child));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_FALSE(workspace.quitApplication(0));
}

TEST(LinuxWorkspaceTest, LaunchesByNameOnPath) {
  LinuxWorkspace workspace;
  testing::TempDir scratch("workspace-");
  fs::path dir = fs::path(scratch.path()) / "bin";
  fs::create_directories(dir);
  fs::path marker = dir / "launched";
  fs::remove(marker);
  {
    std::ofstream script(dir / "zonara-test-app");
    script << "#!/bin/sh\ntouch '" << marker.string() << "'\n";
  }
  fs::permissions(dir / "zonara-test-app", fs::perms::owner_all);
  std::string oldPath = std::getenv("PATH");
  setenv("PATH", (dir.string() + ":" + oldPath).c_str(), 1);
  EXPECT_TRUE(workspace.launchApplication("zonara-test-app"));
  EXPECT_FALSE(workspace.launchApplication("zonara-no-such-app"));
  setenv("PATH", oldPath.c_str(), 1);
  for (int i = 0; i < 200 && !fs::exists(marker); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(fs::exists(marker));
}

}  // namespace
}  // namespace zonara
