#include "platform/termination_signals.h"

#include <glib-unix.h>
#include <signal.h>

namespace zonara {

void onTerminationSignals(std::function<void()> handler) {
  // Kept for the life of the process, as the signal sources are.
  auto* kept = new std::function<void()>(std::move(handler));
  for (int signal : {SIGTERM, SIGINT}) {
    g_unix_signal_add(
        signal,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_CONTINUE;
        },
        kept);
  }
}

}  // namespace zonara
