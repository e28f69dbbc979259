// The process's heap.
//
// Thread safety: any thread.
#pragma once

namespace zonara {

// Hands freed heap memory back to the system (malloc_trim), so a long-lived
// process's footprint follows what it uses rather than what it once used.
void releaseFreedMemory();

}  // namespace zonara
