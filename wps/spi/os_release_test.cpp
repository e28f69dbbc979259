#include "wps/spi/os_release.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace WPS::SPI {
namespace {

TEST(OsReleaseTest, PrettyNameFromFileContents) {
  struct Case {
    const char* contents;
    const char* expected;
  } cases[] = {
      {"NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n", "Debian GNU/Linux 12 (bookworm)"},
      {"PRETTY_NAME='Single quoted'\n", "Single quoted"},
      {"PRETTY_NAME=Bare\n", "Bare"},
      {"PRETTY_NAME=\"Escaped \\\"quote\\\"\"\n", "Escaped \"quote\""},
      {"NAME=Debian\n", "Linux"},
      {"PRETTY_NAME=\"\"\n", "Linux"},
      {"XPRETTY_NAME=\"no\"\n", "Linux"},
      {"PRETTY_NAME=\"Tab\tand\x01" "control\"\r\n", "Tabandcontrol"},
  };
  char path[] = "/tmp/os-release-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  for (const Case& c : cases) {
    std::ofstream(path, std::ios::trunc) << c.contents;
    EXPECT_EQ(osPrettyName(path), c.expected) << c.contents;
  }
  std::remove(path);
  EXPECT_EQ(osPrettyName("/nonexistent/os-release"), "Linux");
}

}  // namespace
}  // namespace WPS::SPI
