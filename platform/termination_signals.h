// The signals that ask a program to end: SIGTERM (session end, systemd,
// kill) and SIGINT (Ctrl-C in a terminal).
//
// Thread safety: call from the main thread; the handler runs on the main
// run loop, never inside the signal handler itself.
#pragma once

#include <functional>

namespace zonara {

// From now on, SIGTERM and SIGINT call `handler` on the main run loop instead
// of ending the process. Each call adds a handler for the rest of the
// process's life.
void onTerminationSignals(std::function<void()> handler);

}  // namespace zonara
