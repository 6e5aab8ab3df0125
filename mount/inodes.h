// Inodes: which inodes the kernel knows, and which version of a file its page cache may hold.
//
// An inode's number is the drive's number of the item. A name that was looked up in another
// spelling than the drive keeps has an inode of its own, the number with kOtherSpelling: for the
// kernel, "readme" and "README" are two files, so that renaming one to the other reaches the drive
// instead of being dropped as a rename of a file to itself. Nothing is cached for such an inode.
//
// The kernel counts each entry that it is given, and gives the counts back with "forget". Until all
// are back it may use the number, and may cache what belongs to it.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "drive/item.h"
#include "mount/fuse.h"

namespace mounted {

inline constexpr fuse_ino_t kOtherSpelling = fuse_ino_t{1} << 62;

inline bool IsOtherSpelling(fuse_ino_t inode) noexcept { return (inode & kOtherSpelling) != 0; }

inline drive::ItemNumber NumberOf(fuse_ino_t inode) noexcept {
  return static_cast<drive::ItemNumber>(inode & ~kOtherSpelling);
}

inline fuse_ino_t InodeOf(drive::ItemNumber number) noexcept {
  return static_cast<fuse_ino_t>(number);
}

/// How the kernel may cache what is read through one opening of a file.
enum class Caching {
  kKeep,    ///< the pages that it has are of this version
  kRenew,   ///< it must drop the pages that it has
  kBypass,  ///< it must not cache, because another version of the file is open as well
};

class Inodes {
 public:
  /// The kernel is about to be given one more entry of the inode.
  void Remember(fuse_ino_t inode);
  void Forget(fuse_ino_t inode, std::uint64_t count);
  bool IsKnown(fuse_ino_t inode) const;

  /// A file was opened that is of this version (drive::OpenFile::version).
  Caching Open(fuse_ino_t inode, std::int64_t version);
  void Close(fuse_ino_t inode, Caching caching);

 private:
  struct Inode {
    std::uint64_t lookups = 0;
    std::uint64_t cached_opens = 0;
    std::optional<std::int64_t> cached;  ///< the version whose pages the kernel may hold
  };

  mutable std::mutex mutex_;
  std::unordered_map<fuse_ino_t, Inode> inodes_;
};

}  // namespace mounted
