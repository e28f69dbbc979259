#include "app/zonara_application.h"

#include "platform/memory.h"

namespace zonara {

ZonaraApplication& ZonaraApplication::sharedApplication() {
  static ZonaraApplication* app = new ZonaraApplication(RunLoop::main());
  return *app;
}

void ZonaraApplication::run() {
  RunLoop::TimerId timer = loop_.addTimer(kMemoryResetInterval, true, [this] { resetAutoreleasePool(); });
  loop_.run();
  loop_.cancelTimer(timer);
}

void ZonaraApplication::terminate() { loop_.stop(); }

void ZonaraApplication::resetAutoreleasePool() {
  if (reset_) {
    reset_();
  } else {
    releaseFreedMemory();
  }
}

}  // namespace zonara
