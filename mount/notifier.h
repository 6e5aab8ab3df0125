// Notifier: tells the kernel what changed without it: its caches of entries and pages.
//
// The drive calls it with its lock held, so it only takes a note; a thread of its own calls the
// kernel, which may answer by waiting for requests of the file system.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "drive/watcher.h"

struct fuse_session;

namespace mounted {

class Notifier final : public drive::Watcher {
 public:
  Notifier() = default;
  ~Notifier() override { Stop(); }

  /// From here on notes go to the kernel. The session must live until Stop has returned.
  void Start(fuse_session* session);
  void Stop();

  void EntryChanged(drive::ItemNumber folder, const std::string& name) override;
  void EntryGone(drive::ItemNumber folder, const std::string& name,
                 drive::ItemNumber number) override;
  void FileChanged(drive::ItemNumber number) override;

 private:
  using Note = std::function<void(fuse_session*)>;

  void Add(Note note);
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Note> notes_;           ///< guarded by mutex_
  fuse_session* session_ = nullptr;  ///< guarded by mutex_
  bool ending_ = false;              ///< guarded by mutex_
  std::thread thread_;
};

}  // namespace mounted
