#include "wps/api/tiles/md4.h"

#include <nettle/md4.h>

#include <cstring>

namespace WPS {
namespace API {

void MD4(const std::string& text, unsigned char digest[16]) {
  struct md4_ctx ctx;
  md4_init(&ctx);
  md4_update(&ctx, text.size(), reinterpret_cast<const uint8_t*>(text.data()));
  md4_digest(&ctx, MD4_DIGEST_SIZE, digest);
}

int cmpMD4Hash(const std::string& text, const unsigned char* digest) {
  unsigned char computed[kMD4DigestSize];
  MD4(text, computed);
  return std::memcmp(computed, digest, kMD4DigestSize);
}

}  // namespace API
}  // namespace WPS
