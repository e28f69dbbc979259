// A switch in front of a loopback service, for outage tests.
//
// `ServiceGate` listens on 127.0.0.1 on a port the kernel picks and relays
// every connection, byte for byte in both directions, to the target port on
// 127.0.0.1. `close()` makes the service unreachable the way a stopped server
// is: the listening socket goes (new connections are refused) and the
// connections being relayed are cut. `open()` listens on the same port again,
// so clients configured with `url()` reach the service once more.
//
// Thread safety: all members may be called from any thread. One thread
// accepts, one thread relays each connection; the destructor cuts every
// connection and joins every thread.
//
// Failure: the constructor throws std::runtime_error when it cannot listen
// (tests want that loud). `open()` returns false when the port cannot be
// bound again (another program took it meanwhile).
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "platform/mutex.h"

namespace zonara::testing {

class ServiceGate {
 public:
  explicit ServiceGate(uint16_t targetPort);
  ~ServiceGate();
  ServiceGate(const ServiceGate&) = delete;
  ServiceGate& operator=(const ServiceGate&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  // "http://127.0.0.1:<port>" followed by `path`.
  [[nodiscard]] std::string url(const std::string& path = "") const;

  [[nodiscard]] bool open();
  void close();
  [[nodiscard]] bool isOpen() const;
  // Connections accepted so far (while open).
  [[nodiscard]] uint64_t connectionCount() const { return connections_; }

 private:
  struct Relay;
  [[nodiscard]] bool listenLocked() ZONARA_REQUIRES(mu_);
  void closeListeningLocked() ZONARA_REQUIRES(mu_);
  void acceptLoop();
  void cutRelaysLocked() ZONARA_REQUIRES(mu_);

  const uint16_t target_;
  uint16_t port_ = 0;
  int wake_[2] = {-1, -1};  // a byte written here makes the acceptor look again
  mutable Mutex mu_;
  int listenFd_ ZONARA_GUARDED_BY(mu_) = -1;
  bool stopping_ ZONARA_GUARDED_BY(mu_) = false;
  std::list<std::unique_ptr<Relay>> relays_ ZONARA_GUARDED_BY(mu_);
  std::atomic<uint64_t> connections_{0};
  std::thread acceptor_;
};

}  // namespace zonara::testing
