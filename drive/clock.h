// Clock: the time of the drive. Tests have their own.
//
// Callable from any thread.
#pragma once

#include "drive/item.h"

namespace drive {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual FileTime Now() const = 0;
};

class SystemClock final : public Clock {
 public:
  FileTime Now() const override {
    return std::chrono::time_point_cast<FileTime::duration>(std::chrono::system_clock::now());
  }
};

}  // namespace drive
