// Interrupts: Ctrl-C and SIGTERM, handled by their own thread.
//
// While no Scope is open, a signal ends the program with exit code 130: no work is in progress.
// While a scope is open, the first signal raises the cancellation, and the owner of the scope
// cleans up; a second signal ends the program.
//
// The end waits for work that must not be interrupted, such as an exchange of tokens, and removes
// the temporary files.
//
// Threads: every operation may be called from any thread.
// Lifetime: one object, made before other threads so that they inherit the blocked signals; it must
// outlive every Scope.
#pragma once

#include <cstddef>
#include <mutex>
#include <thread>

#include "base/unique_fd.h"
#include "cli/temporary_files.h"
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

  TemporaryFiles& temporary_files() noexcept { return temporary_files_; }

  /// Work that ends by itself when the cancellation is raised.
  class Scope {
   public:
    explicit Scope(Interrupts& interrupts);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Interrupts& interrupts_;
  };

 private:
  void Run();
  void TakeSignal();
  [[noreturn]] void EndProgram();

  std::mutex mutex_;
  std::size_t scopes_ = 0;
  host::Cancellation cancellation_;
  TemporaryFiles temporary_files_;
  base::UniqueFd signals_;
  base::UniqueFd stop_;
  std::thread thread_;
};

}  // namespace cli
