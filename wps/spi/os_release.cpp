#include "wps/spi/os_release.h"

#include <fstream>

namespace WPS {
namespace SPI {

namespace {

// A shell-like value: "quoted", 'quoted' or bare, with backslash escapes
// inside double quotes.
std::string unquote(const std::string& raw) {
  if (raw.size() >= 2 && raw.front() == '\'' && raw.back() == '\'') return raw.substr(1, raw.size() - 2);
  if (raw.size() < 2 || raw.front() != '"' || raw.back() != '"') return raw;
  std::string value;
  for (size_t i = 1; i + 1 < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 2 < raw.size()) ++i;
    value += raw[i];
  }
  return value;
}

std::string withoutControlCharacters(const std::string& text) {
  std::string clean;
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) clean += c;
  }
  return clean;
}

}  // namespace

std::string osPrettyName(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  const std::string key = "PRETTY_NAME=";
  while (std::getline(file, line)) {
    if (line.compare(0, key.size(), key) != 0) continue;
    std::string raw = line.substr(key.size());
    while (!raw.empty() && (raw.back() == '\r' || raw.back() == ' ')) raw.pop_back();
    std::string value = withoutControlCharacters(unquote(raw));
    return value.empty() ? "Linux" : value;
  }
  return "Linux";
}

}  // namespace SPI
}  // namespace WPS
