#include "drive/sender.h"

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "drive/digest.h"
#include "drive/merge.h"
#include "drive/names.h"

namespace drive {
namespace {

constexpr int kStepsAtATime = 3;
constexpr std::chrono::minutes kFirstRetry{1};
constexpr std::chrono::seconds kShortRest{1};
/// Between two looks at all pending items, and in multiples of what the last one took.
constexpr FileTime::duration kShortestPause = std::chrono::milliseconds(50);
constexpr FileTime::duration kLongestPause = std::chrono::seconds(10);
constexpr int kPausePerLook = 5;
constexpr int kTriesBeforeRefusal = 3;
constexpr int kMostDoublings = 6;  // 64 minutes

/// Failures that say nothing about the change itself.
bool IsPassing(Trouble trouble) {
  return trouble == Trouble::kThrottled || trouble == Trouble::kUnreachable ||
         trouble == Trouble::kSignedOut || trouble == Trouble::kStopped;
}

/// Whether the item's local changes were made to this version.
bool IsBaseOf(const Item& item, const RemoteItem& remote) {
  if (!item.copy_etag.empty()) return remote.etag == item.copy_etag;
  return IsVersion(remote, item.etag, item.base_size, item.base_modified);
}

RemoteItem ToRemote(const Item& item) {
  return {.id = item.id, .name = item.base.name, .kind = item.kind, .etag = item.etag};
}

}  // namespace

// Choosing. -----------------------------------------------------------------------------------

void Sender::Tick() {
  again_ = true;
  Pass();
}

void Sender::Pass() {
  idle_ = false;
  if (core_.stopping || core_.options.read_only || core_.connection.offline()) return;
  const FileTime now = core_.clock.Now();
  std::optional<FileTime> next;
  const auto wake_at = [&](FileTime time) { next = std::min(next.value_or(time), time); };
  Plan plan(core_, urgent_);
  bool looked = false;
  while (running_ < kStepsAtATime) {
    if (const FileTime calm = std::max(core_.connection.calm_until(), core_.pace.next());
        calm > now) {
      wake_at(calm);
      break;
    }
    if (queue_.empty() && again_ && !MayLook(now)) {
      wake_at(next_look_);
      break;
    }
    if (queue_.empty() && again_) LookForWork();
    looked = true;
    if (queue_.empty()) break;
    const std::optional<Item> item = core_.catalog.Find(queue_.front());
    queue_.pop_front();
    if (!item) continue;
    const Readiness ready = plan.Of(*item);
    if (ready.step) Start(*ready.step);
    if (ready.at) wake_at(*ready.at);
  }
  if (looked) PaceLooks(now);
  if (next) core_.work.WakeAt(*next);
  idle_ = running_ == 0 && queue_.empty() && !again_;
  core_.work.Changed();
}

bool Sender::MayLook(FileTime now) const {
  // The clock may have been put back.
  return urgent_ || now >= next_look_ || next_look_ - now > kLongestPause;
}

void Sender::LookForWork() {
  again_ = false;
  look_took_ = {};
  const FileTime now = core_.clock.Now();
  // What rests is only looked at when nobody wants to wait for it.
  for (const ItemNumber number : core_.catalog.PendingAt(urgent_ ? FileTime::max() : now)) {
    queue_.push_back(number);
  }
  if (const auto next = core_.catalog.NextPending(now)) core_.work.WakeAt(*next);
}

/// Programs that change thousands of files would wait for as many looks at all of them.
void Sender::PaceLooks(FileTime pass_began) {
  const FileTime now = core_.clock.Now();
  look_took_ += std::max(now - pass_began, FileTime::duration{});
  next_look_ = now + std::clamp(kPausePerLook * look_took_, kShortestPause, kLongestPause);
}

void Sender::Start(const Step& step) {
  ++running_;
  core_.pace.Sent(core_.clock.Now());
  core_.busy.insert(step.item.number);
  Task task{.step = step};
  if (const auto folder = core_.catalog.Find(step.to.parent)) task.folder_id = folder->id;
  core_.work.Submit(Lane::kSend, [this, task](std::stop_token stop) mutable {
    task.stop = std::move(stop);
    Run(std::move(task));
  });
}

void Sender::Run(Task task) {
  std::optional<RemoteError> failure;
  try {
    switch (task.step.kind) {
      case StepKind::kMakeFolder:
        MakeFolder(task);
        break;
      case StepKind::kUpload:
        Upload(task);
        break;
      case StepKind::kRelocate:
        Relocate(task);
        break;
      case StepKind::kDelete:
        Delete(task);
        break;
      case StepKind::kFind:
        SolveTaken(task);
        break;
    }
  } catch (const RemoteError& error) {
    failure = error;
  } catch (const Error& error) {
    failure = RemoteError(Trouble::kFailed, error.what());
  }
  if (failure) HandleTrouble(task, *failure);
  const Lock lock(core_.mutex);
  if (!failure) core_.Answered();
  if (!failure || !IsPassing(failure->trouble())) RestIfUnchanged(task);
  Finish(task.step);
}

/// A step that changed nothing is not repeated at once: whatever stands in its way may need time.
/// Where that does not help, and nothing explains the service's refusal, it is refused.
void Sender::RestIfUnchanged(const Task& task) {
  std::optional<Item> item = core_.catalog.Find(task.step.item.number);
  const Item& before = task.step.item;
  if (!item) return;
  const bool unchanged = item->id == before.id && item->etag == before.etag &&
                         item->base == before.base && item->place == before.place &&
                         item->tried == before.tried && item->copy_etag == before.copy_etag &&
                         item->dirty == before.dirty;
  if (!unchanged) return;
  const bool refused = !item->refusal.reason.empty();
  if (!task.refused_as.empty() && (refused || item->refusal.attempts >= kTriesBeforeRefusal)) {
    return Refuse(item->number, task.refused_as);
  }
  if (refused) return;
  Change change(core_);
  item->refusal.retry = core_.clock.Now() + kShortRest * (1 << item->refusal.attempts);
  item->refusal.attempts = std::min(item->refusal.attempts + 1, kMostDoublings);
  core_.catalog.Put(*item);
  change.Commit();
}

void Sender::Finish(const Step& step) {
  const ItemNumber owner = OwnerOf(step.item.number);
  for (const ItemNumber number : {step.item.number, owner}) {
    if (const auto found = core_.busy.find(number); found != core_.busy.end()) {
      core_.busy.erase(found);
    }
    if (owner == step.item.number) break;
  }
  core_.heirs.erase(step.item.number);
  // Removed meanwhile, and nothing of it reached the service.
  for (const ItemNumber number : {step.item.number, owner}) {
    const std::optional<Item> item = core_.catalog.Find(number);
    if (!item || !item->IsRemoved() || item->IsPending() || core_.busy.contains(number) ||
        core_.contents->IsOpen(number)) {
      continue;
    }
    Change change(core_);
    core_.contents->Forget(change, *item);
    core_.catalog.Erase(number);
    change.Commit();
  }
  uploads_.erase(step.item.number);
  --running_;
  again_ = true;
  Pass();
}

/// The item that the answer of a step belongs to.
ItemNumber Sender::OwnerOf(ItemNumber number) const {
  const auto heir = core_.heirs.find(number);
  return heir == core_.heirs.end() ? number : heir->second;
}

bool Sender::Sync(Lock& lock, std::chrono::milliseconds time, std::stop_token stop) {
  const FileTime until = core_.clock.Now() + time;
  for (Item item : core_.catalog.Pending()) {
    if (item.refusal.retry <= core_.clock.Now()) continue;
    item.refusal.retry = {};
    Change change(core_);
    core_.catalog.Put(item);
    change.Commit();
  }
  urgent_ = true;
  Tick();
  bool done = false;
  while (!stop.stop_requested() && core_.clock.Now() < until) {
    done = core_.catalog.CountPending().items == 0;
    const bool stuck =
        idle_ && !core_.connection.offline() && !core_.catalog.RefusedItems().empty();
    if (done || stuck) break;
    core_.work.Wait(lock, until, stop);
  }
  urgent_ = false;
  return done;
}

// Failures. -----------------------------------------------------------------------------------

void Sender::HandleTrouble(Task& task, const RemoteError& failure) {
  {
    const Lock lock(core_.mutex);
    core_.Failed(failure);
  }
  if (IsPassing(failure.trouble())) return;
  RemoteError reason = failure;
  try {
    switch (failure.trouble()) {
      case Trouble::kNameTaken:
        task.refused_as = failure.what();
        return SolveTaken(task);
      case Trouble::kNotFound:
      case Trouble::kChanged:
        task.refused_as = failure.what();
        return SolveMissing(task);
      default:
        break;
    }
  } catch (const RemoteError& second) {
    const Lock lock(core_.mutex);
    core_.Failed(second);
    if (IsPassing(second.trouble())) return;
    reason = second;
  } catch (const Error& second) {
    reason = RemoteError(Trouble::kFailed, second.what());
  }
  task.refused_as.clear();
  const Lock lock(core_.mutex);
  Refuse(OwnerOf(task.step.item.number), reason.what());
}

void Sender::Refuse(ItemNumber number, const std::string& reason) {
  std::optional<Item> item = core_.catalog.Find(number);
  if (!item) return;
  const FileTime now = core_.clock.Now();
  Refusal& refusal = item->refusal;
  if (refusal.reason.empty()) refusal = Refusal{.reason = {}, .since = now};
  refusal.reason = reason.empty() ? "refused" : reason;
  refusal.retry = now + kFirstRetry * (1 << std::min(refusal.attempts, kMostDoublings));
  ++refusal.attempts;
  Change change(core_);
  core_.catalog.Put(*item);
  change.Commit();
}

/// The item, or the folder that it is to go to, is not what the catalog says.
void Sender::SolveMissing(const Task& task) {
  for (const ItemNumber number : {task.step.item.number, task.step.to.parent}) {
    Lock lock(core_.mutex);
    std::optional<Item> item = core_.catalog.Find(OwnerOf(number));
    if (!item || !item->IsSent() || item->number == kTop) continue;
    const Answers::Question question = core_.answers.Ask();
    lock.unlock();
    std::optional<RemoteItem> remote;
    std::optional<RemoteError> failure;
    try {
      remote = core_.remote.Describe(item->id);
    } catch (const RemoteError& error) {
      if (error.trouble() != Trouble::kNotFound) failure = error;
    }
    lock.lock();
    core_.answers.End(question);
    if (failure) throw RemoteError(*failure);
    const std::string id = item->id;
    item = core_.catalog.Find(OwnerOf(number));
    if (!item || item->id != id) continue;
    Change change(core_);
    Merge merge(change);
    if (remote) {
      // A folder that is being moved just now has its own answer to come.
      const bool own = number == task.step.item.number;
      if (own || !core_.busy.contains(item->number)) merge.SettleTried(*item, *remote);
      merge.Update(*item, *remote);
      if (item->base.name != remote->name && NameKey(item->base.name) != NameKey(remote->name)) {
        // Renamed elsewhere: where nothing was renamed here, the next listing tells.
        item->base.name = remote->name;
      }
      core_.catalog.Put(*item);
    } else {
      merge.Gone(*std::move(item));
    }
    change.Commit();
  }
}

/// Makes the service's `remote` the item's own. False: another item has it.
bool Sender::TakeIdentity(Change& change, Item& item, const RemoteItem& remote) {
  if (std::optional<Item> other = core_.catalog.FindId(remote.id);
      other && other->number != item.number) {
    // A listing was faster, and took it for somebody else's.
    if (other->IsPending() || other->IsFolder()) return false;
    core_.contents->Forget(change, *other);
    core_.catalog.Erase(other->number);
    change.EntryGone(other->place, other->number);
  }
  item.id = remote.id;
  item.etag = remote.etag;
  item.base_size = remote.size;
  item.base_modified = remote.modified;
  item.sent.clear();
  core_.answers.Told(remote.id);
  return true;
}

std::string Sender::SentBy(const Task& task) {
  const Lock lock(core_.mutex);
  const std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  return item ? item->sent : std::string();
}

/// What the service has under the name that the step wanted.
/// What the service has in the folder: nothing when it has no such folder any more.
std::vector<RemoteItem> Sender::EntriesOf(const std::string& folder_id) {
  if (folder_id.empty()) return {};
  try {
    return core_.remote.List(folder_id);
  } catch (const RemoteError& failure) {
    if (failure.trouble() != Trouble::kNotFound) throw;
    return {};
  }
}

Sender::Found Sender::LookAt(const Task& task) {
  Answers::Question question = 0;
  {
    const Lock lock(core_.mutex);
    question = core_.answers.Ask();
  }
  Found found;
  std::optional<RemoteError> failure;
  try {
    const std::string key = NameKey(task.step.to.name);
    for (RemoteItem& item : EntriesOf(task.folder_id)) {
      if (NameKey(item.name) == key) found.entry = std::move(item);
    }
    if (found.entry) found.was_sent = WasSent(SentBy(task), *found.entry, task.stop);
  } catch (const RemoteError& error) {
    failure = error;
  }
  const Lock lock(core_.mutex);
  found.outdated = found.entry && core_.answers.ToldSince(found.entry->id, question);
  core_.answers.End(question);
  if (failure) throw RemoteError(*failure);
  return found;
}

/// Something that is not known here, or not known to be there, has the name. Or, for kFind, may
/// have it.
void Sender::SolveTaken(const Task& task) {
  const Found found = LookAt(task);
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item || found.outdated) return;
  Change change(core_);
  std::optional<Item> known;
  if (found.entry) known = core_.catalog.FindId(found.entry->id);
  const bool ours = found.entry && !known && !item->IsSent() &&
                    (found.was_sent || (item->IsFolder() && found.entry->kind == Kind::kFolder));
  if (ours) {
    // An earlier request of ours reached the service and its answer did not reach us, or two
    // people made the same.
    TakeIdentity(change, *item, *found.entry);
    item->base = {.parent = task.step.to.parent, .name = found.entry->name};
    item->copy_etag = found.entry->etag;
    if (item->IsFolder()) item->listed = {};
    core_.catalog.Put(*item);
    return change.Commit();
  }
  if (!item->IsSent()) {
    // Nothing of ours is there: it is certain now.
    item->base = {};
    item->sent.clear();
    core_.catalog.Put(*item);
  }
  if (found.entry && task.step.kind != StepKind::kFind) {
    GiveWay(change, task.step.to, *std::move(item), std::move(known), *found.entry);
  }
  change.Commit();
}

/// `entry` has the place at the service; `known` is its item, if there is one.
void Sender::GiveWay(Change& change, const Place& place, Item item, std::optional<Item> known,
                     const RemoteItem& entry) {
  Merge merge(change);
  const Place there{.parent = place.parent, .name = entry.name};
  if (!known) {
    if (item.IsRemoved() || item.place != place) return;
    merge.StepAside(item, false);
    merge.Insert(core_.catalog.Get(place.parent), entry);
    return;
  }
  if (known->number == item.number) {
    item.base = there;
    core_.catalog.Put(item);
    return;
  }
  // It got this name elsewhere; the folder's next listing would say so, too.
  if (core_.busy.contains(known->number)) return;
  const bool follows = !known->IsRemoved() && known->place == known->base;
  known->base = there;
  core_.catalog.Put(*known);
  if (!follows || item.place != place) return;
  merge.StepAside(item, false);
  const Place old = std::exchange(known->place, there);
  core_.catalog.Put(*known);
  change.EntryGone(old, known->number);
  change.EntryChanged(there);
}

// Folders, places, removals. ------------------------------------------------------------------

/// Notes that a request goes out of which the answer may be lost.
void Sender::NoteAttempt(const Task& task, const std::string& digest) {
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item) return;
  if (!item->IsSent()) item->base = task.step.to;
  if (!digest.empty()) item->sent += (item->sent.empty() ? "" : " ") + digest;
  Change change(core_);
  core_.catalog.Put(*item);
  change.Commit();
}

/// Notes that a request goes out to move the item there; nowhere: no request is uncertain.
void Sender::NoteMove(const Task& task, const Place& to) {
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item || item->id != task.step.item.id) return;
  Change change(core_);
  item->tried = to;
  core_.catalog.Put(*item);
  change.Commit();
}

/// The service has answered that it did nothing.
void Sender::TakeBackAttempt(const Task& task, const std::string& digest) {
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item) return;
  if (item->sent.ends_with(digest)) {
    item->sent.resize(item->sent.size() - digest.size());
    if (!item->sent.empty()) item->sent.pop_back();
  }
  if (!item->IsSent() && !task.step.item.IsUncertain()) item->base = {};
  Change change(core_);
  core_.catalog.Put(*item);
  change.Commit();
}

void Sender::MakeFolder(const Task& task) {
  NoteAttempt(task, "");
  const RemoteItem made = core_.remote.MakeFolder(task.folder_id, task.step.to.name);
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item) return;
  Change change(core_);
  if (!TakeIdentity(change, *item, made)) return;
  item->base = task.step.to;
  item->refusal = {};
  core_.catalog.Put(*item);
  change.Commit();
}

void Sender::Relocate(const Task& task) {
  const Item& before = task.step.item;
  const Place& to = task.step.to;
  // Whether an earlier request moved it is found out before another one is tried.
  if (before.tried.parent != 0) return SolveMissing(task);
  NoteMove(task, to);
  RemoteItem moved;
  try {
    moved = to.parent == before.base.parent
                ? core_.remote.Rename(ToRemote(before), to.name)
                : core_.remote.Move(ToRemote(before), task.folder_id, to.name);
  } catch (const RemoteError& failure) {
    if (!IsPassing(failure.trouble()) && failure.trouble() != Trouble::kFailed) NoteMove(task, {});
    throw;
  }
  const Lock lock(core_.mutex);
  core_.answers.Told(before.id);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(before.number));
  if (!item || item->id != before.id) return;
  Change change(core_);
  item->base = to;
  item->tried = {};
  item->refusal = {};
  if (!moved.etag.empty()) core_.contents->Retag(change, *item, moved.etag);
  core_.catalog.Put(*item);
  change.Commit();
}

void Sender::Delete(const Task& task) {
  const Item& before = task.step.item;
  std::optional<RemoteItem> remote;
  try {
    remote = core_.remote.Describe(before.id);
  } catch (const RemoteError& error) {
    if (error.trouble() != Trouble::kNotFound) throw;
  }
  if (remote) {
    const bool seen =
        before.IsFolder() ? TreeIsAsRemoved(task, before) : IsAsRemoved(task, before, *remote);
    if (!seen) {
      const Lock lock(core_.mutex);
      std::optional<Item> item = core_.catalog.Find(OwnerOf(before.number));
      if (!item || item->id != before.id || !item->IsRemoved()) return;
      Change change(core_);
      BringBack(change, *std::move(item), &*remote);
      change.Commit();
      return;
    }
    try {
      RemoteItem item = ToRemote(before);
      item.etag = remote->etag;
      core_.remote.Delete(item);
    } catch (const RemoteError& error) {
      if (error.trouble() != Trouble::kNotFound) throw;
    }
  }
  const Lock lock(core_.mutex);
  Change change(core_);
  const std::optional<Item> item = core_.catalog.Find(OwnerOf(before.number));
  if (item && item->id == before.id) EraseTree(change, *item);
  change.Commit();
}

/// Whether the service's version is the one that was removed here, or one that was sent from here.
bool Sender::IsAsRemoved(const Task& task, const Item& item, const RemoteItem& remote) {
  return IsVersion(remote, item.etag, item.base_size, item.base_modified) ||
         WasMoved(item, remote) || WasSent(item.sent, remote, task.stop);
}

/// Lists the removed folder and all below it. False: somebody has put something in, or changed
/// something; the folders above that are back in the tree then.
bool Sender::TreeIsAsRemoved(const Task& task, const Item& folder) {
  const std::vector<RemoteItem> entries = core_.remote.List(folder.id);
  for (const RemoteItem& entry : entries) {
    std::optional<Item> item;
    {
      const Lock lock(core_.mutex);
      item = core_.catalog.FindId(entry.id);
    }
    if (!item || !item->IsRemoved()) return false;
    const bool same =
        item->IsFolder() ? TreeIsAsRemoved(task, *item) : IsAsRemoved(task, *item, entry);
    if (!same) {
      const Lock lock(core_.mutex);
      item = core_.catalog.FindId(entry.id);
      if (!item || !item->IsRemoved()) return false;
      Change change(core_);
      BringBack(change, *std::move(item), &entry);
      change.Commit();
      return false;
    }
  }
  return true;
}

/// The removed item stands in the tree again, where the service has it.
void Sender::BringBack(Change& change, Item item, const RemoteItem* remote) {
  std::optional<Item> folder = core_.catalog.Find(item.base.parent);
  if (!folder) return;
  if (folder->IsRemoved()) {
    BringBack(change, *folder, nullptr);
    folder = core_.catalog.Find(item.base.parent);
    if (!folder || folder->IsRemoved()) return;
  }
  core_.contents->Drop(change, item);
  item.place = item.base;
  if (core_.catalog.FindEntry(item.place.parent, item.place.name)) {
    item.place = core_.FreeConflictPlace(item.base.parent, item.base.name);
  }
  item.refusal = {};
  if (remote != nullptr) {
    item.etag = remote->etag;
    item.size = item.base_size = remote->size;
    item.modified = item.base_modified = remote->modified;
  }
  if (item.IsFolder()) item.listed = {};
  core_.catalog.Put(item);
  change.EntryChanged(item.place);
}

/// The service removed the item with all that was in it.
void Sender::EraseTree(Change& change, const Item& item) {
  for (const Item& child : core_.catalog.BaseEntries(item.number)) {
    if (child.IsRemoved()) EraseTree(change, child);
  }
  core_.answers.Told(item.id);
  Item rest = item;
  rest.id.clear();
  rest.base = {};
  core_.catalog.Put(rest);
  if (core_.contents->IsOpen(item.number)) return;  // its end erases it
  core_.contents->Forget(change, rest);
  core_.catalog.Erase(item.number);
}

// Uploads. ------------------------------------------------------------------------------------

void Sender::Upload(Task& task) {
  std::optional<FrozenCopy> frozen;
  {
    const Lock lock(core_.mutex);
    const std::optional<Item> item = core_.catalog.Find(task.step.item.number);
    // It may have been moved or removed since it was chosen: then it is chosen anew.
    if (!item || item->place != task.step.to || !item->dirty || item->id != task.step.item.id) {
      return;
    }
    frozen = core_.contents->Freeze(*item);
    if (!frozen) return core_.work.WakeAt(core_.clock.Now() + std::chrono::seconds(1));
  }
  std::optional<RemoteItem> sent;
  std::optional<RemoteError> failure;
  std::string digest;
  try {
    if (::fdatasync(frozen->fd->get()) != 0) {
      throw RemoteError(Trouble::kFailed, "the local copy cannot be written to the disk");
    }
    const std::string etag = task.step.item.IsSent() ? TagToReplace(task.step.item) : "";
    digest = Digest::OfFile(frozen->fd->get());
    NoteAttempt(task, digest);
    sent = SendContent(task, *frozen, etag);
  } catch (const RemoteError& error) {
    failure = error;
    try {
      const bool changed = error.trouble() == Trouble::kChanged && task.step.item.IsSent();
      const bool taken = error.trouble() == Trouble::kNameTaken;
      if (changed || taken) {
        task.refused_as = error.what();
        changed ? SolveChanged(task) : SolveTaken(task);
        failure.reset();
      } else if (!IsPassing(error.trouble())) {
        TakeBackAttempt(task, digest);
      }
    } catch (const RemoteError& second) {
      failure = second;
    }
  }
  if (sent) return TakeUpload(task, *frozen, *sent);
  {
    const Lock lock(core_.mutex);
    core_.contents->Thaw(*frozen);
    core_.contents->Release(frozen->content);
  }
  if (failure) throw RemoteError(*failure);
}

/// The tag of the version that the changes were made to. Throws kChanged when the service is known
/// to have another.
std::string Sender::TagToReplace(const Item& item) {
  if (!item.copy_etag.empty()) {
    if (item.copy_etag == item.etag) return item.etag;
    throw RemoteError(Trouble::kChanged, "the file was changed at the service");
  }
  // Listings of shared items carry no tags.
  const RemoteItem now = core_.remote.Describe(item.id);
  if (!IsVersion(now, item.etag, item.base_size, item.base_modified)) {
    throw RemoteError(Trouble::kChanged, "the file was changed at the service");
  }
  return now.etag;
}

RemoteItem Sender::SendContent(const Task& task, const FrozenCopy& frozen,
                               const std::string& etag) {
  const ItemNumber number = task.step.item.number;
  {
    const Lock lock(core_.mutex);
    uploads_[number] = {
        .path = core_.PathOf(task.step.to), .upload = true, .done = 0, .total = frozen.size};
  }
  const PieceSource source = [&](std::int64_t offset, std::span<char> to) {
    const ssize_t got = ::pread(frozen.fd->get(), to.data(), to.size(), offset);
    if (got <= 0) throw RemoteError(Trouble::kFailed, "the local copy cannot be read");
    const Lock lock(core_.mutex);
    uploads_[number].done = offset + got;
    return static_cast<std::size_t>(got);
  };
  return core_.remote.Upload(
      {.folder_id = task.folder_id, .name = task.step.to.name, .size = frozen.size, .etag = etag},
      source, task.stop);
}

void Sender::TakeUpload(const Task& task, const FrozenCopy& frozen, const RemoteItem& sent) {
  const Lock lock(core_.mutex);
  const bool clean = core_.contents->Thaw(frozen);
  const bool taken = TakeUploaded(task, frozen, sent, clean);
  if (!taken || !clean) core_.contents->Release(frozen.content);
}

/// The item is as the service has it now. `clean`: nothing was written since the upload began.
bool Sender::TakeUploaded(const Task& task, const FrozenCopy& frozen, const RemoteItem& sent,
                          bool clean) {
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item) return false;
  Change change(core_);
  if (!TakeIdentity(change, *item, sent)) return false;
  item->base = task.step.to;
  item->refusal = {};
  item->copy_etag = sent.etag;
  if (clean && item->number == task.step.item.number && item->dirty) {
    if (sent.size == frozen.size) {
      core_.contents->MarkClean(change, *item);
    } else {
      // The service has rewritten it, as it does with some office documents.
      core_.contents->Drop(change, *item);
      item->size = sent.size;
    }
  }
  core_.catalog.Put(*item);
  change.Commit();
  return true;
}

/// Whether the service's content is one that was sent from here. `sent`: digests.
bool Sender::WasSent(const std::string& sent, const RemoteItem& remote, std::stop_token stop) {
  const std::string size = std::to_string(remote.size) + ':';
  if (remote.kind != Kind::kFile || (' ' + sent).find(' ' + size) == std::string::npos)
    return false;
  Digest digest;
  std::int64_t seen = 0;
  const PieceSink add = [&](std::int64_t offset, std::span<const char> piece) {
    if (offset != seen) {  // the request was repeated
      if (offset != 0) throw RemoteError(Trouble::kUnreachable, "the download was broken");
      digest = Digest();
    }
    digest.Add(piece);
    seen = offset + std::ssize(piece);
  };
  if (remote.size > 0) core_.remote.Read(remote.id, 0, remote.size, add, std::move(stop));
  if (seen != remote.size || sent.find(digest.Text()) == std::string::npos) return false;
  const RemoteItem after = core_.remote.Describe(remote.id);
  return IsVersion(after, remote.etag, remote.size, remote.modified);
}

/// The service has another version than the one that was changed here.
void Sender::SolveChanged(const Task& task) {
  RemoteItem remote;
  try {
    remote = core_.remote.Describe(task.step.item.id);
  } catch (const RemoteError& error) {
    if (error.trouble() != Trouble::kNotFound) throw;
    const Lock lock(core_.mutex);
    std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
    if (!item || item->id != task.step.item.id) return;
    Change change(core_);
    Merge(change).Gone(*std::move(item));
    change.Commit();
    return;
  }
  const bool same = WasSent(SentBy(task), remote, task.stop);
  const Lock lock(core_.mutex);
  std::optional<Item> item = core_.catalog.Find(OwnerOf(task.step.item.number));
  if (!item || item->id != task.step.item.id) return;
  Change change(core_);
  core_.answers.Told(remote.id);
  if (same) {
    // An earlier upload of ours arrived, and its answer did not.
    item->etag = remote.etag;
    item->base_size = remote.size;
    item->base_modified = remote.modified;
    item->copy_etag = remote.etag;
    item->sent.clear();
    core_.catalog.Put(*item);
  } else if (!item->IsRemoved() && !IsBaseOf(task.step.item, remote)) {
    Merge(change).Split(*std::move(item), remote);
  }
  change.Commit();
}

}  // namespace drive
