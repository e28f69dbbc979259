#include "platform/testing/test_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace zonara::testing {

TestBus::TestBus() {
  char tmpl[] = "/tmp/zonara-bus-XXXXXX";
  if (!mkdtemp(tmpl)) return;
  dir_ = tmpl;
  const std::string config = dir_ + "/bus.conf";
  {
    std::ofstream out(config);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:dir="
        << dir_
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
           "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
  }
  int fds[2];
  if (pipe(fds) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0) dup2(devnull, STDIN_FILENO);
    std::string configArg = "--config-file=" + config;
    execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--print-address=1", "--nofork", nullptr);
    _exit(127);
  }
  close(fds[1]);
  if (pid_ < 0) {
    close(fds[0]);
    return;
  }
  std::string line;
  char c;
  while (read(fds[0], &c, 1) == 1 && c != '\n') line.push_back(c);
  close(fds[0]);
  address_ = line;
}

TestBus::~TestBus() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
  }
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

void TestBus::exportAsSessionBus() const { setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1); }

}  // namespace zonara::testing
