#include "wps/spi/conversions.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace WPS {
namespace SPI {

double atof(const char* text) {
  if (text == nullptr) return 0.0;
  while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\r') ++text;
  if (*text == '+') ++text;
  double value = 0.0;
  // from_chars ignores the locale, unlike strtod.
  std::from_chars_result r = std::from_chars(text, text + std::strlen(text), value);
  if (r.ec == std::errc::result_out_of_range) return value;
  return r.ec == std::errc() ? value : 0.0;
}

long atol(const char* text) {
  if (text == nullptr) return 0;
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text) return 0;
  return value;  // strtol saturates at LONG_MIN/LONG_MAX on overflow
}

std::string ltoa(long value, int base) {
  if (base < 2 || base > 36) return {};
  char buffer[72];
  std::to_chars_result r = std::to_chars(buffer, buffer + sizeof buffer, value, base);
  return std::string(buffer, r.ptr);
}

std::string strcast(const char* text) { return text ? std::string(text) : std::string(); }

std::string strcast(double value) {
  char buffer[64];
  std::to_chars_result r = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, r.ptr);
}

int vsnprintf(char* buffer, size_t size, const char* format, va_list args) {
  int n = std::vsnprintf(buffer, size, format, args);
  if (n < 0 && size > 0) buffer[0] = '\0';
  return n;
}

int snprintf(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = WPS::SPI::vsnprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

std::string format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  char small[256];
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  std::string out;
  if (n < 0) {
    va_end(copy);
    return out;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    out.assign(small, static_cast<size_t>(n));
  } else {
    out.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(out.data(), out.size(), format, copy);
    out.resize(static_cast<size_t>(n));
  }
  va_end(copy);
  return out;
}

}  // namespace SPI
}  // namespace WPS
