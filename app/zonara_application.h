// The helper's application object: runs the main run loop until asked to
// terminate, and every 30 seconds hands freed heap memory back to the system
// (malloc_trim), the long-lived daemon's bound on memory growth.
//
// Thread safety: main thread only, except `terminate`, which any thread may
// call.
#pragma once

#include <functional>

#include "platform/run_loop.h"

namespace zonara {

class AppController;

class ZonaraApplication {
 public:
  static constexpr Clock::Duration kMemoryResetInterval = std::chrono::seconds(30);

  // `loop` is borrowed (normally `RunLoop::main()`).
  explicit ZonaraApplication(RunLoop& loop) : loop_(loop) {}
  ZonaraApplication(const ZonaraApplication&) = delete;
  ZonaraApplication& operator=(const ZonaraApplication&) = delete;

  // The process's application (main run loop), made on first use.
  [[nodiscard]] static ZonaraApplication& sharedApplication();

  // The controller the application serves; borrowed, may be null (an inert
  // helper has none).
  void setDelegate(AppController* delegate) { delegate_ = delegate; }
  [[nodiscard]] AppController* delegate() const { return delegate_; }

  // Starts the 30-second memory reset timer and runs the loop until
  // `terminate`; the timer is gone when this returns.
  void run();
  // Makes `run` return (and so the process end normally).
  void terminate();
  // Returns freed heap to the system. Called by the timer.
  void resetAutoreleasePool();

  // Replaces what `resetAutoreleasePool` does (tests count the calls).
  void setMemoryResetForTesting(std::function<void()> reset) { reset_ = std::move(reset); }

 private:
  RunLoop& loop_;
  AppController* delegate_ = nullptr;
  std::function<void()> reset_;
};

}  // namespace zonara
