// Interrupts: Ctrl-C and SIGTERM, taken by a thread of their own.
//
// While no Scope is open a signal ends the program at once with exit code 130: nothing is half
// done. While one is open the first signal asks the running transfers to stop, and their owner
// cleans up; a second one removes the temporary files and ends the program.
//
// Threads: every operation may be called from any thread.
// Lifetime: one object, made before other threads so that they inherit the blocked signals; it must
// outlive every Scope.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "onedrive4b/records.h"

namespace host {

/// Tells a running transfer to stop; safe while the module reads the handle.
void StopTransfer(_FS_HANDLE& handle) noexcept;

class Interrupts {
 public:
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// True once a signal asked the open scopes to end.
  const std::atomic<bool>& raised() const noexcept { return raised_; }

  /// Throws a kInterrupted Failure once `raised`.
  void Check() const;

  /// Waits; throws as Check does as soon as a signal comes.
  void Wait(std::chrono::seconds time);

  /// Something that ends by itself when it is asked to.
  class Scope {
   public:
    /// `temporary_file`: removed if the program has to end without waiting; may be empty.
    Scope(Interrupts& interrupts, std::vector<std::shared_ptr<_FS_HANDLE>> handles,
          std::string temporary_file = {});
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    friend class Interrupts;
    Interrupts& interrupts_;
    const std::vector<std::shared_ptr<_FS_HANDLE>> handles_;
    const std::string temporary_file_;
    std::list<const Scope*>::iterator place_;
  };

 private:
  void Run();
  void Raise();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<const Scope*> scopes_;
  std::atomic<bool> raised_{false};
  base::UniqueFd signals_;
  base::UniqueFd stop_;
  std::thread thread_;
};

}  // namespace host
