// FileSystem: the kernel's requests, answered by the drive. The number of an item is its inode
// number: it is never used twice, so a number that the kernel remembers never means another file,
// and nothing has to be counted for it.
//
// Threads: requests run in several threads at once. One that waits for the service ends with EINTR
// when the program that waits is interrupted.
// Lifetime: the drive must outlive it, it must outlive the session made of it.
#pragma once

#include <map>
#include <mutex>

#include <sys/types.h>

#include "drive/drive.h"
#include "mount/fuse.h"

namespace mounted {

struct FileSystemOptions {
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t umask = 022;  ///< what files and folders do not allow
};

class FileSystem {
 public:
  FileSystem(drive::Drive& drive, const FileSystemOptions& options)
      : drive_(drive), options_(options) {}

  /// The table for fuse_session_new, whose user data is the FileSystem.
  static const fuse_lowlevel_ops& Operations();

  /// As stat shows an item.
  struct stat Stat(const drive::Attributes& attributes) const;

  drive::Drive& drive() { return drive_; }

  /// Whether what the kernel keeps of the file's content is of this version; notes that it is
  /// from now on.
  bool KeepsCache(drive::ItemNumber number, std::int64_t version);

  /// The drive's space, asked for at most once a minute.
  drive::Space Space(std::stop_token stop);

 private:
  drive::Drive& drive_;
  const FileSystemOptions options_;
  std::mutex mutex_;
  std::map<drive::ItemNumber, std::int64_t> versions_;  ///< guarded by mutex_
  drive::Space space_;                                  ///< guarded by mutex_
  std::chrono::steady_clock::time_point space_time_;    ///< guarded by mutex_
};

}  // namespace mounted
