// CopyStore: the files that hold local copies, by number, two levels deep in one folder.
//
// Callable from any thread; one copy's file belongs to one caller at a time. Failures are Error:
// kNoSpace or kBroken.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "base/unique_fd.h"

namespace drive {

/// The Error for errno after a failed call on a local copy.
[[noreturn]] void ThrowLocalError(const char* action, int error_number);

class CopyStore {
 public:
  explicit CopyStore(std::filesystem::path folder);

  base::UniqueFd Create(std::int64_t copy) const;
  /// Invalid descriptor: the file is missing.
  base::UniqueFd Open(std::int64_t copy) const;
  void Remove(std::int64_t copy) const noexcept;
  /// Removes every file that is not of one of these, sorted, copies.
  void RemoveOthers(const std::vector<std::int64_t>& copies) const;
  /// Flushes the names of new files to the disk.
  void SyncNames(std::int64_t copy) const noexcept;
  /// Space that the local disk has left for this user, in bytes.
  std::int64_t FreeSpace() const noexcept;

 private:
  std::filesystem::path PathOf(std::int64_t copy) const;

  std::filesystem::path folder_;
};

/// Makes `to` a copy of `from`; shares the blocks where the file system can.
void CloneFile(int from, int to);

/// Bytes of the disk that the file takes.
std::int64_t AllocatedBytes(int fd) noexcept;

/// Size in bytes. Throws Error.
std::int64_t FileSize(int fd);

}  // namespace drive
