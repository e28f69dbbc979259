// The RSA MD4 message digest (RFC 1320), computed by nettle. Used to bind tile
// files to an authentication realm and to form realm-specific access-point keys.
//
// Thread safety: reentrant.
#pragma once

#include <string>

namespace WPS {
namespace API {

inline constexpr int kMD4DigestSize = 16;

// Writes the 16-byte MD4 digest of `text` to `digest`.
void MD4(const std::string& text, unsigned char digest[16]);
// Compares MD4(text) with `digest`: 0 when equal, otherwise the memcmp order of
// the computed digest against `digest`.
[[nodiscard]] int cmpMD4Hash(const std::string& text, const unsigned char* digest);

}  // namespace API
}  // namespace WPS
