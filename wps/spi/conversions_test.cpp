#include "wps/spi/conversions.h"

#include <gtest/gtest.h>

#include <clocale>
#include <climits>

namespace WPS::SPI {
namespace {

TEST(ConversionsTest, ParsesNumbersWithoutLocale) {
  // A locale with a decimal comma must not change the protocol's numbers.
  const char* previous = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  const struct {
    const char* text;
    double value;
  } doubles[] = {{"42.3601", 42.3601}, {"-71.0589", -71.0589}, {" 1e3", 1000.0}, {"+2.5", 2.5},
                 {"abc", 0.0},         {"", 0.0},               {nullptr, 0.0}};
  for (const auto& c : doubles) EXPECT_DOUBLE_EQ(atof(c.text), c.value) << (c.text ? c.text : "null");
  if (previous) std::setlocale(LC_NUMERIC, "C");

  const struct {
    const char* text;
    long value;
  } longs[] = {{"123", 123}, {"-45", -45}, {"12abc", 12}, {"x", 0}, {nullptr, 0}, {"99999999999999999999999", LONG_MAX}};
  for (const auto& c : longs) EXPECT_EQ(atol(c.text), c.value) << (c.text ? c.text : "null");
}

TEST(ConversionsTest, FormatsIntegersInABase) {
  EXPECT_EQ(ltoa(0), "0");
  EXPECT_EQ(ltoa(-1234567), "-1234567");
  EXPECT_EQ(ltoa(255, 16), "ff");
  EXPECT_EQ(ltoa(5, 2), "101");
  EXPECT_EQ(ltoa(LONG_MIN), "-9223372036854775808");
  EXPECT_EQ(ltoa(5, 1), "");
  EXPECT_EQ(ltoa(5, 37), "");
}

TEST(ConversionsTest, DoublesRoundTripThroughText) {
  for (double v : {0.0, 42.3601, -71.05890000001, 1e-9, 123456789.125}) {
    EXPECT_EQ(atof(strcast(v).c_str()), v) << strcast(v);
  }
  EXPECT_EQ(strcast(static_cast<const char*>(nullptr)), "");
}

TEST(ConversionsTest, PrintfWrappersAlwaysTerminate) {
  char small[5];
  EXPECT_EQ(WPS::SPI::snprintf(small, sizeof small, "%s", "abcdefgh"), 8);
  EXPECT_STREQ(small, "abcd");
  std::string longText = format("%0500d|%s", 7, "end");
  EXPECT_EQ(longText.size(), 504u);
  EXPECT_EQ(longText.substr(longText.size() - 5), "7|end");
}

}  // namespace
}  // namespace WPS::SPI
