#include "wps/spi/scan_file_driver.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "wps/spi/file.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace SPI {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Splits off the next whitespace-delimited token starting at `pos`; returns
// false when none is left.
bool nextToken(const std::string& line, size_t& pos, std::string& token) {
  while (pos < line.size() && isBlank(line[pos])) ++pos;
  if (pos >= line.size()) return false;
  size_t start = pos;
  while (pos < line.size() && !isBlank(line[pos])) ++pos;
  token = line.substr(start, pos - start);
  return true;
}

bool parseInteger(const std::string& token, long minimum, long maximum, long& out) {
  if (token.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(token.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < minimum || value > maximum) return false;
  out = value;
  return true;
}

// Parses one access-point line; returns an empty string or the reason it is
// malformed.
std::string parseLine(const std::string& line, SplitScanRecord& record) {
  size_t pos = 0;
  std::string bssid, signal, channel, noise;
  if (!nextToken(line, pos, bssid)) return "empty line";
  MAC mac;
  if (!MAC::parse(bssid, mac)) return "bad BSSID \"" + bssid + "\"";
  if (!nextToken(line, pos, signal) || !nextToken(line, pos, channel) || !nextToken(line, pos, noise)) {
    return "expected BSSID SIGNAL CHANNEL NOISE SSID";
  }
  long value = 0;
  if (!parseInteger(signal, std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max(), value)) {
    return "bad SIGNAL \"" + signal + "\"";
  }
  record.signal = static_cast<int16_t>(value);
  if (!parseInteger(channel, 0, std::numeric_limits<uint16_t>::max(), value)) {
    return "bad CHANNEL \"" + channel + "\"";
  }
  record.channel = static_cast<uint16_t>(value);
  if (!parseInteger(noise, std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max(), value)) {
    return "bad NOISE \"" + noise + "\"";
  }
  record.noise = static_cast<int16_t>(value);
  // The SSID is what follows the separator after NOISE, verbatim.
  while (pos < line.size() && isBlank(line[pos])) ++pos;
  record.ssid = line.substr(pos);
  if (record.ssid.size() > 32) return "SSID longer than 32 bytes";
  // MAC keeps the address least significant octet first; the record wants it
  // in transmission order.
  const unsigned char* stored = mac.bytes();
  for (int i = 0; i < 6; ++i) record.bssid[i] = stored[5 - i];
  return {};
}

}  // namespace

ScanFileContents parseScanFile(const std::string& text) {
  ScanFileContents contents;
  contents.blocks.emplace_back();
  size_t start = 0;
  int number = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();

    size_t first = 0;
    while (first < line.size() && isBlank(line[first])) ++first;
    if (first == line.size() || line[first] == '#') continue;
    size_t last = line.size();
    while (last > first && isBlank(line[last - 1])) --last;
    if (line.compare(first, last - first, "--") == 0) {
      contents.blocks.emplace_back();
      continue;
    }

    SplitScanRecord record;
    std::string reason = parseLine(line, record);
    if (!reason.empty()) {
      contents.problems.push_back({number, std::move(reason)});
      continue;
    }
    contents.blocks.back().push_back(std::move(record));
  }
  return contents;
}

ScanFileDriver::ScanFileDriver(std::string path)
    : logger_(Logger::getLogger("WPS.SPI.ScanFileDriver")), path_(std::move(path)) {}

bool ScanFileDriver::isAvailable() { return File::exists(path_); }

int ScanFileDriver::attach() {
  std::unique_ptr<File> file = File::newInstance();
  int rc = file->open(path_, File::READ);
  if (rc != 0) return rc;
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t count = file->read(buffer, sizeof buffer);
    if (count < 0) {
      file->close();
      return EIO;
    }
    if (count == 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  file->close();

  ScanFileContents contents = parseScanFile(text);
  for (const ScanFileProblem& problem : contents.problems) {
    logger_.warn("scan file %s line %d: %s (line skipped)", path_.c_str(), problem.line, problem.reason.c_str());
  }
  blocks_ = std::move(contents.blocks);
  if (next_ >= blocks_.size()) next_ = blocks_.size() - 1;
  attached_ = true;
  return 0;
}

void ScanFileDriver::detach() { attached_ = false; }

int ScanFileDriver::getCardInfo(unsigned char mac[6]) {
  static const unsigned char kCard[6] = {0x02, 0, 0, 0, 0, 0};
  std::memcpy(mac, kCard, sizeof kCard);
  return 0;
}

int ScanFileDriver::scanSplit(std::vector<SplitScanRecord>& out) {
  if (!attached_) return ENODEV;
  out = blocks_[next_];
  if (next_ + 1 < blocks_.size()) ++next_;
  return 0;
}

int ScanFileDriver::scanDictionary(std::vector<ScanDictionary>& out) {
  out.clear();
  return EOPNOTSUPP;
}

}  // namespace SPI
}  // namespace WPS
