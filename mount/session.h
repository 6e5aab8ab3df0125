// Session: the file system at its mount point, from mounting to unmounting.
//
// Threads: Run serves in threads of its own and returns when the end has come; End may be called
// from any thread, also before Run.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "mount/file_system.h"
#include "mount/notifier.h"

namespace mounted {

struct SessionOptions {
  std::string mount_point;
  bool read_only = false;
  bool allow_other = false;
};

class Session {
 public:
  /// Mounts. Throws host::Failure, kLocal, when that fails; nothing is mounted then.
  Session(FileSystem& system, Notifier& notifier, const SessionOptions& options);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Serves until End, fusermount3 -u or umount.
  void Run();

  /// Unmounts and lets Run return. What still has files open gets ENOTCONN from then on.
  void End();

 private:
  struct Destroyer {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  Notifier& notifier_;
  std::unique_ptr<fuse_session, Destroyer> session_;
  std::string mount_point_;
  std::atomic<bool> mounted_{false};
};

/// Throws host::Failure, kUsage, unless the path is an empty folder that nothing is mounted on.
/// Returns its absolute form.
std::string CheckMountPoint(const std::string& path);

}  // namespace mounted
