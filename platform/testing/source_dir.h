// Where the project's source tree is, for tests that read its data files:
// $ZONARA_SOURCE_DIR when set (CTest sets it), else the tree the test was
// built from, so test programs also run by hand.
#pragma once

#include <string>

namespace zonara::testing {

[[nodiscard]] std::string SourceDir();

}  // namespace zonara::testing
