#include "mount/file_system.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <linux/falloc.h>
#include <linux/fs.h>

#include "mount/errno_table.h"

namespace mounted {
namespace {

constexpr blksize_t kBlockBytes = 4096;
constexpr std::chrono::seconds kSpaceLife{60};
/// So much of a copy is done for one request: the program can be interrupted between two.
constexpr std::size_t kCopyBytes = std::size_t{16} << 20;

constexpr std::string_view kId = "user.onedrive4b.id";
constexpr std::string_view kEtag = "user.onedrive4b.etag";
constexpr std::string_view kState = "user.onedrive4b.state";

timespec TimespecOf(drive::FileTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {.tv_sec = static_cast<time_t>(seconds.time_since_epoch().count()),
          .tv_nsec = static_cast<long>((time - seconds).count())};
}

drive::FileTime TimeOf(const timespec& time) {
  return drive::FileTime(std::chrono::seconds(time.tv_sec) +
                         std::chrono::nanoseconds(time.tv_nsec));
}

drive::FileTime Now() {
  return std::chrono::time_point_cast<drive::FileTime::duration>(std::chrono::system_clock::now());
}

bool IsExecutable(mode_t mode) { return (mode & S_IXUSR) != 0; }

}  // namespace

FileSystem::~FileSystem() {
  while (const std::unique_ptr<FileHandle> handle = files_.TakeAny()) Close(*handle);
}

// Attributes. ---------------------------------------------------------------------------------

struct stat FileSystem::StatOf(const drive::Attributes& attributes) const {
  const bool folder = attributes.kind != drive::Kind::kFile;
  mode_t mode = folder ? 0777 : 0666;
  if (attributes.executable) mode |= 0111;
  mode &= ~options_.umask;
  if (!attributes.writable) mode &= ~mode_t{0222};
  struct stat out = {};
  out.st_ino = InodeOf(attributes.number);
  out.st_mode = mode | (folder ? S_IFDIR : S_IFREG);
  // Folders have 1, as on other file systems that do not count them: "find" relies on it.
  out.st_nlink = 1;
  out.st_uid = options_.owner;
  out.st_gid = options_.group;
  out.st_size = attributes.size;
  out.st_blksize = kBlockBytes;
  out.st_blocks = (attributes.size + 511) / 512;
  out.st_mtim = out.st_atim = TimespecOf(attributes.modified);
  out.st_ctim = TimespecOf(attributes.changed);
  return out;
}

struct stat FileSystem::GetAttributes(fuse_ino_t inode) const {
  const drive::ItemNumber number = NumberOf(inode);
  struct stat out = StatOf(drive_.Get(number));
  if (drive_.PlaceOf(number).parent == 0) out.st_nlink = 0;
  return out;
}

void FileSystem::CheckAccess(fuse_ino_t inode, int mask) const {
  const mode_t owner = StatOf(drive_.Get(NumberOf(inode))).st_mode >> 6U;
  if ((static_cast<mode_t>(mask) & ~owner & 7U) != 0) throw Refusal(EACCES);
}

struct stat FileSystem::SetAttributes(fuse_ino_t inode, const struct stat& wanted, int which,
                                      std::stop_token stop) {
  if (((which & FUSE_SET_ATTR_UID) != 0 && wanted.st_uid != options_.owner) ||
      ((which & FUSE_SET_ATTR_GID) != 0 && wanted.st_gid != options_.group)) {
    throw Refusal(EPERM);
  }
  drive::AttributeChange change;
  if ((which & FUSE_SET_ATTR_MODE) != 0) change.executable = IsExecutable(wanted.st_mode);
  if ((which & FUSE_SET_ATTR_SIZE) != 0) change.size = wanted.st_size;
  if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) {
    change.modified = Now();
  } else if ((which & FUSE_SET_ATTR_MTIME) != 0) {
    change.modified = TimeOf(wanted.st_mtim);
  }
  if (!change.executable && !change.size && !change.modified) return GetAttributes(inode);
  const struct stat result = StatOf(drive_.Set(NumberOf(inode), change, std::move(stop)));
  if (IsOtherSpelling(inode)) notifier_.SizeChanged(NumberOf(inode));
  return result;
}

double FileSystem::TimeoutOf(fuse_ino_t inode) const {
  if (IsOtherSpelling(inode)) return 0;
  return static_cast<double>(options_.timeout.count());
}

/// What the service said at most a minute ago; else what it said last.
drive::Space FileSystem::AskSpace(std::stop_token stop) {
  {
    const std::lock_guard lock(space_mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (space_asked_ && now - *space_asked_ < kSpaceLife) return space_;
    space_asked_ = now;
  }
  std::optional<drive::Space> answer;
  try {
    answer = drive_.SpaceOf(std::move(stop));
  } catch (const drive::Error&) {
    // "df" shows what was known last.
  }
  const std::lock_guard lock(space_mutex_);
  if (answer) space_ = *answer;
  return space_;
}

struct statvfs FileSystem::GetSpace(std::stop_token stop) {
  const drive::Space space = AskSpace(std::move(stop));
  const std::uint64_t used = std::min(space.used, space.total);
  struct statvfs out = {};
  out.f_bsize = out.f_frsize = static_cast<unsigned long>(kBlockBytes);
  out.f_blocks = space.total / out.f_frsize;
  out.f_bfree = out.f_bavail = (space.total - used) / out.f_frsize;
  // Items are not limited.
  out.f_files = out.f_ffree = out.f_favail = 1U << 30U;
  out.f_namemax = 255;
  return out;
}

std::string FileSystem::GetExtended(fuse_ino_t inode, const char* name) const {
  if (!std::string_view(name).starts_with("user.onedrive4b.")) throw Refusal(ENODATA);
  const drive::RemoteState state = drive_.StateOf(NumberOf(inode));
  std::string value = name == kId      ? state.id
                      : name == kEtag  ? state.etag
                      : name == kState ? state.state
                                       : "";
  if (value.empty()) throw Refusal(ENODATA);
  return value;
}

std::string FileSystem::ListExtended(fuse_ino_t inode) const {
  const drive::RemoteState state = drive_.StateOf(NumberOf(inode));
  std::string names;
  const auto add = [&](std::string_view name, const std::string& value) {
    if (!value.empty()) names.append(name).push_back('\0');
  };
  add(kId, state.id);
  add(kEtag, state.etag);
  add(kState, state.state);
  return names;
}

// Names. --------------------------------------------------------------------------------------

fuse_entry_param FileSystem::Give(fuse_ino_t inode, const drive::Attributes& attributes) {
  fuse_entry_param entry = {};
  entry.ino = inode;
  entry.attr = StatOf(attributes);
  entry.attr_timeout = entry.entry_timeout = TimeoutOf(inode);
  inodes_.Remember(inode);
  return entry;
}

fuse_entry_param FileSystem::Lookup(fuse_ino_t folder, const char* name, std::stop_token stop) {
  const drive::Attributes found = drive_.Lookup(NumberOf(folder), name, std::move(stop));
  const bool kept = drive_.PlaceOf(found.number).name == name;
  return Give(InodeOf(found.number) | (kept ? 0 : kOtherSpelling), found);
}

fuse_entry_param FileSystem::MakeFolder(fuse_ino_t folder, const char* name, std::stop_token stop) {
  const drive::Attributes made = drive_.MakeFolder(NumberOf(folder), name, std::move(stop));
  return Give(InodeOf(made.number), made);
}

fuse_entry_param FileSystem::MakeNode(fuse_ino_t folder, const char* name, mode_t mode,
                                      std::stop_token stop) {
  if (!S_ISREG(mode)) throw Refusal(EPERM);
  const drive::Attributes made =
      drive_.MakeFile(NumberOf(folder), name, IsExecutable(mode), std::move(stop));
  return Give(InodeOf(made.number), made);
}

/// The kernel knows that `name` is no longer what it was, but not that `kept` was the same entry.
void FileSystem::ForgetSpelling(drive::ItemNumber folder, const std::string& kept,
                                const char* name) {
  if (!kept.empty() && kept != name) notifier_.EntryChanged(folder, kept);
}

void FileSystem::RemoveFile(fuse_ino_t folder, const char* name, std::stop_token stop) {
  const drive::ItemNumber number = NumberOf(folder);
  const std::string kept = drive_.KeptName(number, name);
  drive_.RemoveFile(number, name, std::move(stop));
  ForgetSpelling(number, kept, name);
}

void FileSystem::RemoveFolder(fuse_ino_t folder, const char* name, std::stop_token stop) {
  const drive::ItemNumber number = NumberOf(folder);
  const std::string kept = drive_.KeptName(number, name);
  drive_.RemoveFolder(number, name, std::move(stop));
  ForgetSpelling(number, kept, name);
}

void FileSystem::Rename(const Move& move, std::stop_token stop) {
  if ((move.flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) throw Refusal(EINVAL);
  const drive::ItemNumber from = NumberOf(move.from_folder);
  const drive::ItemNumber to = NumberOf(move.to_folder);
  const std::string kept_from = drive_.KeptName(from, move.from);
  const std::string kept_to = drive_.KeptName(to, move.to);
  drive_.Rename(from, move.from, to, move.to, (move.flags & RENAME_NOREPLACE) != 0,
                std::move(stop));
  ForgetSpelling(from, kept_from, move.from);
  ForgetSpelling(to, kept_to, move.to);
}

// Files. --------------------------------------------------------------------------------------

void FileSystem::AddHandle(fuse_ino_t inode, std::shared_ptr<drive::OpenFile> file,
                           fuse_file_info& info) {
  auto handle = std::make_unique<FileHandle>();
  handle->inode = inode;
  handle->caching = inodes_.Open(inode, file->version);
  handle->file = std::move(file);
  info.keep_cache = handle->caching == Caching::kKeep;
  info.direct_io = handle->caching == Caching::kBypass;
  info.fh = files_.Add(std::move(handle));
}

void FileSystem::Open(fuse_ino_t inode, fuse_file_info& info, std::stop_token stop) {
  const bool write = (info.flags & O_ACCMODE) != O_RDONLY;
  const drive::OpenMode mode{.write = write, .truncate = write && (info.flags & O_TRUNC) != 0};
  AddHandle(inode, drive_.Open(NumberOf(inode), mode, std::move(stop)), info);
  if (mode.truncate && IsOtherSpelling(inode)) notifier_.SizeChanged(NumberOf(inode));
}

fuse_entry_param FileSystem::Create(fuse_ino_t folder, const char* name, mode_t mode,
                                    fuse_file_info& info, std::stop_token stop) {
  const drive::ItemNumber number = NumberOf(folder);
  fuse_entry_param entry = {};
  try {
    const drive::Attributes made = drive_.MakeFile(number, name, IsExecutable(mode), stop);
    entry = Give(InodeOf(made.number), made);
  } catch (const drive::Error& error) {
    // The file came to be since the kernel looked for it.
    if (error.reason() != drive::Reason::kExists || (info.flags & O_EXCL) != 0) throw;
    entry = Lookup(folder, name, stop);
  }
  try {
    Open(entry.ino, info, std::move(stop));
  } catch (...) {
    inodes_.Forget(entry.ino, 1);
    throw;
  }
  return entry;
}

std::size_t FileSystem::Read(const fuse_file_info& info, off_t offset, std::span<char> to,
                             std::stop_token stop) {
  return drive_.Read(*files_.At(info.fh).file, offset, to, std::move(stop));
}

void FileSystem::Write(const fuse_file_info& info, off_t offset, std::span<const char> data,
                       std::stop_token stop) {
  const FileHandle& handle = files_.At(info.fh);
  drive_.Write(*handle.file, offset, data, std::move(stop));
  if (IsOtherSpelling(handle.inode)) notifier_.SizeChanged(handle.file->number);
  // What was written around the kernel's cache is not in the pages that it has of the file.
  if (handle.caching == Caching::kBypass) notifier_.FileChanged(handle.file->number);
}

void FileSystem::Allocate(const fuse_file_info& info, int mode, off_t offset, off_t length,
                          std::stop_token stop) {
  if ((mode & ~FALLOC_FL_KEEP_SIZE) != 0) throw Refusal(EOPNOTSUPP);
  drive_.Allocate(*files_.At(info.fh).file, offset, length, mode != 0, std::move(stop));
}

std::size_t FileSystem::CopyRange(const Copy& copy, std::stop_token stop) {
  drive::OpenFile& from = *files_.At(copy.from.fh).file;
  drive::OpenFile& to = *files_.At(copy.to.fh).file;
  const std::size_t length = std::min(copy.length, kCopyBytes);
  std::vector<char> buffer(std::min<std::size_t>(length, 1 << 20));
  std::size_t done = 0;
  while (done < length) {
    const auto at = static_cast<off_t>(done);
    const auto piece = std::span(buffer).first(std::min(buffer.size(), length - done));
    const std::size_t got = drive_.Read(from, copy.from_offset + at, piece, stop);
    if (got == 0) break;
    drive_.Write(to, copy.to_offset + at, piece.first(got), stop);
    done += got;
  }
  return done;
}

void FileSystem::Flush(const fuse_file_info& info) { drive_.Flush(*files_.At(info.fh).file); }

void FileSystem::Sync(const fuse_file_info& info) { drive_.SyncFile(*files_.At(info.fh).file); }

void FileSystem::Release(const fuse_file_info& info) noexcept {
  if (const std::unique_ptr<FileHandle> handle = files_.Take(info.fh)) Close(*handle);
}

void FileSystem::Close(FileHandle& handle) noexcept {
  inodes_.Close(handle.inode, handle.caching);
  try {
    drive_.Close(*handle.file);
  } catch (const drive::Error&) {
    // Nobody is there to be told; size and content are found in the local copy at the next start.
  }
}

// Folders. ------------------------------------------------------------------------------------

void FileSystem::OpenFolder(fuse_ino_t inode, fuse_file_info& info, std::stop_token stop) {
  auto handle = std::make_unique<FolderHandle>();
  handle->number = NumberOf(inode);
  handle->entries = drive_.List(handle->number, std::move(stop));
  info.fh = folders_.Add(std::move(handle));
}

FileSystem::Listing FileSystem::ReadFolder(fuse_req_t request, const fuse_file_info& info,
                                           off_t offset, std::size_t size, bool plus,
                                           std::stop_token stop) {
  FolderHandle& folder = folders_.At(info.fh);
  const std::lock_guard lock(folder.mutex);
  if (offset == 0 && !folder.fresh) folder.entries = drive_.List(folder.number, std::move(stop));
  folder.fresh = false;
  Listing listing;
  listing.buffer.resize(size);
  std::size_t used = 0;
  for (off_t at = offset; at < std::ssize(folder.entries) + 2; ++at) {
    const auto rest = std::span(listing.buffer).subspan(used);
    fuse_ino_t given = 0;
    const std::size_t needed = AddEntry(request, folder, at, plus, rest, given);
    if (needed > rest.size()) break;
    if (given != 0) listing.given.push_back(given);
    used += needed;
  }
  listing.buffer.resize(used);
  return listing;
}

/// The bytes that the entry needs; it is written when they are there. Entries 0 and 1 are the
/// folder itself and the one above it.
std::size_t FileSystem::AddEntry(fuse_req_t request, const FolderHandle& folder, off_t offset,
                                 bool plus, std::span<char> to, fuse_ino_t& given) {
  static constexpr std::array<const char*, 2> kDots = {".", ".."};
  const auto index = static_cast<std::size_t>(offset);
  const drive::Entry* entry = index < kDots.size() ? nullptr : &folder.entries[index - 2];
  const char* name = entry != nullptr ? entry->name.c_str() : kDots[index];
  fuse_entry_param param = {};
  param.attr.st_mode = S_IFDIR;
  param.attr.st_ino = InodeOf(folder.number);
  if (index == 1) param.attr.st_ino = InodeOf(drive_.PlaceOf(folder.number).parent);
  if (entry != nullptr) param.attr = StatOf(entry->attributes);
  if (!plus) {
    return fuse_add_direntry(request, to.data(), to.size(), name, &param.attr, offset + 1);
  }
  if (fuse_add_direntry_plus(request, nullptr, 0, name, &param, 0) <= to.size() && entry) {
    try {
      // As it is now: the kernel would believe an old size.
      param = Give(param.attr.st_ino, drive_.Get(entry->attributes.number));
      given = param.ino;
    } catch (const drive::Error&) {
      // It is gone: without an inode the name is shown and nothing cached.
    }
  }
  return fuse_add_direntry_plus(request, to.data(), to.size(), name, &param, offset + 1);
}

}  // namespace mounted
