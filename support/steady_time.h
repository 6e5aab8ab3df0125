// The steady clock as the module uses it: how old things are, and how long to wait.
#pragma once

#include <chrono>
#include <functional>

namespace onedrive4b {

/// Whether a wait is to end early. Empty: never.
using StopSignal = std::function<bool()>;

/// Tests put a source of their own in place, so that a test waits neither for a back-off
/// nor for a token to grow old.
struct SteadyTime {
  using Clock = std::chrono::steady_clock;

  Clock::time_point (*now)();
  /// Blocks the calling thread; looks at `stop` several times a second.
  void (*sleep_for)(std::chrono::seconds duration, const StopSignal& stop);
};

/// The source in use. Not locked: replaced only while no operation runs.
SteadyTime& TimeSource();

}  // namespace onedrive4b
