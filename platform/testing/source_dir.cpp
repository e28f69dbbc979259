#include "platform/testing/source_dir.h"

#include <cstdlib>

namespace zonara::testing {

std::string SourceDir() {
  const char* set = std::getenv("ZONARA_SOURCE_DIR");
  return set && *set ? set : ZONARA_BUILT_FROM;
}

}  // namespace zonara::testing
