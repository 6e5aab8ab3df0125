#include "retry/backoff.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace onedrive4b {

namespace {

constexpr int kDefaultCount = 5;
constexpr int kLargestCount = 16;

}  // namespace

ExponentialBackoff::ExponentialBackoff(std::deque<int> backoff_codes, int count)
    : codes(std::move(backoff_codes)),
      total(count < 0 ? kDefaultCount : std::min(count, kLargestCount)),
      left(total) {}

bool ExponentialBackoff::IsBackoffCode(int code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

AERROR ExponentialBackoff::Backoff() {
  if (total == 0) return FAILED;
  const std::int32_t step = total - left;
  --left;
  TimeSource().sleep_for(std::chrono::seconds(1 << step), stop_);
  return stop_ && stop_() ? FAILED : RETRY;
}

}  // namespace onedrive4b
