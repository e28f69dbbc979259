#include "platform/memory.h"

#include <malloc.h>

namespace zonara {

void releaseFreedMemory() { malloc_trim(0); }

}  // namespace zonara
