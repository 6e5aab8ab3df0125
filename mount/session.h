// Session: the file system at its mount point, from mounting to unmounting.
//
// Threads: Run serves in threads of its own and returns when the end has come; End may be called
// from any other thread, also before Run.
// Lifetime: file system and notifier must outlive it.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <pthread.h>

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
  /// Unmounts. What still has files open gets ENOTCONN from then on.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Serves until End, fusermount3 -u or umount. Called once.
  void Run();

  /// Lets Run return: what waits for the service is interrupted, what else is being answered comes
  /// to its end. Returns after that, at once when Run was not called yet.
  void End();

 private:
  struct Destroyer {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  FileSystem& system_;
  Notifier& notifier_;
  std::unique_ptr<fuse_session, Destroyer> session_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<pthread_t> runner_;  ///< guarded by mutex_
  bool ended_ = false;               ///< guarded by mutex_
};

}  // namespace mounted
