#include "mount/requests.h"

namespace mounted {
namespace {

void Interrupt(fuse_req_t /*request*/, void* source) {
  static_cast<std::stop_source*>(source)->request_stop();
}

}  // namespace

Requests::Waiting::Waiting(Requests& requests, fuse_req_t request)
    : requests_(requests), request_(request) {
  {
    const std::lock_guard lock(requests_.mutex_);
    place_ = requests_.waiting_.insert(requests_.waiting_.end(), this);
    if (requests_.stopped_) source_.request_stop();
  }
  // Calls Interrupt at once when the interrupt was there first.
  fuse_req_interrupt_func(request_, Interrupt, &source_);
}

Requests::Waiting::~Waiting() {
  // Waits for an Interrupt that is running, because libfuse holds the request's lock meanwhile.
  fuse_req_interrupt_func(request_, nullptr, nullptr);
  const std::lock_guard lock(requests_.mutex_);
  requests_.waiting_.erase(place_);
}

void Requests::StopAll() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  for (Waiting* waiting : waiting_) waiting->source_.request_stop();
}

}  // namespace mounted
