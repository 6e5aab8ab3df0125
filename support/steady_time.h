// The module's steady clock: it measures ages, and it waits.
#pragma once

#include <chrono>
#include <functional>

namespace onedrive4b {

/// True when a wait must end early. Empty: never.
using StopSignal = std::function<bool()>;

/// Tests replace the source, so that they need not wait for a back-off or for a token to expire.
struct SteadyTime {
  using Clock = std::chrono::steady_clock;

  Clock::time_point (*now)();
  /// Blocks the calling thread; checks `stop` several times a second.
  void (*sleep_for)(std::chrono::seconds duration, const StopSignal& stop);
};

/// The source in use. Not locked: replaced only while no operation runs.
SteadyTime& TimeSource();

}  // namespace onedrive4b
