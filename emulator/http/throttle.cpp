#include "emulator/http/throttle.h"

namespace emulator {

void Throttle::SetRate(std::size_t per_second) {
  const std::lock_guard lock(mutex_);
  per_second_ = per_second;
}

std::optional<std::chrono::seconds> Throttle::Admit() {
  constexpr std::chrono::seconds kSecond{1};
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard lock(mutex_);
  if (per_second_ == 0) return std::nullopt;
  if (now - second_ >= kSecond) {
    second_ = now;
    passed_ = 0;
  }
  if (passed_ >= per_second_) return kSecond;
  ++passed_;
  return std::nullopt;
}

}  // namespace emulator
