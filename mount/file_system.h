// FileSystem: what each call of a program means for the drive. operations.h brings the calls from
// the kernel and the answers back.
//
// Threads: every operation may be called from any thread. All throw drive::Error, or
// std::system_error with the error number that the program gets.
// Lifetime: what the parts name must outlive it. At its end it closes what is still open.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "drive/drive.h"
#include "mount/fuse.h"
#include "mount/handles.h"
#include "mount/inodes.h"
#include "mount/notifier.h"
#include "mount/requests.h"

namespace mounted {

struct FileSystemOptions {
  uid_t owner = 0;
  gid_t group = 0;
  mode_t umask = 022;
  /// How long the kernel may use names and attributes without asking. The drive's refresh time:
  /// what others change is told to the kernel anyway, but the drive only compares folders that it
  /// is asked about.
  std::chrono::seconds timeout{30};
};

struct FileSystemParts {
  drive::Drive& drive;
  Inodes& inodes;
  Notifier& notifier;
};

class FileSystem {
 public:
  FileSystem(const FileSystemParts& parts, const FileSystemOptions& options)
      : drive_(parts.drive), inodes_(parts.inodes), notifier_(parts.notifier), options_(options) {}
  ~FileSystem();
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  Requests& requests() noexcept { return requests_; }

  // Names. Each entry that is returned counts as given to the kernel, which forgets it one day.

  fuse_entry_param Lookup(fuse_ino_t folder, const char* name, std::stop_token stop);
  void Forget(fuse_ino_t inode, std::uint64_t count) { inodes_.Forget(inode, count); }
  fuse_entry_param MakeFolder(fuse_ino_t folder, const char* name, std::stop_token stop);
  /// Regular files only: others are EPERM.
  fuse_entry_param MakeNode(fuse_ino_t folder, const char* name, mode_t mode, std::stop_token stop);
  void RemoveFile(fuse_ino_t folder, const char* name, std::stop_token stop);
  void RemoveFolder(fuse_ino_t folder, const char* name, std::stop_token stop);

  struct Move {
    fuse_ino_t from_folder;
    const char* from;
    fuse_ino_t to_folder;
    const char* to;
    unsigned flags;  ///< of renameat2(2)
  };
  void Rename(const Move& move, std::stop_token stop);

  // Attributes.

  struct stat GetAttributes(fuse_ino_t inode) const;
  /// Throws EACCES unless the owner may do all of `mask`, as for access(2).
  void CheckAccess(fuse_ino_t inode, int mask) const;
  /// `which`: FUSE_SET_ATTR_... What cannot be kept is accepted without effect.
  struct stat SetAttributes(fuse_ino_t inode, const struct stat& wanted, int which,
                            std::stop_token stop);
  /// How long the kernel may use the attributes, in seconds.
  double TimeoutOf(fuse_ino_t inode) const;
  struct statvfs GetSpace(std::stop_token stop);
  /// Of extended attributes: the value, and the names with a NUL behind each.
  std::string GetExtended(fuse_ino_t inode, const char* name) const;
  std::string ListExtended(fuse_ino_t inode) const;

  // Open files. `info.fh` is set by Open and Create and tells the rest which opening is meant.

  void Open(fuse_ino_t inode, fuse_file_info& info, std::stop_token stop);
  fuse_entry_param Create(fuse_ino_t folder, const char* name, mode_t mode, fuse_file_info& info,
                          std::stop_token stop);
  std::size_t Read(const fuse_file_info& info, off_t offset, std::span<char> to,
                   std::stop_token stop);
  void Write(const fuse_file_info& info, off_t offset, std::span<const char> data,
             std::stop_token stop);
  /// `mode` as for fallocate(2).
  void Allocate(const fuse_file_info& info, int mode, off_t offset, off_t length,
                std::stop_token stop);

  struct Copy {
    const fuse_file_info& from;
    off_t from_offset;
    const fuse_file_info& to;
    off_t to_offset;
    std::size_t length;
  };
  /// Bytes copied, as for copy_file_range(2).
  std::size_t CopyRange(const Copy& copy, std::stop_token stop);

  void Flush(const fuse_file_info& info);
  void Sync(const fuse_file_info& info);
  /// Errors reach nobody: what there is to record was recorded by Flush.
  void Release(const fuse_file_info& info) noexcept;

  // Open folders.

  void OpenFolder(fuse_ino_t inode, fuse_file_info& info, std::stop_token stop);

  struct Listing {
    std::vector<char> buffer;
    std::vector<fuse_ino_t> given;  ///< entries that count as given to the kernel
  };
  /// Entries from `offset` on that fit into `size` bytes; with attributes when `plus` is set.
  Listing ReadFolder(fuse_req_t request, const fuse_file_info& info, off_t offset, std::size_t size,
                     bool plus, std::stop_token stop);
  void SyncNames() { drive_.SyncNames(); }
  void ReleaseFolder(const fuse_file_info& info) noexcept { folders_.Take(info.fh); }

 private:
  struct FileHandle {
    std::shared_ptr<drive::OpenFile> file;
    fuse_ino_t inode = 0;
    Caching caching = Caching::kBypass;
  };

  /// The entries as they were when the folder was opened or rewound: offsets stay valid whatever
  /// changes meanwhile.
  struct FolderHandle {
    drive::ItemNumber number = 0;
    std::mutex mutex;
    std::vector<drive::Entry> entries;
    bool fresh = true;  ///< nothing was read since they were fetched
  };

  struct stat StatOf(const drive::Attributes& attributes) const;
  drive::Space AskSpace(std::stop_token stop);
  fuse_entry_param Give(fuse_ino_t inode, const drive::Attributes& attributes);
  void ForgetSpelling(drive::ItemNumber folder, const std::string& kept, const char* name);
  void AddHandle(fuse_ino_t inode, std::shared_ptr<drive::OpenFile> file, fuse_file_info& info);
  void Close(FileHandle& handle) noexcept;
  std::size_t AddEntry(fuse_req_t request, const FolderHandle& folder, off_t offset, bool plus,
                       std::span<char> to, fuse_ino_t& given);

  drive::Drive& drive_;
  Inodes& inodes_;
  Notifier& notifier_;
  const FileSystemOptions options_;
  Requests requests_;
  Handles<FileHandle> files_;
  Handles<FolderHandle> folders_;

  std::mutex space_mutex_;
  /// Until the account's quota is known: a large number, so that nobody refuses to write.
  drive::Space space_{.total = std::uint64_t{1} << 50, .used = 0};
  std::optional<std::chrono::steady_clock::time_point> space_asked_;
};

}  // namespace mounted
