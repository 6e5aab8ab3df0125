// TestWork: runs the drive's tasks in one thread, in an order drawn from a seed, in a time of the
// test's own that passes only while somebody waits.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <stop_token>
#include <utility>
#include <vector>

#include "drive/clock.h"
#include "drive/work.h"

namespace drive_test {

using drive::FileTime;

class TestClock final : public drive::Clock {
 public:
  FileTime Now() const override { return now_; }
  void Set(FileTime now) { now_ = std::max(now_, now); }
  void Pass(FileTime::duration time) { now_ += time; }

 private:
  FileTime now_{std::chrono::hours(24 * 365 * 50)};
};

class TestWork final : public drive::Work {
 public:
  TestWork(TestClock& clock, std::mt19937& random) : clock_(clock), random_(random) {}

  void Submit(drive::Lane, std::function<void(std::stop_token)> task) override {
    if (!ended_) tasks_.push_back(std::move(task));
  }
  void WakeAt(FileTime time) override { wake_ = std::min(wake_.value_or(time), time); }
  void Changed() override {}
  void OnTick(std::function<void()> tick) override { tick_ = std::move(tick); }
  void End() override {
    ended_ = true;
    tasks_.clear();
    wake_.reset();
  }

  void Wait(std::unique_lock<std::mutex>& lock, FileTime until, std::stop_token) override {
    lock.unlock();
    ++waits;
    if (!RunOne() && !RunTick(until)) clock_.Set(until);
    lock.lock();
  }

  /// Runs one task that is due; false when there is none.
  bool RunOne() {
    if (wake_ && *wake_ <= clock_.Now()) return RunTick(clock_.Now());
    if (tasks_.empty()) return false;
    const std::size_t chosen = random_() % tasks_.size();
    const auto task = std::move(tasks_[chosen]);
    tasks_.erase(tasks_.begin() + static_cast<std::ptrdiff_t>(chosen));
    task({});
    return true;
  }

  /// Runs what is due until then.
  void RunUntil(FileTime until) {
    while (RunOne() || RunTick(until)) {
    }
    clock_.Set(until);
  }

  int waits = 0;  ///< how often somebody has waited

 private:
  bool RunTick(FileTime until) {
    if (!wake_ || *wake_ > until) return false;
    clock_.Set(*wake_);
    wake_.reset();
    tick_();
    return true;
  }

  TestClock& clock_;
  std::mt19937& random_;
  std::vector<std::function<void(std::stop_token)>> tasks_;
  std::optional<FileTime> wake_;
  std::function<void()> tick_;
  bool ended_ = false;
};

}  // namespace drive_test
