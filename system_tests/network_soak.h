// A long run of network changes against the real helper, watching its memory.
//
// Each change moves the system to the other of two cities (Paris and Tokyo
// alternate, so every change is a real zone change), takes the wireless
// interface off its network and joins one again, and waits until the helper
// has applied the new zone. Every `sampleEvery` changes the helper's resident
// set (VmRSS) and peak (VmHWM) are sampled.
//
// Needs a HelperSystem with the wireless interface (the test program's own
// network namespace) whose helper already runs and has applied its first
// zone. Use from the thread that owns the HelperSystem.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "system_tests/helper_system.h"

namespace zonara::testing {

// The wireless interface leaves its network and joins one again; true once
// the helper has seen both changes (within `timeout` each).
[[nodiscard]] bool RejoinNetwork(HelperSystem& system, std::chrono::milliseconds timeout);

struct SoakSample {
  int change = 0;      // changes done when sampled
  double seconds = 0;  // real time since the soak started
  long rssKiB = 0;     // VmRSS
  long peakKiB = 0;    // VmHWM
};

struct SoakResult {
  std::vector<SoakSample> samples;  // the first one before any change
  int changes = 0;                  // changes completed
  std::string error;                // why the run stopped early; empty when all were done
};

// Runs `changes` network changes; `onSample` (optional) sees each sample as
// it is taken. `perChange` bounds the wait for each change's zone.
[[nodiscard]] SoakResult RunNetworkSoak(HelperSystem& system, int changes, int sampleEvery,
                                        std::chrono::milliseconds perChange,
                                        const std::function<void(const SoakSample&)>& onSample = {});

}  // namespace zonara::testing
