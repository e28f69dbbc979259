#include "wps/spi/scan_file_driver.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "wps/spi/log_capture.h"

namespace WPS {
namespace SPI {
namespace {

// One block as "BSSID/signal/channel/noise/SSID" strings, for compact tables.
std::vector<std::string> describe(const std::vector<SplitScanRecord>& block) {
  std::vector<std::string> out;
  for (const SplitScanRecord& r : block) {
    char bssid[18];
    std::snprintf(bssid, sizeof bssid, "%02X:%02X:%02X:%02X:%02X:%02X", r.bssid[0], r.bssid[1], r.bssid[2],
                  r.bssid[3], r.bssid[4], r.bssid[5]);
    out.push_back(std::string(bssid) + "/" + std::to_string(r.signal) + "/" + std::to_string(r.channel) + "/" +
                  std::to_string(r.noise) + "/" + r.ssid);
  }
  return out;
}

struct ParseCase {
  const char* name;
  std::string text;
  std::vector<std::vector<std::string>> blocks;
  std::vector<int> badLines;
};

class ParseScanFileTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseScanFileTest, Parses) {
  const ParseCase& c = GetParam();
  ScanFileContents contents = parseScanFile(c.text);
  std::vector<std::vector<std::string>> blocks;
  for (const auto& block : contents.blocks) blocks.push_back(describe(block));
  EXPECT_EQ(blocks, c.blocks);
  std::vector<int> bad;
  for (const ScanFileProblem& p : contents.problems) {
    bad.push_back(p.line);
    EXPECT_FALSE(p.reason.empty());
  }
  EXPECT_EQ(bad, c.badLines);
}

const char* kA = "00:12:A3:B4:C5:D6";

INSTANTIATE_TEST_SUITE_P(
    Table, ParseScanFileTest,
    ::testing::Values(
        ParseCase{"empty_file", "", {{}}, {}},
        ParseCase{"only_comments", "# nothing here\n   # indented comment\n\n", {{}}, {}},
        ParseCase{"one_line", std::string(kA) + " -70 6 -95 Home\n", {{"00:12:A3:B4:C5:D6/-70/6/-95/Home"}}, {}},
        ParseCase{"no_final_newline_and_crlf",
                  std::string(kA) + " -70 6 -95 A\r\n00-12-a3-b4-c5-d7\t55\t11\t0\tB",
                  {{"00:12:A3:B4:C5:D6/-70/6/-95/A", "00:12:A3:B4:C5:D7/55/11/0/B"}},
                  {}},
        ParseCase{"ssid_with_spaces_and_empty_ssid",
                  std::string(kA) + " -70 6 -95 My Home  Net\n0012A3B4C5D7 -60 1 -90\n0012A3B4C5D8 -60 1 -90 \n",
                  {{"00:12:A3:B4:C5:D6/-70/6/-95/My Home  Net", "00:12:A3:B4:C5:D7/-60/1/-90/",
                    "00:12:A3:B4:C5:D8/-60/1/-90/"}},
                  {}},
        ParseCase{"blocks_and_empty_block",
                  "# first\n" + std::string(kA) + " -70 6 -95 A\n--\n--\n  --  \n0012A3B4C5D7 0 1 0 B\n",
                  {{"00:12:A3:B4:C5:D6/-70/6/-95/A"}, {}, {}, {"00:12:A3:B4:C5:D7/0/1/0/B"}},
                  {}},
        ParseCase{"trailing_separator_is_an_empty_last_block",
                  std::string(kA) + " -70 6 -95 A\n--\n",
                  {{"00:12:A3:B4:C5:D6/-70/6/-95/A"}, {}},
                  {}},
        ParseCase{"bad_lines_are_skipped",
                  "00:12:A3:B4:C5 -70 6 -95 short bssid\n"     // 1
                  "00:12:A3:B4:C5:D6 loud 6 -95 x\n"           // 2
                  "00:12:A3:B4:C5:D6 -70 six -95 x\n"          // 3
                  "00:12:A3:B4:C5:D6 -70 6 -95.5 x\n"          // 4
                  "00:12:A3:B4:C5:D6 -70 6\n"                  // 5
                  "00:12:A3:B4:C5:D6 40000 6 -95 x\n"          // 6
                  "00:12:A3:B4:C5:D6 -70 70000 -95 x\n"        // 7
                  "00:12:A3:B4:C5:D6 -70 -1 -95 x\n"           // 8
                  "00:12:A3:B4:C5:D6 -70 6 -95 " +
                      std::string(33, 'n') +                   // 9
                      "\n"
                      "00:12:A3:B4:C5:D9 -70 6 -95 " +
                      std::string(32, 'n') + "\n",             // 10: good
                  {{"00:12:A3:B4:C5:D9/-70/6/-95/" + std::string(32, 'n')}},
                  {1, 2, 3, 4, 5, 6, 7, 8, 9}}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return std::string(info.param.name); });

class ScanFileDriverTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    const char* dir = std::getenv("ZONARA_TEST_TMPDIR");
    std::string path = std::string(dir ? dir : "/tmp") + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
};

TEST_F(ScanFileDriverTest, EachScanReturnsTheNextBlockAndTheLastRepeats) {
  ScanFileDriver driver(write("sequence.scan", "00:00:00:00:00:01 -50 1 0 one\n--\n--\n00:00:00:00:00:03 -50 1 0 three\n"));
  ASSERT_TRUE(driver.isAvailable());
  EXPECT_EQ(driver.scanKinds(), unsigned{WirelessDriver::SPLIT_SCAN});
  ASSERT_EQ(driver.attach(), 0);
  std::vector<std::string> seen;
  for (int i = 0; i < 5; ++i) {
    std::vector<SplitScanRecord> block;
    ASSERT_EQ(driver.scanSplit(block), 0);
    seen.push_back(block.empty() ? "(empty)" : block[0].ssid);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"one", "(empty)", "three", "three", "three"}));
  std::vector<ScanDictionary> entries;
  EXPECT_EQ(driver.scanDictionary(entries), EOPNOTSUPP);
}

TEST_F(ScanFileDriverTest, PositionSurvivesReattachAndTheFileIsReadAgain) {
  std::string path = write("reread.scan", "00:00:00:00:00:01 -50 1 0 one\n--\n00:00:00:00:00:02 -50 1 0 two\n");
  ScanFileDriver driver(path);
  ASSERT_EQ(driver.attach(), 0);
  std::vector<SplitScanRecord> block;
  ASSERT_EQ(driver.scanSplit(block), 0);
  driver.detach();
  EXPECT_EQ(driver.scanSplit(block), ENODEV);

  write("reread.scan", "00:00:00:00:00:01 -50 1 0 one\n--\n00:00:00:00:00:02 -50 1 0 edited\n");
  ASSERT_EQ(driver.attach(), 0);
  ASSERT_EQ(driver.scanSplit(block), 0);
  ASSERT_EQ(block.size(), 1u);
  EXPECT_EQ(block[0].ssid, "edited");

  // A shorter file: the position is clamped to its last block.
  write("reread.scan", "00:00:00:00:00:05 -50 1 0 only\n");
  ASSERT_EQ(driver.attach(), 0);
  ASSERT_EQ(driver.scanSplit(block), 0);
  ASSERT_EQ(block.size(), 1u);
  EXPECT_EQ(block[0].ssid, "only");
}

TEST_F(ScanFileDriverTest, BadLinesAreLoggedWithTheirNumber) {
  LogCapture log("WPS.SPI.ScanFileDriver");
  std::string path = write("bad.scan", "# header\nnot-a-mac -50 1 0 x\n00:00:00:00:00:01 -50 1 0 ok\n");
  ScanFileDriver driver(path);
  ASSERT_EQ(driver.attach(), 0);
  EXPECT_TRUE(log.contains("scan file " + path + " line 2: bad BSSID \"not-a-mac\" (line skipped)"))
      << ::testing::PrintToString(log.messages());
  std::vector<SplitScanRecord> block;
  ASSERT_EQ(driver.scanSplit(block), 0);
  EXPECT_EQ(block.size(), 1u);
}

TEST_F(ScanFileDriverTest, MissingFileIsUnavailableAndFailsAttach) {
  ScanFileDriver driver("/nonexistent/zonara.scan");
  EXPECT_FALSE(driver.isAvailable());
  EXPECT_EQ(driver.attach(), ENOENT);
  std::vector<SplitScanRecord> block;
  EXPECT_EQ(driver.scanSplit(block), ENODEV);
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
