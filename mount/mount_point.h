// The folder that the drive is mounted on: what may be one, and how it is let go.
//
// Callable from any thread. Failures are host::Failure.
#pragma once

#include <string>

namespace mounted {

/// Detaches a mount of ours whose process has died. Throws kUsage unless the path is an empty
/// folder that nothing is mounted on then. Returns its absolute form.
std::string CheckMountPoint(const std::string& path);

/// The absolute path without links of a folder, also of one whose mount has died.
std::string MountPointOf(const std::string& path);

/// Whether a drive of ours is mounted there, served by a process or not.
bool IsMounted(const std::string& mount_point);

/// As umount(8). Throws kLocal, also when programs use the folder.
void Unmount(const std::string& mount_point);

}  // namespace mounted
