#include "platform/reachability.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

namespace zonara {

bool LinuxReachability::checkReachabilityByName(const std::string& host, uint32_t* flags) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* raw = nullptr;
  if (host.empty() || getaddrinfo(host.c_str(), "80", &hints, &raw) != 0 || !raw) return false;
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(raw, &freeaddrinfo);
  *flags = kReachable | kConnectionRequired;
  int fd = socket(list->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return true;
  if (connect(fd, list->ai_addr, list->ai_addrlen) == 0) *flags = kReachable;
  close(fd);
  return true;
}

}  // namespace zonara
