// Notifier: tells the kernel what changed without its doing, so that it drops what it cached.
//
// The kernel may hold a folder's lock while it waits for an answer of ours, and a notification
// waits for that lock: so notes are written by a thread of their own, never while a request
// is answered, and never with a lock of ours held.
//
// Threads: notes may be taken from any thread, with any lock held; Start and Stop by the owner.
// Lifetime: `inodes` must outlive it, the session must last from Start to Stop. Stop must be called
// while requests are still answered: a notification may wait for an answer.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "drive/watcher.h"
#include "mount/fuse.h"
#include "mount/inodes.h"

namespace mounted {

class Notifier final : public drive::Watcher {
 public:
  explicit Notifier(const Inodes& inodes) : inodes_(inodes) {}
  ~Notifier() override { Stop(); }

  /// Notes that were taken before are dropped: the kernel has cached nothing yet.
  void Start(fuse_session* session);
  void Stop();

  void EntryChanged(drive::ItemNumber folder, const std::string& name) override;
  void EntryGone(drive::ItemNumber folder, const std::string& name,
                 drive::ItemNumber number) override;
  void FileChanged(drive::ItemNumber number) override;

  /// The file was changed through its inode of another spelling: the size that the kernel knows of
  /// the other inode is dropped before this returns, so that whoever reads next sees the change.
  /// May be called while a request is answered: attributes alone are dropped without any lock.
  void SizeChanged(drive::ItemNumber number) const;

 private:
  struct Note {
    fuse_ino_t folder = 0;  ///< 0: about the file `inode` itself
    std::string name = {};
    fuse_ino_t inode = 0;  ///< with a folder: what is gone; 0: only the name changed
  };

  void Take(Note note);
  void Run();
  void Tell(const Note& note, bool last) const;

  const Inodes& inodes_;
  fuse_session* session_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Note> notes_;
  bool running_ = false;
  std::thread thread_;
};

}  // namespace mounted
