// Lets so many requests pass in each second.
// Threads: callable from any. Lifetime: a value of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>

namespace emulator {

class Throttle {
 public:
  explicit Throttle(std::size_t per_second) : per_second_(per_second) {}

  /// 0: no limit.
  void SetRate(std::size_t per_second);
  /// nullopt: the request may pass. Otherwise after which time to try again.
  std::optional<std::chrono::seconds> Admit();

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  std::size_t per_second_;
  std::size_t passed_ = 0;  // since second_
  std::chrono::steady_clock::time_point second_{};
};

}  // namespace emulator
