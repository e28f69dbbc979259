#include "wps/api/tiles/md4.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace WPS::API {
namespace {

std::string hex(const unsigned char* d) {
  std::string s;
  char b[3];
  for (int i = 0; i < 16; ++i) {
    std::snprintf(b, sizeof b, "%02x", d[i]);
    s += b;
  }
  return s;
}

// The test suite published with the MD4 algorithm (RFC 1320, appendix A.5).
TEST(MD4Test, MatchesTheReferenceSuite) {
  const struct {
    const char* input;
    const char* digest;
  } cases[] = {
      {"", "31d6cfe0d16ae931b73c59d7e0c089c0"},
      {"a", "bde52cb31de33e46245e05fbdbd6fb24"},
      {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
      {"message digest", "d9130a8164549fe818874806e1c7014b"},
      {"abcdefghijklmnopqrstuvwxyz", "d79e1c308aa5bbcdeea8ed63df412da9"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "043f8582f241db351ce627e153e7f0e4"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "e33b4ddc9c38f2199c3e7b164fcc0536"},
  };
  for (const auto& c : cases) {
    unsigned char digest[16];
    MD4(c.input, digest);
    EXPECT_EQ(hex(digest), c.digest) << "input \"" << c.input << "\"";
  }
}

TEST(MD4Test, CompareReportsEqualityAndOrder) {
  unsigned char digest[16];
  MD4("WPS2realm", digest);
  EXPECT_EQ(cmpMD4Hash("WPS2realm", digest), 0);
  EXPECT_NE(cmpMD4Hash("WPS2realm2", digest), 0);
  EXPECT_NE(cmpMD4Hash("", digest), 0);
  // Binary input with embedded NULs is digested whole.
  std::string withNul("a\0b", 3);
  unsigned char d1[16], d2[16];
  MD4(withNul, d1);
  MD4("a", d2);
  EXPECT_NE(hex(d1), hex(d2));
}

}  // namespace
}  // namespace WPS::API
