#include "wps/spi/iconvert.h"

#include <iconv.h>

#include <cerrno>

namespace WPS {
namespace SPI {

namespace {

// Owns one iconv descriptor.
class Converter {
 public:
  Converter(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (valid()) iconv_close(cd_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  [[nodiscard]] bool valid() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
  [[nodiscard]] iconv_t get() const { return cd_; }

 private:
  iconv_t cd_;
};

// Bytes of the UTF-8 sequence starting with `lead` (1 for a stray byte).
size_t utf8SequenceLength(unsigned char lead) {
  if (lead >= 0xF0 && lead < 0xF8) return 4;
  if (lead >= 0xE0) return lead < 0xF0 ? 3 : 1;
  if (lead >= 0xC0) return 2;
  return 1;
}

}  // namespace

std::string iconvert(const char* to, const char* from, const char* text, size_t length) {
  if (text == nullptr || length == 0) return {};
  Converter converter(to, from);
  if (!converter.valid()) return std::string(text, length);

  const bool fromUtf8 = std::string(from) == "utf-8" || std::string(from) == "UTF-8";
  std::string out;
  out.reserve(length + 16);
  char buffer[256];
  char* in = const_cast<char*>(text);
  size_t inLeft = length;
  while (inLeft > 0) {
    char* outPtr = buffer;
    size_t outLeft = sizeof buffer;
    size_t rc = iconv(converter.get(), &in, &inLeft, &outPtr, &outLeft);
    int error = rc == static_cast<size_t>(-1) ? errno : 0;
    out.append(buffer, static_cast<size_t>(outPtr - buffer));
    if (error == 0 || error == E2BIG) continue;
    if (error != EILSEQ && error != EINVAL) break;
    // Unrepresentable or invalid: one '?' for the whole sequence.
    size_t skip = fromUtf8 ? utf8SequenceLength(static_cast<unsigned char>(*in)) : 1;
    if (skip > inLeft) skip = inLeft;
    in += skip;
    inLeft -= skip;
    out.push_back('?');
  }
  // Flush any shift state.
  char* outPtr = buffer;
  size_t outLeft = sizeof buffer;
  if (iconv(converter.get(), nullptr, nullptr, &outPtr, &outLeft) != static_cast<size_t>(-1)) {
    out.append(buffer, static_cast<size_t>(outPtr - buffer));
  }
  return out;
}

std::string iconvertToUtf8(const std::string& text) { return iconvert("utf-8", "", text.data(), text.size()); }

std::string iconvertFromUtf8(const char* text, size_t length) { return iconvert("", "utf-8", text, length); }

}  // namespace SPI
}  // namespace WPS
