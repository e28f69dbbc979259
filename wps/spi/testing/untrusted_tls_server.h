// A TLS server on 127.0.0.1 whose certificate nobody trusts, for tests that a
// client verifies certificates: `openssl s_server` with a freshly made
// self-signed certificate for 127.0.0.1, started as a child process.
//
// A client that verifies the certificate aborts the handshake with an
// "unknown CA" alert (rejectedHandshake() sees it); a client that does not
// completes the handshake (handshakesCompleted() counts it) and gets its
// request's lines echoed reversed: never a usable HTTP answer.
//
// Failure: `ok()` is false, with `error()` saying why, when the certificate
// cannot be made or the server does not start (no openssl program).
//
// Thread safety: one thread uses the object. The destructor stops the server.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "wps/spi/testing/child_process.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara::testing {

class UntrustedTlsServer {
 public:
  UntrustedTlsServer();
  ~UntrustedTlsServer();
  UntrustedTlsServer(const UntrustedTlsServer&) = delete;
  UntrustedTlsServer& operator=(const UntrustedTlsServer&) = delete;

  [[nodiscard]] bool ok() const { return port_ != 0; }
  [[nodiscard]] const std::string& error() const { return error_; }
  // "https://127.0.0.1:<port><path>".
  [[nodiscard]] std::string url(const std::string& path) const;

  // Waits up to `timeout` until a client has aborted a handshake because it
  // did not trust the certificate; true when one has.
  [[nodiscard]] bool rejectedHandshake(std::chrono::milliseconds timeout) const;
  // Handshakes completed so far: clients that accepted the certificate.
  [[nodiscard]] size_t handshakesCompleted() const;

 private:
  bool makeCertificate();
  bool startServer();

  TempDir dir_{"tls-"};
  std::unique_ptr<ChildProcess> server_;
  uint16_t port_ = 0;
  std::string error_;
};

}  // namespace zonara::testing
