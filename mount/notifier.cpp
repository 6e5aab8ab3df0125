#include "mount/notifier.h"

#include <utility>

namespace mounted {

void Notifier::Start(fuse_session* session) {
  session_ = session;
  const std::lock_guard lock(mutex_);
  running_ = true;
  thread_ = std::thread([this] { Run(); });
}

void Notifier::Stop() {
  {
    const std::lock_guard lock(mutex_);
    running_ = false;
    notes_.clear();
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void Notifier::EntryChanged(drive::ItemNumber folder, const std::string& name) {
  Take({.folder = InodeOf(folder), .name = name});
}

void Notifier::EntryGone(drive::ItemNumber folder, const std::string& name,
                         drive::ItemNumber number) {
  Take({.folder = InodeOf(folder), .name = name, .inode = InodeOf(number)});
}

void Notifier::FileChanged(drive::ItemNumber number) { Take({.inode = InodeOf(number)}); }

void Notifier::SizeChanged(drive::ItemNumber number) const {
  constexpr off_t kAttributesAlone = -1;
  const fuse_ino_t inode = InodeOf(number);
  if (session_ == nullptr || !inodes_.IsKnown(inode)) return;
  fuse_lowlevel_notify_inval_inode(session_, inode, kAttributesAlone, 0);
}

void Notifier::Take(Note note) {
  const std::lock_guard lock(mutex_);
  if (!running_) return;
  notes_.push_back(std::move(note));
  changed_.notify_all();
}

void Notifier::Run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return !running_ || !notes_.empty(); });
    if (!running_) return;
    const Note note = std::move(notes_.front());
    notes_.pop_front();
    // A listing makes many notes of one folder; the folder itself is told of once.
    const bool last = notes_.empty() || notes_.front().folder != note.folder;
    lock.unlock();
    Tell(note, last);
    lock.lock();
  }
}

/// Failures mean that the kernel has nothing cached, or has ended the session.
void Notifier::Tell(const Note& note, bool last) const {
  if (note.folder == 0) {
    for (const fuse_ino_t inode : {note.inode, note.inode | kOtherSpelling}) {
      if (inodes_.IsKnown(inode)) fuse_lowlevel_notify_inval_inode(session_, inode, 0, 0);
    }
    return;
  }
  for (const fuse_ino_t folder : {note.folder, note.folder | kOtherSpelling}) {
    if (!inodes_.IsKnown(folder)) continue;
    const char* name = note.name.c_str();
    const std::size_t length = note.name.size();
    if (note.inode != 0 && inodes_.IsKnown(note.inode)) {
      fuse_lowlevel_notify_delete(session_, folder, note.inode, name, length);
    }
    fuse_lowlevel_notify_inval_entry(session_, folder, name, length);
    if (last) fuse_lowlevel_notify_inval_inode(session_, folder, 0, 0);
  }
}

}  // namespace mounted
