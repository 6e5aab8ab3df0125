// A steady clock that tests turn by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <vector>

#include "support/steady_time.h"

/// In place of the module's clock for its lifetime. Sleeping takes no time and is recorded, unless
/// it is told to stop.
class FakeTime {
 public:
  FakeTime() : real_(onedrive4b::TimeSource()) {
    now_ = onedrive4b::SteadyTime::Clock::now();
    waits_.clear();
    onedrive4b::TimeSource() = {[] { return now_; },
                                [](std::chrono::seconds wait, const onedrive4b::StopSignal& stop) {
                                  if (stop && stop()) return;
                                  waits_.push_back(wait.count());
                                  now_ += wait;
                                }};
  }
  FakeTime(const FakeTime&) = delete;
  FakeTime& operator=(const FakeTime&) = delete;
  ~FakeTime() { onedrive4b::TimeSource() = real_; }

  void Advance(std::chrono::seconds duration) { now_ += duration; }
  /// Seconds of each sleep, in order.
  const std::vector<long>& waits() const { return waits_; }

 private:
  static inline onedrive4b::SteadyTime::Clock::time_point now_;
  static inline std::vector<long> waits_;
  onedrive4b::SteadyTime real_;
};

/// The real clock, put forward by any thread. Sleeping takes no time.
class ShiftedTime {
 public:
  ShiftedTime() : real_(onedrive4b::TimeSource()) {
    onedrive4b::TimeSource() = {
        [] { return onedrive4b::SteadyTime::Clock::now() + std::chrono::hours(hours_); },
        [](std::chrono::seconds, const onedrive4b::StopSignal&) {}};
  }
  ShiftedTime(const ShiftedTime&) = delete;
  ShiftedTime& operator=(const ShiftedTime&) = delete;
  ~ShiftedTime() { onedrive4b::TimeSource() = real_; }

  static void Advance(int hours) { hours_ += hours; }

 private:
  static inline std::atomic<int> hours_ = 0;
  onedrive4b::SteadyTime real_;
};
