#include "drive/pace.h"

#include <algorithm>

namespace drive {
namespace {

using Seconds = std::chrono::duration<double>;

/// What of the last second's requests the first rate allows.
constexpr double kFirstShare = 0.8;
/// What of its rate is left when the service asks for fewer requests again.
constexpr double kLaterShare = 0.85;
constexpr double kGrowth = 0.01;       // a second
constexpr double kLeastGrowth = 0.05;  // requests a second, a second
constexpr double kSlowest = 0.2;       // requests a second
constexpr double kNoLimit = 200;       // requests a second: more than one account is ever allowed
/// Requests that are refused so soon after each other met one limit.
constexpr std::chrono::seconds kOneLimit{2};
/// Refused requests are repeated after a second, by the module; they go first.
constexpr std::chrono::milliseconds kPause{1500};

FileTime::duration Interval(double rate) {
  return std::chrono::duration_cast<FileTime::duration>(Seconds(1 / rate));
}

}  // namespace

/// How many requests the service has answered in the last second.
double Pace::Passed(FileTime now) {
  const auto is_old = [&](FileTime time) {
    return time > now || now - time > std::chrono::seconds(1);
  };
  while (!sent_.empty() && is_old(sent_.front())) sent_.pop_front();
  return static_cast<double>(sent_.size());
}

void Pace::Sent(FileTime now) {
  Passed(now);
  sent_.push_back(now);
  if (rate_ == 0) return;
  const double seconds = std::clamp(Seconds(now - grown_).count(), 0.0, 60.0);
  rate_ += seconds * std::max(rate_ * kGrowth, kLeastGrowth);
  grown_ = now;
  if (rate_ > kNoLimit) {
    rate_ = 0;
    next_ = {};
    return;
  }
  const FileTime latest = now + std::chrono::seconds(60);  // the clock may have been put back
  next_ = std::min(std::max(next_, now) + Interval(rate_), latest);
}

void Pace::Throttled(FileTime now) {
  const double passed = Passed(now) - 1;
  if (!sent_.empty()) sent_.pop_back();
  next_ = std::max(next_, now + kPause);
  if (now >= lowered_ && now - lowered_ < kOneLimit) return;
  lowered_ = grown_ = now;
  rate_ = rate_ == 0 ? passed * kFirstShare : rate_ * kLaterShare;
  rate_ = std::max(rate_, kSlowest);
}

}  // namespace drive
