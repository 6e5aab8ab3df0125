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

#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "host/cancellation.h"

namespace cli {

class Interrupts {
 public:
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// Raised by the first signal.
  host::Cancellation& cancellation() noexcept { return cancellation_; }

  /// Something that ends by itself when it is asked to.
  class Scope {
   public:
    /// `temporary_file`: removed if the program has to end without waiting; may be empty.
    explicit Scope(Interrupts& interrupts, std::string temporary_file = {});
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    friend class Interrupts;
    Interrupts& interrupts_;
    const std::string temporary_file_;
    std::list<const Scope*>::iterator place_;
  };

 private:
  void Run();
  void Raise();

  std::mutex mutex_;
  std::list<const Scope*> scopes_;
  host::Cancellation cancellation_;
  base::UniqueFd signals_;
  base::UniqueFd stop_;
  std::thread thread_;
};

}  // namespace cli
