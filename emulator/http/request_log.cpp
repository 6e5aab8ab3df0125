#include "emulator/http/request_log.h"

#include <utility>

namespace emulator {

std::uint64_t RequestLog::Begin(const Request& request) {
  RecordedRequest entry;
  entry.method = request.method;
  entry.target = request.target;
  entry.headers = request.headers;
  entry.origin = request.origin;
  const std::lock_guard lock(mutex_);
  requests_.push_back(std::move(entry));
  if (requests_.size() > limit_) {
    requests_.pop_front();
    ++forgotten_;
  }
  return forgotten_ + requests_.size() - 1;
}

void RequestLog::Finish(std::uint64_t number, std::uint64_t body_size, std::string body,
                        int status) {
  const std::lock_guard lock(mutex_);
  if (number < forgotten_ || number - forgotten_ >= requests_.size()) return;
  RecordedRequest& entry = requests_[static_cast<std::size_t>(number - forgotten_)];
  entry.body_size = body_size;
  entry.body = std::move(body);
  entry.status = status;
}

std::vector<RecordedRequest> RequestLog::All() const {
  const std::lock_guard lock(mutex_);
  return {requests_.begin(), requests_.end()};
}

void RequestLog::Clear() {
  const std::lock_guard lock(mutex_);
  forgotten_ += requests_.size();
  requests_.clear();
}

}  // namespace emulator
