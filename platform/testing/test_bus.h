// A private dbus-daemon for tests: started on construction, listening on a
// socket in a temporary folder, killed on destruction. It has no service
// folders, so nothing is ever activated on it.
//
// Thread safety: one thread.
#pragma once

#include <memory>
#include <string>

#include "wps/spi/testing/child_process.h"

namespace zonara::testing {

class TestBus {
 public:
  TestBus();
  ~TestBus();
  TestBus(const TestBus&) = delete;
  TestBus& operator=(const TestBus&) = delete;

  // Empty when the daemon could not be started.
  [[nodiscard]] const std::string& address() const { return address_; }
  [[nodiscard]] bool ok() const { return !address_.empty(); }
  // Points DBUS_SESSION_BUS_ADDRESS at this bus.
  void exportAsSessionBus() const;

 private:
  std::string dir_;
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
};

}  // namespace zonara::testing
