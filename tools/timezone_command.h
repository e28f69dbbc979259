// `zonara timezone`: the zone the helper would choose at points given on the
// command line or standard input.
//
//   zonara timezone LATITUDE LONGITUDE    the zone, on one line
//   zonara timezone --border LAT LON      "ZONE METRES": the zone and the
//                                         distance to its nearest border
//                                         (capped at 100000)
//   zonara timezone [--border] -          one "LATITUDE LONGITUDE" per line
//                                         of standard input, one answer per
//                                         line ("-" where no zone is chosen)
//
// Answers come from the boundary data (opened once per run), or, when the
// preference TimezoneServiceURL is set, from that service: one request per
// point with a 10 s time-out and no retries. --border always uses the data.
// As in the helper, a point within one degree of 0 N 0 E has no zone.
//
// Exit status: 0 when every point got a zone, 1 when one did not or the data
// or service failed, 2 for usage errors and malformed input (the answers
// before a malformed line are printed).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace zonara {

// Runs the command with its arguments (after "timezone"); answers go to
// `out`, messages ("zonara: ...") to `err`, input lines come from `in`.
[[nodiscard]] int runTimezoneCommand(const std::vector<std::string>& arguments, std::FILE* in, std::FILE* out,
                                     std::FILE* err);

}  // namespace zonara
