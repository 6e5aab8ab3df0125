// Work: who runs the drive's own tasks, and how an operation waits for them. In the program these
// are threads; tests run the tasks themselves, in an order of their own.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <functional>
#include <mutex>
#include <stop_token>

#include "drive/item.h"

namespace drive {

/// Tasks of one lane never wait for those of another.
enum class Lane {
  kAsk,   ///< listings and other small questions
  kRead,  ///< downloads
  kSend,  ///< changes and uploads
};

class Work {
 public:
  virtual ~Work() = default;

  /// Runs the task later, never inside the call. The token is raised when the work ends. A task
  /// does not throw.
  virtual void Submit(Lane lane, std::function<void(std::stop_token)> task) = 0;

  /// Calls the drive's tick at this time, or earlier.
  virtual void WakeAt(FileTime time) = 0;

  /// Waits, with the lock released, until Changed is called, the time has come, or the token is
  /// raised; may also return without a reason. The lock is held again on return.
  virtual void Wait(std::unique_lock<std::mutex>& lock, FileTime until, std::stop_token stop) = 0;

  /// Wakes everyone who waits.
  virtual void Changed() = 0;

  /// What Submit and WakeAt call when a time has come. Set once, before the first WakeAt.
  virtual void OnTick(std::function<void()> tick) = 0;

  /// Ends the tasks: raises their token and waits for those that run. Later Submits are dropped.
  virtual void End() = 0;
};

}  // namespace drive
