#include "mount/inodes.h"

#include <algorithm>

namespace mounted {

void Inodes::Remember(fuse_ino_t inode) {
  if (inode == FUSE_ROOT_ID) return;  // is never forgotten
  const std::lock_guard lock(mutex_);
  ++inodes_[inode].lookups;
}

void Inodes::Forget(fuse_ino_t inode, std::uint64_t count) {
  const std::lock_guard lock(mutex_);
  const auto found = inodes_.find(inode);
  if (found == inodes_.end()) return;
  found->second.lookups -= std::min(count, found->second.lookups);
  if (found->second.lookups == 0) inodes_.erase(found);
}

bool Inodes::IsKnown(fuse_ino_t inode) const {
  if (inode == FUSE_ROOT_ID) return true;
  const std::lock_guard lock(mutex_);
  return inodes_.contains(inode);
}

Caching Inodes::Open(fuse_ino_t inode, std::int64_t version) {
  if ((inode & kOtherSpelling) != 0) return Caching::kBypass;
  const std::lock_guard lock(mutex_);
  Inode& known = inodes_[inode];
  if (known.cached_opens > 0 && known.cached != version) return Caching::kBypass;
  ++known.cached_opens;
  if (known.cached == version) return Caching::kKeep;
  known.cached = version;
  return Caching::kRenew;
}

void Inodes::Close(fuse_ino_t inode, Caching caching) {
  if (caching == Caching::kBypass) return;
  const std::lock_guard lock(mutex_);
  const auto found = inodes_.find(inode);
  if (found != inodes_.end() && found->second.cached_opens > 0) --found->second.cached_opens;
}

}  // namespace mounted
