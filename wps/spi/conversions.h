// Text and number conversions used by the protocol code. Locale-independent:
// the decimal separator is always '.'.
//
// Thread safety: all functions are reentrant.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace WPS {
namespace SPI {

// Parses a decimal floating-point number; 0.0 for null or unparsable text.
[[nodiscard]] double atof(const char* text);
// Parses a decimal integer; 0 for null or unparsable text. Out-of-range values
// saturate at the limits of long.
[[nodiscard]] long atol(const char* text);
// The text of `value` in `base` (2 to 36, lower-case digits); an empty string
// for an unsupported base.
[[nodiscard]] std::string ltoa(long value, int base = 10);
// A string from possibly-null C text (null gives "").
[[nodiscard]] std::string strcast(const char* text);
// The text of a double in the shortest form that reads back to the same value
// ("%.17g" trimmed), always with '.' as separator.
[[nodiscard]] std::string strcast(double value);

// snprintf/vsnprintf that always terminate the buffer (when size > 0) and
// return the length the full text would have had.
int snprintf(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vsnprintf(char* buffer, size_t size, const char* format, va_list args) __attribute__((format(printf, 3, 0)));
// Formats into a std::string of any length.
[[nodiscard]] std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace SPI
}  // namespace WPS
