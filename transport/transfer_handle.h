// The fields of _FS_HANDLE that host and module use at the same time from different threads. They
// are plain numbers in the record, so each access is made atomic here.
#pragma once

#include <atomic>
#include <cstdint>

#include "onedrive4b/records.h"
#include "support/steady_time.h"

namespace onedrive4b {

/// Whether the host has told the transfer to stop.
inline bool IsStopped(_FS_HANDLE& handle) {
  constexpr std::int32_t kLastRunningState = 2;
  return std::atomic_ref(handle.state).load(std::memory_order_relaxed) > kLastRunningState;
}

/// True once the host has told the transfer to stop. The record must outlive the signal.
inline StopSignal StopOf(_FS_HANDLE& handle) {
  return [&handle] { return IsStopped(handle); };
}

inline void SetPosition(_FS_HANDLE& handle, std::uint64_t offset) {
  std::atomic_ref(handle.position)
      .store(static_cast<std::int64_t>(offset), std::memory_order_relaxed);
}

}  // namespace onedrive4b
