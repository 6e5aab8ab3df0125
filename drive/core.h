// Core: what all parts of the drive share, and the one lock that guards it.
//
// Lock order: Core::mutex, then Content::data. The lock is never held during a request to the
// service, nor while a file is copied.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "drive/answers.h"
#include "drive/catalog.h"
#include "drive/connection.h"
#include "drive/copy_store.h"
#include "drive/drive.h"
#include "drive/pace.h"

namespace drive {

using Lock = std::unique_lock<std::mutex>;

class Contents;

struct Core {
  Core(DriveOptions drive_options, const DriveParts& parts);

  /// The error that an operation ends with when a request of its own failed.
  static Error ErrorOf(const RemoteError& failure);

  /// Notes how a request ended. The lock must be held.
  void Answered();
  void Failed(const RemoteError& failure);

  /// Waits until `done`; throws kInterrupted once the token is raised, kUnreachable when the
  /// patience is over. `done` runs with the lock held.
  void WaitFor(Lock& lock, std::stop_token stop, const std::function<bool()>& done);

  /// `to` took over what the service has of `from`: so the answers that `from` waits for are its.
  void PassAnswers(ItemNumber from, ItemNumber to);

  /// Path below the top, "/" first, for people and for the length limit.
  std::string PathOf(const Place& place);

  /// A place in `folder` for a conflict copy of `name` where nothing stands, here or at the
  /// service.
  Place FreeConflictPlace(ItemNumber folder, const std::string& name);

  const DriveOptions options;
  Remote& remote;
  Work& work;
  const Clock& clock;
  Watcher& watcher;

  std::mutex mutex;
  Catalog catalog;
  CopyStore copies;
  Answers answers;
  Connection connection;
  Pace pace;
  std::multiset<ItemNumber> busy;  ///< items that a change is being sent of
  /// Whose the answer to a step is, where another item took over what the service has of the step's
  /// item meanwhile. Such an owner is busy, too.
  std::map<ItemNumber, ItemNumber> heirs;
  Contents* contents = nullptr;
  /// Has the service asked for an item that may not be what the catalog says. Needs the lock.
  std::function<void(ItemNumber)> suspect;
  bool stopping = false;  ///< nothing new may go to the service
};

/// One transaction of the catalog, with what the watcher is to be told after it. The lock must be
/// held from its making to its end. Without Commit, nothing has happened.
class Change {
 public:
  explicit Change(Core& core) : core_(core) { core_.catalog.Begin(); }
  ~Change() {
    if (!committed_) core_.catalog.Rollback();
  }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;

  Catalog& catalog() { return core_.catalog; }
  Core& core() { return core_; }

  /// After the commit: for what is not in the catalog.
  void Then(std::function<void()> action) { then_.push_back(std::move(action)); }
  void EntryChanged(const Place& place);
  void EntryGone(const Place& place, ItemNumber number);
  void FileChanged(ItemNumber number);

  void Commit();

 private:
  Core& core_;
  bool committed_ = false;
  std::vector<std::function<void()>> then_;
};

}  // namespace drive
