// The history of the helper's decisions: one line per decision, appended to
// "$XDG_STATE_HOME/zonara/history" (default ~/.local/state), for the user
// to read with `zonara history` when the clock did something unexpected.
//
// Line format (UTF-8 text, fields separated by one tab, "-" for an empty
// field; tabs and line breaks inside a field become spaces):
//
//   TIME  SOURCE  ACCURACY  POSITION  ZONE  NEARBY  ACTION  REASON
//
//   TIME      UTC, "2026-11-24T19:57:37Z"
//   SOURCE    what the position came from: "device tiles", "learned places",
//             "positioning server", "IP address"; "-" for the user's answers
//   ACCURACY  radius of the position's circle in whole metres, "25000 m"
//   POSITION  "LATITUDE,LONGITUDE" in decimal degrees, 5 decimals
//   ZONE      the zone found at the position (or the one the user answered
//             about)
//   NEARBY    the zones within the accuracy circle, comma-separated
//   ACTION    what was done: one of the words of `HistoryAction`
//   REASON    why, in words
//
// Bound: the newest `keptLines` lines (1000 by default) are kept. Lines are
// appended one write at a time (so a crash loses at most the line being
// written); once the file holds more than keptLines + keptLines / 10 lines
// it is rewritten atomically (temporary file and rename) with the newest
// keptLines lines, so it never holds more than that and a reader never sees
// a half-trimmed file.
//
// Thread safety: one object per file, used from one thread (the helper's
// main thread). Only the helper writes the file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "sensors/location_source.h"

namespace zonara {

// The words of the ACTION field.
namespace HistoryAction {
inline constexpr const char* kApplied = "applied";          // the zone was set
inline constexpr const char* kUnchanged = "unchanged";      // the zone found already was the system's
inline constexpr const char* kKept = "kept";                // near a border: the system's zone kept
inline constexpr const char* kNoChange = "no change";       // the position says nothing trustworthy
inline constexpr const char* kNotApplied = "not applied";   // the set-time-zone command did not take
inline constexpr const char* kHeld = "held";                // the user undid or declined this zone
inline constexpr const char* kAsked = "asked";              // the user was asked whether to change
inline constexpr const char* kUndone = "undone";            // the user undid the last change
inline constexpr const char* kDeclined = "declined";        // the user answered "Keep"
}  // namespace HistoryAction

struct HistoryEntry {
  Clock::WallTime time;
  // The position and its quality; absent for the user's answers.
  std::optional<PositionQuality> quality;
  double latitude = 0;
  double longitude = 0;
  std::string zone;
  std::vector<std::string> nearbyZones;
  std::string action;
  std::string reason;
};

// The entry as one line of the format above, ending in a line break.
[[nodiscard]] std::string formatHistoryLine(const HistoryEntry& entry);

class DecisionHistory {
 public:
  static constexpr size_t kKeptLines = 1000;

  // "$XDG_STATE_HOME/zonara/history", else "~/.local/state/zonara/history".
  [[nodiscard]] static std::string defaultPath();

  // Nothing is read or made until the first `append`.
  explicit DecisionHistory(std::string path, size_t keptLines = kKeptLines);

  // Appends the entry's line (making the folder when absent) and trims the
  // file when it has grown past the bound. 0, or the errno of the failing
  // step (the entry is then lost; the helper goes on).
  [[nodiscard]] int append(const HistoryEntry& entry);

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  // Counts the lines there already; a last line cut short by a crash is
  // ended, so the next line starts on its own.
  int open();
  int trim();

  const std::string path_;
  const size_t keptLines_;
  std::optional<size_t> lines_;  // lines in the file, once opened
};

}  // namespace zonara
