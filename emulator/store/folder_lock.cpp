#include "emulator/store/folder_lock.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>

namespace emulator {

FolderLock::FolderLock(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  folder_ = base::UniqueFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder_ && ::flock(folder_.get(), LOCK_EX | LOCK_NB) == 0) return;
  throw std::runtime_error("cannot use " + folder.string() + ": " +
                           (errno == EWOULDBLOCK ? "another emulator works in it"
                                                 : std::generic_category().message(errno)));
}

}  // namespace emulator
