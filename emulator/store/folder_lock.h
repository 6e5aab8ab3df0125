// Keeps a second emulator out of a folder that one works in.
// Threads: none. Lifetime: the folder is locked while the object, or its process, lives.
#pragma once

#include <filesystem>

#include "base/unique_fd.h"

namespace emulator {

class FolderLock {
 public:
  /// Makes the folder if need be. Throws std::runtime_error with a text for people, also when the
  /// folder is locked.
  explicit FolderLock(const std::filesystem::path& folder);

 private:
  base::UniqueFd folder_;
};

}  // namespace emulator
