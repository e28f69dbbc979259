// What the build instruments this program with, for tests whose bounds
// depend on it (the address sanitizer's shadow memory and quarantine make a
// process larger and slower).
#pragma once

namespace zonara::testing {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif

}  // namespace zonara::testing
