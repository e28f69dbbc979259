// The operating system's name as os-release(5) gives it.
//
// Thread safety: any thread (reads the file on each call).
#pragma once

#include <string>

namespace WPS {
namespace SPI {

// The value of PRETTY_NAME in the os-release file at `path` (quotes and
// backslash escapes removed), or "Linux" when the file or the key is
// missing or the value is empty. Control characters in the value are
// dropped, so the result can go into an HTTP header.
[[nodiscard]] std::string osPrettyName(const std::string& path = "/etc/os-release");

}  // namespace SPI
}  // namespace WPS
