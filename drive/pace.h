// Pace: how fast changes may go to a service that has asked for fewer requests. As long as it has
// not, there is no limit.
//
// The rate begins a little below what the service has just let pass, and grows slowly until the
// service asks again: so few requests are refused, and each refused one counts against the
// account's quota like an answered one. Questions are never held back, but count: whoever opens a
// file does not wait behind a thousand changes.
//
// Not shared between threads without the owner's lock.
#pragma once

#include <chrono>
#include <deque>

#include "drive/item.h"

namespace drive {

class Pace {
 public:
  /// Before this time no further change should go out.
  FileTime next() const { return next_; }

  /// A request goes out.
  void Sent(FileTime now);

  /// The service has asked for fewer requests.
  void Throttled(FileTime now);

 private:
  double Passed(FileTime now);

  std::deque<FileTime> sent_;  ///< requests of the last second that were not refused
  double rate_ = 0;            ///< requests a second; 0: no limit
  FileTime next_{};
  FileTime grown_{};    ///< until when the rate's growth is counted in
  FileTime lowered_{};  ///< when the rate was lowered last
};

}  // namespace drive
