// Sender: sends the changes. Looks at the items that have some, lets those that may go out do so, a
// few at a time, and takes the answers into the catalog.
//
// What the service refuses is noted with the item and tried again at growing intervals. What meets
// somebody else's change ends in two versions, never in one that is lost.
//
// Threads: everything needs the core's lock, except the steps, which run as tasks.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "drive/contents.h"
#include "drive/core.h"
#include "drive/folders.h"
#include "drive/plan.h"

namespace drive {

class Sender {
 public:
  explicit Sender(Core& core) : core_(core) {}

  /// Starts what may go out.
  void Tick();

  /// Sends everything without rest. True: the service has everything.
  bool Sync(Lock& lock, std::chrono::milliseconds time, std::stop_token stop);

  const std::map<ItemNumber, ActiveTransfer>& uploads() const { return uploads_; }

 private:
  /// What one step's task works with.
  struct Task {
    Step step;
    std::string folder_id = {};  ///< of the step's new place
    std::stop_token stop = {};
    /// What the service said when it refused the step and an explanation was looked for.
    std::string refused_as = {};
  };

  void Pass();
  bool MayLook(FileTime now) const;
  void LookForWork();
  void PaceLooks(FileTime pass_began);
  void Start(const Step& step);
  void Run(Task task);
  void RestIfUnchanged(const Task& task);
  void Finish(const Step& step);
  void Refuse(ItemNumber number, const std::string& reason);
  ItemNumber OwnerOf(ItemNumber number) const;

  void NoteAttempt(const Task& task, const std::string& digest);
  void NoteMove(const Task& task, const Place& to);
  void TakeBackAttempt(const Task& task, const std::string& digest);
  void MakeFolder(const Task& task);
  void Relocate(const Task& task);
  void Delete(const Task& task);
  bool IsAsRemoved(const Task& task, const Item& item, const RemoteItem& remote);
  bool TreeIsAsRemoved(const Task& task, const Item& folder);
  void BringBack(Change& change, Item item, const RemoteItem* remote);
  void EraseTree(Change& change, const Item& item);

  void Upload(Task& task);
  RemoteItem SendContent(const Task& task, const FrozenCopy& frozen, const std::string& etag);
  std::string TagToReplace(const Item& item);
  void TakeUpload(const Task& task, const FrozenCopy& frozen, const RemoteItem& sent);
  bool TakeUploaded(const Task& task, const FrozenCopy& frozen, const RemoteItem& sent, bool clean);
  void SolveChanged(const Task& task);
  bool WasSent(const std::string& sent, const RemoteItem& remote, std::stop_token stop);
  std::string SentBy(const Task& task);

  void HandleTrouble(Task& task, const RemoteError& failure);
  struct Found {
    std::optional<RemoteItem> entry;
    bool was_sent = false;  ///< its content is one that was sent from here
    bool outdated = false;  ///< it was changed from here since the service was asked
  };
  std::vector<RemoteItem> EntriesOf(const std::string& folder_id);
  Found LookAt(const Task& task);
  void SolveTaken(const Task& task);
  void GiveWay(Change& change, const Place& place, Item item, std::optional<Item> known,
               const RemoteItem& entry);
  void SolveMissing(const Task& task);
  bool TakeIdentity(Change& change, Item& item, const RemoteItem& remote);

  Core& core_;
  std::deque<ItemNumber> queue_;  ///< pending items of this pass that were not looked at yet
  bool again_ = true;             ///< something has changed since the queue was filled
  int running_ = 0;
  FileTime next_look_{};            ///< at all pending items, unless it is urgent
  FileTime::duration look_took_{};  ///< so far, with the walk through what it found
  bool urgent_ = false;
  bool idle_ = false;  ///< a whole pass found nothing that may go out, and nothing is running
  std::map<ItemNumber, ActiveTransfer> uploads_;
};

}  // namespace drive
