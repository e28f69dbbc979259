// Character-set conversion with iconv(3).
//
// Thread safety: reentrant (each call opens its own conversion descriptor).
#pragma once

#include <cstddef>
#include <string>

namespace WPS {
namespace SPI {

// Converts `length` bytes of `text` from the character set `from` to `to`. An
// empty name means the process's default multibyte character set (that of the
// current locale). A character that cannot be represented in `to`, or an
// invalid sequence in `text`, becomes one '?' and the conversion goes on, so
// the result is always complete. When the pair of character sets is unknown
// to iconv the text is returned unchanged.
[[nodiscard]] std::string iconvert(const char* to, const char* from, const char* text, size_t length);

// The twin for the other direction of the library's use: from the process's
// default multibyte character set to UTF-8.
[[nodiscard]] std::string iconvertToUtf8(const std::string& text);
// From UTF-8 to the process's default multibyte character set.
[[nodiscard]] std::string iconvertFromUtf8(const char* text, size_t length);

}  // namespace SPI
}  // namespace WPS
