// The time-zone boundary file this build made from the real data, for tests
// that need real boundaries.
//
// Without it (the set-up could not obtain the data) such tests are skipped
// with a message -- or fail, when ZONARA_REQUIRE_TZ_DATA is set (continuous
// integration sets it, so missing data can never pass unnoticed).
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace zonara::timezone::testing {

// build/share/zonara/timezone-boundaries.dat when it exists, else "".
[[nodiscard]] std::string builtBoundaryData();
// Whether ZONARA_REQUIRE_TZ_DATA is set to something other than "" or "0".
[[nodiscard]] bool boundaryDataRequired();
// Why there is no file, for the skip or failure message.
[[nodiscard]] std::string missingBoundaryDataMessage();

}  // namespace zonara::timezone::testing

// Declares `const std::string var` holding the built file's path, or ends the
// test: skipped without the data, failed without it when it is required.
#define ZONARA_NEED_BOUNDARY_DATA(var)                                                  \
  const std::string var = ::zonara::timezone::testing::builtBoundaryData();             \
  if (var.empty()) {                                                                    \
    if (::zonara::timezone::testing::boundaryDataRequired()) {                          \
      FAIL() << ::zonara::timezone::testing::missingBoundaryDataMessage();              \
    } else {                                                                            \
      GTEST_SKIP() << ::zonara::timezone::testing::missingBoundaryDataMessage();        \
    }                                                                                   \
  }
