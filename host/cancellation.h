// Cancellation: one request to end several waits, transfers and requests together.
//
// Its owner raises it once: because of a signal, or because the result is no longer needed. Then
// waits end, the registered transfers stop, and requests that use it are aborted.
//
// Threads: every operation may be called from any thread. Raise takes a lock, so a signal handler
// must not call it. Lifetime: must outlive everything that uses it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "onedrive4b/records.h"

namespace host {

/// Tells a running transfer to stop; safe while the module reads the handle.
void StopTransfer(_FS_HANDLE& handle) noexcept;

class Cancellation {
 public:
  Cancellation() = default;
  Cancellation(const Cancellation&) = delete;
  Cancellation& operator=(const Cancellation&) = delete;

  void Raise();
  bool raised() const noexcept { return raised_; }

  /// Throws a kInterrupted Failure once `raised`.
  void Check() const;

  /// Waits; throws as Check does as soon as it is raised.
  void Wait(std::chrono::milliseconds time);

  /// Transfers that stop when it is raised, or at once when it already is.
  class Transfers {
   public:
    using Handles = std::vector<std::shared_ptr<_FS_HANDLE>>;

    Transfers(Cancellation& cancellation, Handles handles);
    ~Transfers();
    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

   private:
    friend class Cancellation;
    void Stop() const noexcept;

    Cancellation& cancellation_;
    const Handles handles_;
    std::list<const Transfers*>::iterator place_;
  };

  /// Work that must not be interrupted once it has begun, such as using a token that is valid for
  /// one use. Throws as Check does instead of beginning when the cancellation is raised.
  class Unbroken {
   public:
    explicit Unbroken(Cancellation& cancellation);
    ~Unbroken();
    Unbroken(const Unbroken&) = delete;
    Unbroken& operator=(const Unbroken&) = delete;

   private:
    Cancellation& cancellation_;
  };

  /// To be called before the process ends: waits until no Unbroken is left. False after `time`.
  bool WaitForUnbroken(std::chrono::milliseconds time);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<const Transfers*> transfers_;
  std::size_t unbroken_ = 0;
  std::atomic<bool> raised_{false};
};

}  // namespace host
