#include "mount/mount_point.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <mntent.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/failure.h"
#include "host/text.h"

namespace mounted {
namespace {

/// What stat says of a mounted folder whose program has died.
bool IsDead(const std::string& folder) {
  struct stat found = {};
  return ::stat(folder.c_str(), &found) != 0 && (errno == ENOTCONN || errno == ECONNABORTED);
}

/// 0, or the error number. For users who may not unmount; fusermount3 may, what they mounted.
int UnmountByHelper(const std::string& folder, bool lazy) {
  std::string program = "fusermount3";
  std::string action = lazy ? "-uzq" : "-uq";
  std::string separator = "--";
  std::string path = folder;
  std::array<char*, 5> words = {program.data(), action.data(), separator.data(), path.data(),
                                nullptr};
  pid_t child = 0;
  const int error =
      ::posix_spawnp(&child, program.c_str(), nullptr, nullptr, words.data(), environ);
  if (error != 0) return error;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return errno;
  }
  // It does not say why it failed; what can be the reason is that the folder is in use.
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : EBUSY;
}

int UnmountOnce(const std::string& folder, bool lazy) {
  if (::umount2(folder.c_str(), UMOUNT_NOFOLLOW | (lazy ? MNT_DETACH : 0)) == 0) return 0;
  return errno == EPERM ? UnmountByHelper(folder, lazy) : errno;
}

}  // namespace

std::string MountPointOf(const std::string& path) {
  const std::filesystem::path absolute = std::filesystem::absolute(path).lexically_normal();
  std::error_code error;
  std::filesystem::path found = std::filesystem::canonical(absolute, error);
  // A mount that has died cannot be looked at, but its parent can.
  if (error) {
    const bool folder = absolute.filename().empty();  // a slash stands at the end
    const std::filesystem::path last = folder ? absolute.parent_path() : absolute;
    found = std::filesystem::canonical(last.parent_path(), error) / last.filename();
    if (error) found = last;
  }
  return found;
}

std::string CheckMountPoint(const std::string& path) {
  std::string folder = MountPointOf(path);
  const auto refuse = [&](const std::string& why) {
    throw host::Failure(host::FailureKind::kUsage,
                        "the mount point " + host::Quoted(path) + " " + why);
  };
  if (IsMounted(folder)) {
    if (!IsDead(folder)) refuse("is in use by another mount");
    if (const int error = UnmountOnce(folder, true); error != 0) {
      throw host::LocalFailure("end the old mount on", folder, error);
    }
  }
  std::error_code error;
  const std::filesystem::directory_iterator entries(folder, error);
  if (error) refuse("cannot be used: " + error.message());
  if (entries != std::filesystem::directory_iterator()) refuse("is not an empty folder");
  return folder;
}

bool IsMounted(const std::string& mount_point) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> table(::setmntent("/proc/self/mounts", "r"),
                                                              ::endmntent);
  if (!table) return false;
  mntent entry = {};
  std::array<char, 8192> buffer{};
  while (::getmntent_r(table.get(), &entry, buffer.data(), buffer.size()) != nullptr) {
    if (mount_point == entry.mnt_dir && std::string_view(entry.mnt_type) == "fuse.onedrive4b") {
      return true;
    }
  }
  return false;
}

void Unmount(const std::string& mount_point) {
  const int error = UnmountOnce(mount_point, IsDead(mount_point));
  if (error == EBUSY) {
    throw host::Failure(
        host::FailureKind::kLocal, host::Quoted(mount_point) + " is in use by a program",
        "'fuser -vm " + mount_point + "' shows which; 'unmount --now' does not ask");
  }
  if (error != 0) throw host::LocalFailure("unmount", mount_point, error);
}

}  // namespace mounted
