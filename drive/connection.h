// Connection: whether the service can be reached, as the last requests found it, and when to try
// again.
//
// Not shared between threads without the owner's lock.
#pragma once

#include <chrono>

#include "drive/item.h"
#include "drive/remote.h"

namespace drive {

class Connection {
 public:
  /// A request was answered.
  void Answered() {
    offline_ = false;
    signed_out_ = false;
    pause_ = kFirstPause;
  }

  /// A request failed. Returns whether the service counts as unreachable from now on.
  bool Failed(Trouble trouble, FileTime now) {
    if (trouble == Trouble::kStopped) return offline_;
    if (trouble == Trouble::kThrottled) {
      calm_until_ = now + pause_;
      Lengthen();
      return false;
    }
    if (trouble != Trouble::kUnreachable && trouble != Trouble::kSignedOut) {
      if (trouble != Trouble::kFailed) Answered();
      return false;
    }
    signed_out_ = trouble == Trouble::kSignedOut;
    // Requests that were running when it went away are one failure together.
    if (!offline_ || now >= next_try_) {
      next_try_ = now + pause_;
      Lengthen();
    }
    offline_ = true;
    return true;
  }

  bool offline() const { return offline_; }
  bool signed_out() const { return signed_out_; }
  /// When the next request may find out whether the service is back.
  FileTime next_try() const { return next_try_; }
  /// The service asked for fewer requests: nothing is sent before this time.
  FileTime calm_until() const { return calm_until_; }
  void TryNow(FileTime now) {
    next_try_ = now;
    pause_ = kFirstPause;
  }

 private:
  static constexpr std::chrono::seconds kFirstPause{1};
  static constexpr std::chrono::seconds kLongestPause{300};

  void Lengthen() { pause_ = std::min<std::chrono::seconds>(pause_ * 2, kLongestPause); }

  bool offline_ = false;
  bool signed_out_ = false;
  FileTime next_try_{};
  FileTime calm_until_{};
  std::chrono::seconds pause_ = kFirstPause;
};

}  // namespace drive
