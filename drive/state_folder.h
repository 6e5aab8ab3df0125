// StateFolder: the folder that keeps catalog, local copies and unsent changes; one process at a
// time has it.
#pragma once

#include <filesystem>

#include "base/unique_fd.h"

namespace drive {

class StateFolder {
 public:
  /// Makes the folder with mode 0700 when it is missing. Throws Error: kExists when another process
  /// has it, kBroken when it cannot be used.
  explicit StateFolder(const std::filesystem::path& folder);

 private:
  base::UniqueFd lock_;  ///< locked until it is closed
};

}  // namespace drive
