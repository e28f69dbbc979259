// A private network namespace for a test program, entered without privilege
// through a user namespace that maps the caller to root (what `unshare -rn`
// does). Inside it the test may make veth pairs, tun devices and routes with
// `ip`; processes started later inherit it.
#pragma once

#include <string>

namespace zonara::testing {

// Enters a new user and network namespace and brings `lo` up. Call first
// thing in main(), while the process has a single thread. False (and nothing
// changed, or only the user namespace entered) when the machine does not
// allow it.
[[nodiscard]] bool enterNetworkNamespace();

// Runs `ip ARGUMENTS` quietly; true when it exits 0.
[[nodiscard]] bool runIp(const std::string& arguments);

}  // namespace zonara::testing
