// A wireless driver that replays scans from a text file, for machines without
// Wi-Fi, demonstrations and tests. Selected by the environment variable
// "WPS_SCAN_FILE" (see WifiAdapter::enumerateAdapters).
//
// File format, one access point per line:
//   BSSID SIGNAL CHANNEL NOISE SSID...
// BSSID as "00:12:A3:B4:C5:D6" (also "00-12-..." or twelve hex digits);
// SIGNAL the raw driver value (negative dBm, 1..99 a percentage, 0 unknown);
// CHANNEL (0..65535) and NOISE (signed 16 bits) integers; the rest of the line
// after the whitespace following NOISE is the SSID, verbatim (it may contain
// spaces, may be empty, at most 32 bytes). Fields are separated by spaces or
// tabs; a trailing carriage return is ignored.
//  - A line "--" (surrounding whitespace allowed) ends a block; each block is
//    one scan. Text after the last "--" is the last block, so a file ending in
//    "--" ends with an empty block.
//  - Lines whose first non-blank character is '#' are comments; blank lines
//    are ignored.
//  - A block without access points is a scan that saw nothing; a file without
//    any line but comments is one such block.
//  - A malformed line (bad BSSID, a number that does not parse or is out of
//    range, missing fields, an SSID over 32 bytes) is skipped; the parser
//    reports it with its 1-based line number and the reason, and the driver
//    logs "scan file %s line %d: %s (line skipped)" at warning level.
//
// Each scan returns the next block; after the last block the last one repeats.
// The position is kept for the life of the driver (across attach/detach), and
// the file is read again on every attach, so edits show up on the next open.
// The card's MAC address is the locally administered 02:00:00:00:00:00.
//
// Log category "WPS.SPI.ScanFileDriver".
//
// Thread safety: as WirelessDriver; `parseScanFile` is reentrant.
#pragma once

#include <string>
#include <vector>

#include "wps/spi/logger.h"
#include "wps/spi/wireless_driver.h"

namespace WPS {
namespace SPI {

struct ScanFileProblem {
  int line = 0;  // 1-based
  std::string reason;
};

struct ScanFileContents {
  std::vector<std::vector<SplitScanRecord>> blocks;  // at least one block
  std::vector<ScanFileProblem> problems;             // skipped lines
};

// Parses the text of a scan file. Never fails: malformed lines are skipped and
// listed in `problems`.
[[nodiscard]] ScanFileContents parseScanFile(const std::string& text);

class ScanFileDriver final : public WirelessDriver {
 public:
  explicit ScanFileDriver(std::string path);

  [[nodiscard]] const char* name() const override { return "scan file"; }
  [[nodiscard]] double version() const override { return 1.0; }
  // True when the file exists and is a regular file.
  [[nodiscard]] bool isAvailable() override;
  // Reads and parses the file; returns 0 or the errno of the failed read
  // (logged by the file layer).
  [[nodiscard]] int attach() override;
  void detach() override;
  [[nodiscard]] int getCardInfo(unsigned char mac[6]) override;
  [[nodiscard]] unsigned scanKinds() const override { return SPLIT_SCAN; }
  // The next block (the last one again once all were returned).
  [[nodiscard]] int scanSplit(std::vector<SplitScanRecord>& out) override;
  [[nodiscard]] int scanDictionary(std::vector<ScanDictionary>& out) override;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  Logger& logger_;
  std::string path_;
  std::vector<std::vector<SplitScanRecord>> blocks_;
  size_t next_ = 0;  // index of the block the next scan returns
  bool attached_ = false;
};

}  // namespace SPI
}  // namespace WPS
