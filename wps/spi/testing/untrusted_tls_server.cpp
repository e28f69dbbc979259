#include "wps/spi/testing/untrusted_tls_server.h"

namespace zonara::testing {

namespace {

using namespace std::chrono_literals;

constexpr const char* kAcceptLine = "ACCEPT 127.0.0.1:";

size_t occurrences(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
  return count;
}

}  // namespace

UntrustedTlsServer::UntrustedTlsServer() {
  if (makeCertificate()) (void)startServer();
}

UntrustedTlsServer::~UntrustedTlsServer() = default;

bool UntrustedTlsServer::makeCertificate() {
  ChildProcess::Options options;
  options.argv = {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                  "-nodes", "-keyout", dir_.file("key.pem"), "-out", dir_.file("cert.pem"), "-days", "2",
                  "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"};
  options.err = {ChildProcess::Output::Pipe, "", ""};
  std::unique_ptr<ChildProcess> req = ChildProcess::start(options, &error_);
  if (!req) return false;
  if (req->waitFor(30s) != 0) {
    error_ = "openssl req failed: " + req->capturedErr();
    return false;
  }
  return true;
}

bool UntrustedTlsServer::startServer() {
  ChildProcess::Options options;
  // Port 0: the kernel picks one and the server prints it. -rev: an echo
  // server that never reads its standard input (which is /dev/null).
  options.argv = {"openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", dir_.file("cert.pem"),
                  "-key", dir_.file("key.pem"), "-rev"};
  options.out = {ChildProcess::Output::Pipe, "", ""};
  options.err = {ChildProcess::Output::Pipe, "", ""};
  server_ = ChildProcess::start(options, &error_);
  if (!server_) return false;
  if (!server_->waitForOut(kAcceptLine, 10s)) {
    error_ = "openssl s_server did not start: " + server_->capturedErr();
    return false;
  }
  const size_t start = server_->capturedOut().find(kAcceptLine) + std::string(kAcceptLine).size();
  if (!server_->waitForOut("\n", 5s, start)) {
    error_ = "openssl s_server did not name its port";
    return false;
  }
  const std::string out = server_->capturedOut();
  port_ = static_cast<uint16_t>(std::stoul(out.substr(start, out.find('\n', start) - start)));
  return true;
}

std::string UntrustedTlsServer::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

bool UntrustedTlsServer::rejectedHandshake(std::chrono::milliseconds timeout) const {
  return server_ && server_->waitForErr("alert unknown ca", timeout);
}

size_t UntrustedTlsServer::handshakesCompleted() const {
  return server_ ? occurrences(server_->capturedOut(), "CONNECTION ESTABLISHED") : 0;
}

}  // namespace zonara::testing
