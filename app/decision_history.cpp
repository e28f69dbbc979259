#include "app/decision_history.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "platform/file_system.h"
#include "platform/xdg.h"

namespace zonara {
namespace {

// The history tells where the computer was: for its user's eyes only.
constexpr unsigned kMode = 0600;

// A field as the format allows it: no separators inside, "-" when empty.
std::string field(std::string text) {
  for (char& c : text) {
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  }
  return text.empty() ? "-" : text;
}

std::string utcTime(Clock::WallTime time) {
  const std::time_t seconds =
      static_cast<std::time_t>(std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count());
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : ",") + item;
  return out;
}

std::string parentFolder(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

size_t countLines(const std::string& text) {
  size_t lines = 0;
  for (char c : text) lines += c == '\n';
  return lines;
}

}  // namespace

std::string formatHistoryLine(const HistoryEntry& entry) {
  std::string source, accuracy, position;
  if (entry.quality) {
    char text[64];
    source = positionSourceName(entry.quality->source);
    std::snprintf(text, sizeof text, "%.0f m", entry.quality->accuracyMetres);
    accuracy = text;
    std::snprintf(text, sizeof text, "%.5f,%.5f", entry.latitude, entry.longitude);
    position = text;
  }
  return utcTime(entry.time) + "\t" + field(source) + "\t" + field(accuracy) + "\t" + field(position) + "\t" +
         field(entry.zone) + "\t" + field(joined(entry.nearbyZones)) + "\t" + field(entry.action) + "\t" +
         field(entry.reason) + "\n";
}

std::string DecisionHistory::defaultPath() { return xdgStateHome() + "/zonara/history"; }

DecisionHistory::DecisionHistory(std::string path, size_t keptLines)
    : path_(std::move(path)), keptLines_(keptLines == 0 ? 1 : keptLines) {}

int DecisionHistory::open() {
  if (int error = createFolders(parentFolder(path_)); error != 0) return error;
  const std::optional<std::string> text = readFile(path_);
  if (!text) {
    if (pathExists(path_)) return EACCES;
    lines_ = 0;
    return 0;
  }
  lines_ = countLines(*text);
  if (!text->empty() && text->back() != '\n') {
    if (int error = appendToFile(path_, "\n", kMode); error != 0) return error;
    lines_ = *lines_ + 1;
  }
  return 0;
}

int DecisionHistory::append(const HistoryEntry& entry) {
  if (!lines_) {
    if (int error = open(); error != 0) return error;
  }
  if (int error = appendToFile(path_, formatHistoryLine(entry), kMode); error != 0) return error;
  lines_ = *lines_ + 1;
  return *lines_ > keptLines_ + keptLines_ / 10 ? trim() : 0;
}

int DecisionHistory::trim() {
  const std::optional<std::string> text = readFile(path_);
  if (!text) return errno != 0 ? errno : EIO;
  // The newest keptLines_ lines start after the line break before them (the
  // text ends with one).
  size_t start = 0, breaks = 0;
  for (size_t i = text->size(); i-- > 0;) {
    if ((*text)[i] == '\n' && ++breaks == keptLines_ + 1) {
      start = i + 1;
      break;
    }
  }
  const std::string newest = text->substr(start);
  if (int error = writeFileAtomically(path_, newest, kMode); error != 0) return error;
  lines_ = countLines(newest);
  return 0;
}

}  // namespace zonara
