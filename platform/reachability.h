// Whether a host can be reached, in the flags of the system's reachability
// test: 2 reachable, 4 connection required (no route), 1 transient
// connection and 16 intervention required (never set here).
//
// Thread safety: any thread; the check blocks while the name is resolved.
#pragma once

#include <cstdint>
#include <string>

namespace zonara {

class Reachability {
 public:
  static constexpr uint32_t kTransientConnection = 1;
  static constexpr uint32_t kReachable = 2;
  static constexpr uint32_t kConnectionRequired = 4;
  static constexpr uint32_t kInterventionRequired = 16;

  virtual ~Reachability() = default;
  // False when the check itself fails (the name does not resolve); otherwise
  // true with `flags` filled.
  [[nodiscard]] virtual bool checkReachabilityByName(const std::string& host, uint32_t* flags) = 0;
};

// getaddrinfo, then a route check: a UDP socket connected to the first
// address (no packet is sent). A route gives `kReachable`, none gives
// `kReachable | kConnectionRequired`.
class LinuxReachability final : public Reachability {
 public:
  [[nodiscard]] bool checkReachabilityByName(const std::string& host, uint32_t* flags) override;
};

}  // namespace zonara
