#include "mount/notifier.h"

#include <utility>

#include "mount/fuse.h"

namespace mounted {

void Notifier::Start(fuse_session* session) {
  session_ = session;
  thread_ = std::thread([this] { Run(); });
}

void Notifier::Stop() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void Notifier::Add(Note note) {
  const std::lock_guard lock(mutex_);
  if (session_ == nullptr || ending_) return;  // the kernel knows nothing yet, or no longer
  notes_.push_back(std::move(note));
  changed_.notify_one();
}

void Notifier::Run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return ending_ || !notes_.empty(); });
    if (ending_) return;
    const Note note = std::move(notes_.front());
    notes_.pop_front();
    lock.unlock();
    note(session_);
    lock.lock();
  }
}

// The results of the calls do not matter: what the kernel does not know it cannot forget.

void Notifier::EntryChanged(drive::ItemNumber folder, const std::string& name) {
  Add([folder, name](fuse_session* session) {
    fuse_lowlevel_notify_inval_entry(session, static_cast<fuse_ino_t>(folder), name.c_str(),
                                     name.size());
    fuse_lowlevel_notify_inval_inode(session, static_cast<fuse_ino_t>(folder), 0, 0);
  });
}

void Notifier::EntryGone(drive::ItemNumber folder, const std::string& name,
                         drive::ItemNumber number) {
  Add([folder, name, number](fuse_session* session) {
    const auto parent = static_cast<fuse_ino_t>(folder);
    const int result = fuse_lowlevel_notify_delete(session, parent, static_cast<fuse_ino_t>(number),
                                                   name.c_str(), name.size());
    if (result != 0) {
      fuse_lowlevel_notify_inval_entry(session, parent, name.c_str(), name.size());
    }
    fuse_lowlevel_notify_inval_inode(session, parent, 0, 0);
  });
}

void Notifier::FileChanged(drive::ItemNumber number) {
  Add([number](fuse_session* session) {
    fuse_lowlevel_notify_inval_inode(session, static_cast<fuse_ino_t>(number), 0, 0);
  });
}

}  // namespace mounted
