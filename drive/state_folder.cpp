#include "drive/state_folder.h"

#include <cerrno>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "drive/error.h"

namespace drive {
namespace {

[[noreturn]] void Fail(const std::filesystem::path& path, const char* what) {
  throw Error(Reason::kBroken, "the state folder '" + path.string() + "' " + what);
}

/// SQLite's log needs memory that is shared, and locks that work.
bool IsOnNetwork(const std::filesystem::path& folder) {
  struct statfs disk = {};
  if (::statfs(folder.c_str(), &disk) != 0) return false;
  constexpr long kCifs = 0xFF534D42;
  const auto type = static_cast<long>(disk.f_type) & 0xFFFFFFFFL;
  return type == NFS_SUPER_MAGIC || type == SMB_SUPER_MAGIC || type == kCifs ||
         type == FUSE_SUPER_MAGIC || type == V9FS_MAGIC;
}

}  // namespace

StateFolder::StateFolder(const std::filesystem::path& folder) {
  std::error_code error;
  if (folder.has_parent_path()) std::filesystem::create_directories(folder.parent_path(), error);
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    Fail(folder,
         (std::string("cannot be made: ") + std::generic_category().message(errno)).c_str());
  }
  if (::chmod(folder.c_str(), 0700) != 0) Fail(folder, "is not this user's");
  if (IsOnNetwork(folder)) Fail(folder, "must not be on a network file system");
  lock_ = base::UniqueFd(::open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock_) Fail(folder, "cannot be written to");
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw Error(Reason::kExists,
                "the state folder '" + folder.string() + "' is in use by another mount");
  }
}

}  // namespace drive
