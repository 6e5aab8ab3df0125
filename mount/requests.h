// Requests: the requests of programs that are being answered and may have to wait. The kernel says
// when the program that waits for one was interrupted; the end of the session interrupts all.
//
// Threads: every operation may be called from any thread.
// Lifetime: must outlive every Waiting.
#pragma once

#include <list>
#include <mutex>
#include <stop_token>

#include "mount/fuse.h"

namespace mounted {

class Requests {
 public:
  /// From the moment a request is taken up until just before it is answered: an answered request
  /// is libfuse's to free, so nothing may be registered with it any more.
  class Waiting {
   public:
    Waiting(Requests& requests, fuse_req_t request);
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    /// Raised when nobody waits for the answer any more.
    std::stop_token token() const noexcept { return source_.get_token(); }

   private:
    friend class Requests;

    Requests& requests_;
    const fuse_req_t request_;
    std::stop_source source_;
    std::list<Waiting*>::iterator place_;
  };

  /// Ends every wait, also those that begin later.
  void StopAll();

 private:
  std::mutex mutex_;
  std::list<Waiting*> waiting_;
  bool stopped_ = false;
};

}  // namespace mounted
