// Threads: the Work of a program. A few threads for each lane, and one that keeps the time.
//
// Threads are started by Start, after a program has gone into the background.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include "drive/clock.h"
#include "drive/work.h"

namespace drive {

class Threads final : public Work {
 public:
  explicit Threads(const Clock& clock) : clock_(clock) {}
  ~Threads() override { End(); }

  void Start();

  void Submit(Lane lane, std::function<void(std::stop_token)> task) override;
  void WakeAt(FileTime time) override;
  void Wait(std::unique_lock<std::mutex>& lock, FileTime until, std::stop_token stop) override;
  void Changed() override;
  void OnTick(std::function<void()> tick) override;
  void End() override;

 private:
  struct Queue {
    std::deque<std::function<void(std::stop_token)>> tasks;
    std::condition_variable_any filled;
  };

  Queue& QueueOf(Lane lane);
  void RunTasks(Queue& queue, std::stop_token stop);
  void KeepTime(std::stop_token stop);

  const Clock& clock_;
  std::condition_variable_any changed_;  ///< used with the drive's lock

  std::mutex mutex_;  ///< guards what follows; taken after the drive's lock
  bool ended_ = false;
  Queue ask_;
  Queue read_;
  Queue send_;
  std::function<void()> tick_;
  std::optional<FileTime> wake_;
  std::condition_variable_any wake_changed_;
  std::vector<std::jthread> threads_;
};

}  // namespace drive
