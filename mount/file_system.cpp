#include "mount/file_system.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>

#include "mount/errno_table.h"

namespace mounted {
namespace {

/// The kernel is told when others change something; this is how long it goes without being told
/// when nobody looks at a folder. In seconds.
constexpr double kCacheTime = 30;

FileSystem& Of(fuse_req_t request) { return *static_cast<FileSystem*>(fuse_req_userdata(request)); }

drive::Drive& DriveOf(fuse_req_t request) { return Of(request).drive(); }

drive::ItemNumber Number(fuse_ino_t inode) { return static_cast<drive::ItemNumber>(inode); }

/// Raised when the program that waits for the request is interrupted.
class Interrupt {
 public:
  explicit Interrupt(fuse_req_t request) : request_(request) {
    fuse_req_interrupt_func(
        request,
        [](fuse_req_t, void* self) { static_cast<Interrupt*>(self)->source_.request_stop(); },
        this);
  }
  ~Interrupt() { Forget(); }
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  std::stop_token token() const { return source_.get_token(); }

  /// Before the answer: after it the request is no longer ours.
  void Forget() {
    if (request_ != nullptr) fuse_req_interrupt_func(request_, nullptr, nullptr);
    request_ = nullptr;
  }

 private:
  fuse_req_t request_;
  std::stop_source source_;
};

/// Runs the work of a request, then its answer; what the work throws is the answer instead.
template <class Work, class Answer>
void Handle(fuse_req_t request, const Work& work, const Answer& answer) noexcept {
  int error = EIO;
  try {
    Interrupt interrupt(request);
    auto result = work(interrupt.token());
    interrupt.Forget();
    answer(result);
    return;
  } catch (const drive::Error& failure) {
    error = ErrnoOf(failure.reason());
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  } catch (const std::exception&) {
    error = EIO;
  }
  fuse_reply_err(request, error);
}

/// The same for requests without a result.
template <class Work>
void HandlePlain(fuse_req_t request, const Work& work) noexcept {
  Handle(
      request,
      [&](std::stop_token stop) {
        work(std::move(stop));
        return 0;
      },
      [&](int) { fuse_reply_err(request, 0); });
}

fuse_entry_param EntryOf(FileSystem& system, const drive::Attributes& attributes) {
  fuse_entry_param entry{};
  entry.ino = static_cast<fuse_ino_t>(attributes.number);
  entry.attr = system.Stat(attributes);
  entry.attr_timeout = entry.entry_timeout = kCacheTime;
  return entry;
}

void ReplyEntry(fuse_req_t request, const drive::Attributes& attributes) {
  const fuse_entry_param entry = EntryOf(Of(request), attributes);
  fuse_reply_entry(request, &entry);
}

// What the kernel's handles point to.

struct FileHandle {
  std::shared_ptr<drive::OpenFile> file;
};

struct FolderHandle {
  std::vector<drive::Entry> entries;
  drive::ItemNumber number = 0;
  drive::ItemNumber parent = 0;
};

/// What a handle of the kernel points to: libfuse keeps pointers as numbers.
template <class Pointee>
Pointee* PointerOf(const fuse_file_info* info) {
  return reinterpret_cast<Pointee*>(info->fh);  // NOLINT(performance-no-int-to-ptr)
}

drive::OpenFile& FileOf(const fuse_file_info* info) { return *PointerOf<FileHandle>(info)->file; }

void SetHandle(FileSystem& system, fuse_file_info* info, std::shared_ptr<drive::OpenFile> file) {
  info->keep_cache = system.KeepsCache(file->number, file->version);
  info->fh = reinterpret_cast<std::uint64_t>(new FileHandle{std::move(file)});
}

// Names. --------------------------------------------------------------------------------------

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Handle(
      request,
      [&](std::stop_token stop) {
        return DriveOf(request).Lookup(Number(folder), name, std::move(stop));
      },
      [&](const drive::Attributes& found) { ReplyEntry(request, found); });
}

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
  Handle(
      request, [&](std::stop_token) { return DriveOf(request).Get(Number(inode)); },
      [&](const drive::Attributes& found) {
        const struct stat status = Of(request).Stat(found);
        fuse_reply_attr(request, &status, kCacheTime);
      });
}

drive::FileTime ToTime(const timespec& time) {
  return drive::FileTime(std::chrono::seconds(time.tv_sec) +
                         std::chrono::nanoseconds(time.tv_nsec));
}

drive::AttributeChange ChangeOf(fuse_req_t request, const struct stat& status, int which) {
  // The owner is who mounted. Asking for what is so already is no change.
  const fuse_ctx* context = fuse_req_ctx(request);
  const bool other_owner =
      ((which & FUSE_SET_ATTR_UID) != 0 && status.st_uid != context->uid) ||
      ((which & FUSE_SET_ATTR_GID) != 0 && context->uid != 0 && status.st_gid != context->gid);
  if (other_owner && context->uid != 0) {
    throw drive::Error(drive::Reason::kDenied, "files belong to who mounted");
  }
  drive::AttributeChange change;
  if ((which & FUSE_SET_ATTR_SIZE) != 0) change.size = status.st_size;
  if ((which & FUSE_SET_ATTR_MODE) != 0) change.executable = (status.st_mode & S_IXUSR) != 0;
  if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) {
    change.modified = drive::SystemClock().Now();
  } else if ((which & FUSE_SET_ATTR_MTIME) != 0) {
    change.modified = ToTime(status.st_mtim);
  }
  return change;
}

void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat* status, int which,
                   fuse_file_info*) {
  Handle(
      request,
      [&](std::stop_token stop) {
        return DriveOf(request).Set(Number(inode), ChangeOf(request, *status, which),
                                    std::move(stop));
      },
      [&](const drive::Attributes& now) {
        const struct stat shown = Of(request).Stat(now);
        fuse_reply_attr(request, &shown, kCacheTime);
      });
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t) {
  Handle(
      request,
      [&](std::stop_token stop) {
        return DriveOf(request).MakeFolder(Number(folder), name, std::move(stop));
      },
      [&](const drive::Attributes& made) { ReplyEntry(request, made); });
}

void MakeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t) {
  if (!S_ISREG(mode)) {
    fuse_reply_err(request, EPERM);  // the service has files and folders only
    return;
  }
  Handle(
      request,
      [&](std::stop_token stop) {
        return DriveOf(request).MakeFile(Number(folder), name, (mode & S_IXUSR) != 0,
                                         std::move(stop));
      },
      [&](const drive::Attributes& made) { ReplyEntry(request, made); });
}

void RemoveFile(fuse_req_t request, fuse_ino_t folder, const char* name) {
  HandlePlain(request, [&](std::stop_token stop) {
    DriveOf(request).RemoveFile(Number(folder), name, std::move(stop));
  });
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  HandlePlain(request, [&](std::stop_token stop) {
    DriveOf(request).RemoveFolder(Number(folder), name, std::move(stop));
  });
}

void Rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t new_folder,
            const char* new_name, unsigned flags) {
  if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) {
    fuse_reply_err(request, EINVAL);
    return;
  }
  HandlePlain(request, [&](std::stop_token stop) {
    DriveOf(request).Rename(Number(folder), name, Number(new_folder), new_name,
                            (flags & RENAME_NOREPLACE) != 0, std::move(stop));
  });
}

void RefuseLink(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) {
  fuse_reply_err(request, EPERM);
}

void RefuseSymbolicLink(fuse_req_t request, const char*, fuse_ino_t, const char*) {
  fuse_reply_err(request, EPERM);
}

// Folders. ------------------------------------------------------------------------------------

void OpenFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  Handle(
      request,
      [&](std::stop_token stop) {
        drive::Drive& drive = DriveOf(request);
        auto folder = std::make_unique<FolderHandle>();
        folder->number = Number(inode);
        folder->entries = drive.List(folder->number, std::move(stop));
        folder->parent = drive.Parent(folder->number);
        return folder;
      },
      [&](std::unique_ptr<FolderHandle>& folder) {
        info->fh = reinterpret_cast<std::uint64_t>(folder.get());
        if (fuse_reply_open(request, info) == 0) static_cast<void>(folder.release());
      });
}

/// Offsets count entries: 0 and 1 are "." and "..".
template <class Add>
void ReadEntries(fuse_req_t request, std::size_t size, off_t offset, fuse_file_info* info,
                 const Add& add) {
  const auto& folder = *PointerOf<const FolderHandle>(info);
  std::vector<char> buffer(size);
  std::size_t used = 0;
  const auto count = static_cast<off_t>(folder.entries.size()) + 2;
  for (off_t at = offset; at < count; ++at) {
    const drive::Entry* entry =
        at < 2 ? nullptr : &folder.entries[static_cast<std::size_t>(at) - 2];
    const std::size_t needed = add(folder, entry, at, buffer.data() + used, size - used);
    if (needed > size - used) break;
    used += needed;
  }
  fuse_reply_buf(request, buffer.data(), used);
}

const char* NameOf(const drive::Entry* entry, off_t at) {
  if (entry != nullptr) return entry->name.c_str();
  return at == 0 ? "." : "..";
}

struct stat ShortStat(const FolderHandle& folder, const drive::Entry* entry, off_t at) {
  struct stat status = {};
  const drive::ItemNumber number =
      entry != nullptr ? entry->attributes.number : (at == 0 ? folder.number : folder.parent);
  const bool is_file = entry != nullptr && entry->attributes.kind == drive::Kind::kFile;
  status.st_ino = static_cast<ino_t>(number);
  status.st_mode = is_file ? S_IFREG : S_IFDIR;
  return status;
}

void ReadFolder(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
                fuse_file_info* info) {
  ReadEntries(request, size, offset, info,
              [&](const FolderHandle& folder, const drive::Entry* entry, off_t at, char* to,
                  std::size_t room) {
                const struct stat status = ShortStat(folder, entry, at);
                return fuse_add_direntry(request, to, room, NameOf(entry, at), &status, at + 1);
              });
}

void ReadFolderPlus(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
                    fuse_file_info* info) {
  ReadEntries(request, size, offset, info,
              [&](const FolderHandle& folder, const drive::Entry* entry, off_t at, char* to,
                  std::size_t room) {
                fuse_entry_param param{};
                if (entry != nullptr) {
                  param = EntryOf(Of(request), entry->attributes);
                } else {
                  param.attr = ShortStat(folder, entry, at);
                }
                return fuse_add_direntry_plus(request, to, room, NameOf(entry, at), &param, at + 1);
              });
}

void CloseFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  delete PointerOf<FolderHandle>(info);
  fuse_reply_err(request, 0);
}

void SyncFolder(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
  HandlePlain(request, [&](std::stop_token) { DriveOf(request).SyncNames(); });
}

// Files. --------------------------------------------------------------------------------------

drive::OpenMode ModeOf(int flags) {
  return {.write = (flags & O_ACCMODE) != O_RDONLY,
          .truncate = (flags & O_TRUNC) != 0 && (flags & O_ACCMODE) != O_RDONLY};
}

void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  Handle(
      request,
      [&](std::stop_token stop) {
        return DriveOf(request).Open(Number(inode), ModeOf(info->flags), std::move(stop));
      },
      [&](const std::shared_ptr<drive::OpenFile>& file) {
        SetHandle(Of(request), info, file);
        if (fuse_reply_open(request, info) != 0) {  // whoever opened it was interrupted
          DriveOf(request).Close(*file);
          delete PointerOf<FileHandle>(info);
        }
      });
}

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) {
  struct Created {
    drive::Attributes attributes;
    std::shared_ptr<drive::OpenFile> file;
  };
  Handle(
      request,
      [&](std::stop_token stop) {
        drive::Drive& drive = DriveOf(request);
        Created created;
        try {
          created.attributes = drive.MakeFile(Number(folder), name, (mode & S_IXUSR) != 0, stop);
        } catch (const drive::Error& error) {
          const bool may_exist = (info->flags & O_EXCL) == 0;
          if (error.reason() != drive::Reason::kExists || !may_exist) throw;
          created.attributes = drive.Lookup(Number(folder), name, stop);
        }
        created.file = drive.Open(created.attributes.number, ModeOf(info->flags), stop);
        created.attributes = drive.Get(created.attributes.number);
        return created;
      },
      [&](const Created& created) {
        SetHandle(Of(request), info, created.file);
        const fuse_entry_param entry = EntryOf(Of(request), created.attributes);
        if (fuse_reply_create(request, &entry, info) != 0) {
          DriveOf(request).Close(*created.file);
          delete PointerOf<FileHandle>(info);
        }
      });
}

void Read(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* info) {
  Handle(
      request,
      [&](std::stop_token stop) {
        std::vector<char> buffer(size);
        buffer.resize(DriveOf(request).Read(FileOf(info), offset, buffer, std::move(stop)));
        return buffer;
      },
      [&](const std::vector<char>& buffer) {
        fuse_reply_buf(request, buffer.data(), buffer.size());
      });
}

void Write(fuse_req_t request, fuse_ino_t, const char* data, std::size_t size, off_t offset,
           fuse_file_info* info) {
  Handle(
      request,
      [&](std::stop_token stop) {
        DriveOf(request).Write(FileOf(info), offset, {data, size}, std::move(stop));
        return size;
      },
      [&](std::size_t written) { fuse_reply_write(request, written); });
}

void Allocate(fuse_req_t request, fuse_ino_t, int mode, off_t offset, off_t length,
              fuse_file_info* info) {
  if ((mode & ~FALLOC_FL_KEEP_SIZE) != 0) {
    fuse_reply_err(request, EOPNOTSUPP);
    return;
  }
  HandlePlain(request, [&](std::stop_token stop) {
    DriveOf(request).Allocate(FileOf(info), offset, length, mode != 0, std::move(stop));
  });
}

void CopyRange(fuse_req_t request, fuse_ino_t, off_t from, fuse_file_info* from_info, fuse_ino_t,
               off_t to, fuse_file_info* to_info, std::size_t length, int) {
  Handle(
      request,
      [&](std::stop_token stop) {
        constexpr std::size_t kPiece = std::size_t{1} << 20U;
        drive::Drive& drive = DriveOf(request);
        std::vector<char> piece(std::min(length, kPiece));
        std::size_t done = 0;
        while (done < length && !stop.stop_requested()) {
          const auto at = static_cast<off_t>(done);
          const std::span<char> part(piece.data(), std::min(piece.size(), length - done));
          const std::size_t got = drive.Read(FileOf(from_info), from + at, part, stop);
          if (got == 0) break;
          drive.Write(FileOf(to_info), to + at, part.first(got), stop);
          done += got;
        }
        return done;
      },
      [&](std::size_t copied) { fuse_reply_write(request, copied); });
}

void Flush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  HandlePlain(request, [&](std::stop_token) { DriveOf(request).Flush(FileOf(info)); });
}

void SyncFile(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) {
  HandlePlain(request, [&](std::stop_token) { DriveOf(request).SyncFile(FileOf(info)); });
}

void Close(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  HandlePlain(request, [&](std::stop_token) {
    const std::unique_ptr<FileHandle> handle(PointerOf<FileHandle>(info));
    DriveOf(request).Close(*handle->file);
  });
}

// The file system as a whole. -----------------------------------------------------------------

void StatFileSystem(fuse_req_t request, fuse_ino_t) {
  Handle(
      request, [&](std::stop_token stop) { return Of(request).Space(std::move(stop)); },
      [&](const drive::Space& space) {
        struct statvfs status = {};
        status.f_bsize = status.f_frsize = 4096;
        status.f_blocks = space.total / status.f_frsize;
        status.f_bfree = status.f_bavail =
            (space.total - std::min(space.used, space.total)) / status.f_frsize;
        status.f_namemax = 255;
        fuse_reply_statfs(request, &status);
      });
}

constexpr const char* kIdAttribute = "user.onedrive4b.id";
constexpr const char* kTagAttribute = "user.onedrive4b.etag";
constexpr const char* kStateAttribute = "user.onedrive4b.state";

/// Answers with the bytes, or with how many they are when the caller has no room yet.
void ReplyAttribute(fuse_req_t request, const std::string& value, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, value.size());
  } else if (value.size() > size) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, value.data(), value.size());
  }
}

void GetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
  const std::string wanted = name;
  if (wanted != kIdAttribute && wanted != kTagAttribute && wanted != kStateAttribute) {
    fuse_reply_err(request, ENODATA);
    return;
  }
  Handle(
      request, [&](std::stop_token) { return DriveOf(request).StateOf(Number(inode)); },
      [&](const drive::RemoteState& state) {
        const std::string& value = wanted == kIdAttribute    ? state.id
                                   : wanted == kTagAttribute ? state.etag
                                                             : state.state;
        if (value.empty()) {
          fuse_reply_err(request, ENODATA);
        } else {
          ReplyAttribute(request, value, size);
        }
      });
}

void ListExtended(fuse_req_t request, fuse_ino_t inode, std::size_t size) {
  Handle(
      request, [&](std::stop_token) { return DriveOf(request).StateOf(Number(inode)); },
      [&](const drive::RemoteState& state) {
        std::string names;
        if (!state.id.empty()) names += std::string(kIdAttribute) + '\0';
        if (!state.etag.empty()) names += std::string(kTagAttribute) + '\0';
        names += std::string(kStateAttribute) + '\0';
        ReplyAttribute(request, names, size);
      });
}

void RefuseExtended(fuse_req_t request, fuse_ino_t, const char*, const char*, std::size_t, int) {
  fuse_reply_err(request, EOPNOTSUPP);
}

void Initialize(void*, fuse_conn_info* connection) {
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_WRITEBACK_CACHE);
  for (const auto wanted : {FUSE_CAP_ATOMIC_O_TRUNC, FUSE_CAP_READDIRPLUS,
                            FUSE_CAP_READDIRPLUS_AUTO, FUSE_CAP_PARALLEL_DIROPS}) {
    connection->want |= connection->capable & static_cast<unsigned>(wanted);
  }
  connection->max_readahead = 1U << 20U;
}

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops operations{};
  operations.init = Initialize;
  operations.lookup = Lookup;
  operations.getattr = GetAttributes;
  operations.setattr = SetAttributes;
  operations.mknod = MakeNode;
  operations.mkdir = MakeFolder;
  operations.unlink = RemoveFile;
  operations.rmdir = RemoveFolder;
  operations.rename = Rename;
  operations.link = RefuseLink;
  operations.symlink = RefuseSymbolicLink;
  operations.opendir = OpenFolder;
  operations.readdir = ReadFolder;
  operations.readdirplus = ReadFolderPlus;
  operations.releasedir = CloseFolder;
  operations.fsyncdir = SyncFolder;
  operations.open = Open;
  operations.create = Create;
  operations.read = Read;
  operations.write = Write;
  operations.fallocate = Allocate;
  operations.copy_file_range = CopyRange;
  operations.flush = Flush;
  operations.fsync = SyncFile;
  operations.release = Close;
  operations.statfs = StatFileSystem;
  operations.getxattr = GetExtended;
  operations.listxattr = ListExtended;
  operations.setxattr = RefuseExtended;
  return operations;
}

timespec ToTimespec(drive::FileTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {.tv_sec = seconds.time_since_epoch().count(), .tv_nsec = (time - seconds).count()};
}

}  // namespace

const fuse_lowlevel_ops& FileSystem::Operations() {
  static const fuse_lowlevel_ops operations = MakeOperations();
  return operations;
}

struct stat FileSystem::Stat(const drive::Attributes& attributes) const {
  struct stat status = {};
  const bool file = attributes.kind == drive::Kind::kFile;
  mode_t mode = file ? 0666 : 0777;
  if (file && attributes.executable) mode |= 0111;
  mode &= ~options_.umask;
  if (!attributes.writable) mode &= ~static_cast<mode_t>(0222);
  status.st_mode = mode | (file ? S_IFREG : S_IFDIR);
  status.st_ino = static_cast<ino_t>(attributes.number);
  status.st_nlink = 1;
  status.st_uid = options_.uid;
  status.st_gid = options_.gid;
  status.st_size = attributes.size;
  status.st_blksize = 4096;
  status.st_blocks = (attributes.size + 511) / 512;
  status.st_mtim = status.st_atim = ToTimespec(attributes.modified);
  status.st_ctim = ToTimespec(attributes.changed);
  return status;
}

bool FileSystem::KeepsCache(drive::ItemNumber number, std::int64_t version) {
  const std::lock_guard lock(mutex_);
  const auto [entry, fresh] = versions_.emplace(number, version);
  if (!fresh && entry->second == version) return true;
  entry->second = version;
  return false;
}

drive::Space FileSystem::Space(std::stop_token stop) {
  const auto now = std::chrono::steady_clock::now();
  {
    const std::lock_guard lock(mutex_);
    if (space_.total != 0 && now - space_time_ < std::chrono::minutes(1)) return space_;
  }
  drive::Space space;
  try {
    space = drive_.SpaceOf(std::move(stop));
  } catch (const drive::Error& error) {
    if (error.reason() == drive::Reason::kInterrupted) throw;
    const std::lock_guard lock(mutex_);
    if (space_.total != 0) return space_;
    // Programs that look for room before they write must not be stopped by an outage.
    return {.total = std::uint64_t{1} << 40U, .used = 0};
  }
  const std::lock_guard lock(mutex_);
  space_ = space;
  space_time_ = now;
  return space;
}

}  // namespace mounted
