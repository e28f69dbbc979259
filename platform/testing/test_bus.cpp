#include "platform/testing/test_bus.h"

#include <stdlib.h>

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
  ChildProcess::Options options;
  options.argv = {"dbus-daemon", "--config-file=" + config, "--print-address=1", "--nofork"};
  options.out = {ChildProcess::Output::Pipe, "", ""};
  options.err = {ChildProcess::Output::Inherit, "", ""};
  daemon_ = ChildProcess::start(options);
  if (!daemon_ || !daemon_->waitForOut("\n", std::chrono::seconds(10))) return;
  const std::string printed = daemon_->capturedOut();
  address_ = printed.substr(0, printed.find('\n'));
}

TestBus::~TestBus() {
  if (daemon_) (void)daemon_->terminate();
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

void TestBus::exportAsSessionBus() const { setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1); }

}  // namespace zonara::testing
