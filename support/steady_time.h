// The steady clock as the module uses it: how old things are, and how long to wait.
#pragma once

#include <chrono>

namespace onedrive4b {

/// Tests put a source of their own in place, so that nobody waits for a back-off or for a token to
/// grow old.
struct SteadyTime {
  using Clock = std::chrono::steady_clock;

  Clock::time_point (*now)();
  void (*sleep_for)(std::chrono::seconds duration);  ///< blocks the calling thread
};

/// The source in use. Not locked: replaced only while no operation runs.
SteadyTime& TimeSource();

}  // namespace onedrive4b
