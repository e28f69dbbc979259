#include "platform/testing/service_gate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zonara::testing {

// One relayed connection: the client's socket and the one to the service.
struct ServiceGate::Relay {
  int client = -1;
  int upstream = -1;
  std::atomic<bool> done{false};
  std::thread thread;

  ~Relay() {
    cut();
    if (thread.joinable()) thread.join();
    for (int fd : {client, upstream})
      if (fd >= 0) ::close(fd);
  }
  void cut() {
    for (int fd : {client, upstream})
      if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
  }
  static bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
      const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }
  void run() {
    char buffer[65536];
    for (;;) {
      pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      bool ended = false;
      for (int i = 0; i < 2 && !ended; ++i) {
        if (fds[i].revents == 0) continue;
        const ssize_t n = ::recv(fds[i].fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        // Either side closing ends the relay: HTTP peers do not half-close.
        ended = n <= 0 || !sendAll(fds[1 - i].fd, buffer, static_cast<size_t>(n));
      }
      if (ended) break;
    }
    cut();
    done = true;
  }
};

namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

}  // namespace

ServiceGate::ServiceGate(uint16_t targetPort) : target_(targetPort) {
  if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("ServiceGate: pipe failed");
  {
    MutexLock lock(mu_);
    if (!listenLocked()) {
      ::close(wake_[0]);
      ::close(wake_[1]);
      throw std::runtime_error(std::string("ServiceGate: cannot listen: ") + std::strerror(errno));
    }
  }
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ServiceGate::~ServiceGate() {
  {
    MutexLock lock(mu_);
    stopping_ = true;
    closeListeningLocked();
    cutRelaysLocked();
  }
  (void)!::write(wake_[1], "x", 1);
  acceptor_.join();
  relays_.clear();  // joins the relay threads
  ::close(wake_[0]);
  ::close(wake_[1]);
}

std::string ServiceGate::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void ServiceGate::closeListeningLocked() {
  if (listenFd_ < 0) return;
  // shutdown first: the acceptor may be polling the socket, and that keeps
  // it listening (and queueing connections) after close until poll returns.
  ::shutdown(listenFd_, SHUT_RDWR);
  ::close(listenFd_);
  listenFd_ = -1;
}

bool ServiceGate::listenLocked() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return false;
  const int one = 1;
  (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address = loopback(port_);  // 0 the first time: the kernel picks
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 64) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return false;
  }
  port_ = ntohs(address.sin_port);
  listenFd_ = fd;
  return true;
}

bool ServiceGate::open() {
  {
    MutexLock lock(mu_);
    if (listenFd_ >= 0) return true;
    if (stopping_ || !listenLocked()) return false;
  }
  (void)!::write(wake_[1], "x", 1);
  return true;
}

void ServiceGate::close() {
  {
    MutexLock lock(mu_);
    closeListeningLocked();
    cutRelaysLocked();
  }
  (void)!::write(wake_[1], "x", 1);
}

bool ServiceGate::isOpen() const {
  MutexLock lock(mu_);
  return listenFd_ >= 0;
}

void ServiceGate::cutRelaysLocked() {
  for (auto& relay : relays_) relay->cut();
}

void ServiceGate::acceptLoop() {
  for (;;) {
    int listening;
    {
      MutexLock lock(mu_);
      if (stopping_) return;
      listening = listenFd_;
      // Threads of relays that ended are joined here.
      relays_.remove_if([](const std::unique_ptr<Relay>& relay) { return relay->done.load(); });
    }
    pollfd fds[2] = {{wake_[0], POLLIN, 0}, {listening, POLLIN, 0}};
    if (::poll(fds, listening >= 0 ? 2 : 1, -1) < 0 && errno != EINTR) return;
    if (fds[0].revents != 0) {
      char drain[64];
      while (::read(wake_[0], drain, sizeof drain) > 0) {
      }
    }
    MutexLock lock(mu_);
    // The socket may have been closed (and its number reused) while polling:
    // accept only from the one still current.
    if (stopping_ || listening < 0 || listenFd_ != listening) continue;
    const int client = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    ++connections_;
    auto relay = std::make_unique<Relay>();
    relay->client = client;
    relay->upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(target_);
    if (relay->upstream < 0 ||
        ::connect(relay->upstream, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      continue;  // the service itself is gone: the relay's destructor closes the client
    }
    Relay* raw = relay.get();
    relay->thread = std::thread([raw] { raw->run(); });
    relays_.push_back(std::move(relay));
  }
}

}  // namespace zonara::testing
