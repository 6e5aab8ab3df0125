#include "drive/copy_store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "base/files.h"
#include "drive/error.h"

namespace drive {

constexpr std::int64_t kFolders = 256;

[[noreturn]] void ThrowLocalError(const char* action, int error_number) {
  const bool full = error_number == ENOSPC || error_number == EDQUOT || error_number == EFBIG;
  throw Error(full ? Reason::kNoSpace : Reason::kBroken,
              std::string("cannot ") + action +
                  " a local copy: " + std::generic_category().message(error_number));
}

CopyStore::CopyStore(std::filesystem::path folder) : folder_(std::move(folder)) {
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error) ThrowLocalError("make the folder of", error.value());
}

std::filesystem::path CopyStore::PathOf(std::int64_t copy) const {
  return folder_ / std::to_string(copy % kFolders) / std::to_string(copy);
}

base::UniqueFd CopyStore::Create(std::int64_t copy) const {
  const std::filesystem::path path = PathOf(copy);
  constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC;
  base::UniqueFd fd(::open(path.c_str(), kFlags, 0600));
  if (!fd && errno == ENOENT) {
    ::mkdir(path.parent_path().c_str(), 0700);
    fd = base::UniqueFd(::open(path.c_str(), kFlags, 0600));
  }
  if (!fd) ThrowLocalError("create", errno);
  return fd;
}

base::UniqueFd CopyStore::Open(std::int64_t copy) const {
  base::UniqueFd fd(::open(PathOf(copy).c_str(), O_RDWR | O_CLOEXEC));
  if (!fd && errno != ENOENT) ThrowLocalError("open", errno);
  return fd;
}

void CopyStore::Remove(std::int64_t copy) const noexcept {
  std::error_code error;
  std::filesystem::remove(PathOf(copy), error);
}

void CopyStore::RemoveOthers(const std::vector<std::int64_t>& copies) const {
  std::error_code error;
  std::vector<std::filesystem::path> others;
  for (std::filesystem::recursive_directory_iterator at(folder_, error), end; at != end;
       at.increment(error)) {
    if (error) break;
    if (!at->is_regular_file(error)) continue;
    const std::string name = at->path().filename();
    std::int64_t copy = 0;
    std::from_chars(name.data(), name.data() + name.size(), copy);
    if (!std::binary_search(copies.begin(), copies.end(), copy)) others.push_back(at->path());
  }
  for (const std::filesystem::path& path : others) std::filesystem::remove(path, error);
}

void CopyStore::SyncNames(std::int64_t copy) const noexcept {
  base::SyncFolder(PathOf(copy).parent_path());
  base::SyncFolder(folder_);
}

std::int64_t CopyStore::FreeSpace() const noexcept {
  struct statvfs disk = {};
  if (::statvfs(folder_.c_str(), &disk) != 0) return 0;
  return static_cast<std::int64_t>(disk.f_bavail) * static_cast<std::int64_t>(disk.f_frsize);
}

void CloneFile(int from, int to) {
  if (::ioctl(to, FICLONE, from) == 0) return;
  if (::ftruncate(to, FileSize(from)) != 0) ThrowLocalError("write", errno);
  // Only what is not a hole is copied.
  off_t at = 0;
  for (;;) {
    off_t begin = ::lseek(from, at, SEEK_DATA);
    if (begin < 0 && errno == ENXIO) return;
    const off_t end = begin < 0 ? begin : ::lseek(from, begin, SEEK_HOLE);
    if (end < 0) ThrowLocalError("read", errno);
    off_t target = begin;
    while (begin < end) {
      const ssize_t done =
          ::copy_file_range(from, &begin, to, &target, static_cast<std::size_t>(end - begin), 0);
      if (done < 0 && errno != EINTR) ThrowLocalError("write", errno);
      if (done == 0) return;
    }
    at = end;
  }
}

std::int64_t AllocatedBytes(int fd) noexcept {
  struct stat status = {};
  constexpr std::int64_t kBlock = 512;  // unit of st_blocks, whatever the file system's is
  return ::fstat(fd, &status) == 0 ? status.st_blocks * kBlock : 0;
}

std::int64_t FileSize(int fd) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0) ThrowLocalError("look at", errno);
  return status.st_size;
}

}  // namespace drive
