// Fuzz target: arbitrary bytes as a scan file (the replay driver's input).
//
// Checked beyond "no crash, no leak", from the format's contract: there is at
// least one block, every SSID kept is at most 32 bytes, and every skipped line
// is reported with a line number inside the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "wps/spi/scan_file_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const WPS::SPI::ScanFileContents contents = WPS::SPI::parseScanFile(text);
  if (contents.blocks.empty()) std::abort();
  for (const auto& block : contents.blocks) {
    for (const auto& record : block) {
      if (record.ssid.size() > 32) std::abort();
    }
  }
  const long lines = std::count(text.begin(), text.end(), '\n') + 1;
  for (const auto& problem : contents.problems) {
    if (problem.line < 1 || problem.line > lines || problem.reason.empty()) std::abort();
  }
  return 0;
}

std::vector<unsigned char> scanFileFuzzSeed() {
  const std::string seed =
      "# office\n00:12:A3:B4:C5:D6 -61 6 -95 Office\n00-12-A3-B4-C5-D7 40 11 0 Guest net\n--\n"
      "0012A3B4C5D8 -70 36 -92 \n";
  return {seed.begin(), seed.end()};
}
