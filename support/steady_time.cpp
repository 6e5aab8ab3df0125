#include "support/steady_time.h"

#include <algorithm>
#include <thread>

namespace onedrive4b {

namespace {

constexpr std::chrono::milliseconds kLook{250};

void Sleep(std::chrono::seconds duration, const StopSignal& stop) {
  const auto end = SteadyTime::Clock::now() + duration;
  for (auto now = SteadyTime::Clock::now(); now < end; now = SteadyTime::Clock::now()) {
    if (stop && stop()) return;
    const SteadyTime::Clock::duration left = end - now;
    std::this_thread::sleep_for(stop ? std::min<SteadyTime::Clock::duration>(left, kLook) : left);
  }
}

}  // namespace

SteadyTime& TimeSource() {
  static SteadyTime source{&SteadyTime::Clock::now, &Sleep};
  return source;
}

}  // namespace onedrive4b
