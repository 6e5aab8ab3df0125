#include "support/steady_time.h"

#include <thread>

namespace onedrive4b {

SteadyTime& TimeSource() {
  static SteadyTime source{&SteadyTime::Clock::now, [](std::chrono::seconds duration) {
                             std::this_thread::sleep_for(duration);
                           }};
  return source;
}

}  // namespace onedrive4b
