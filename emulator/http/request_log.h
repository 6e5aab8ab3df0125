// What was asked of the service, in order of arrival.
// Threads: callable from any. Lifetime: copies handed out are the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/http/message.h"

namespace emulator {

struct RecordedRequest {
  std::string method;
  std::string target;  // as received
  HeaderList headers;  // as received
  std::string origin;  // of the listener: the service's, or the one contents come from
  std::uint64_t body_size = 0;
  std::string body;  // its first 64 KiB
  int status = 0;    // answered; 0: none, or none yet

  std::optional<std::string> Header(std::string_view name) const {
    return FindHeader(headers, name);
  }
};

class RequestLog {
 public:
  /// The oldest are forgotten when there are more than `limit`.
  explicit RequestLog(std::size_t limit) : limit_(limit) {}

  /// Returns the number to finish it by.
  std::uint64_t Begin(const Request& request);
  /// Does nothing when the entry has been forgotten.
  void Finish(std::uint64_t number, std::uint64_t body_size, std::string body, int status);

  std::vector<RecordedRequest> All() const;
  void Clear();

 private:
  std::size_t limit_;
  mutable std::mutex mutex_;
  std::uint64_t forgotten_ = 0;  // guarded by mutex_; number of the first in requests_
  std::deque<RecordedRequest> requests_;
};

}  // namespace emulator
