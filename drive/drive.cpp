#include "drive/drive.h"

#include <algorithm>
#include <utility>

#include "drive/contents.h"
#include "drive/core.h"
#include "drive/entries.h"
#include "drive/folders.h"
#include "drive/names.h"
#include "drive/sender.h"
#include "drive/state_folder.h"

namespace drive {

struct Drive::Impl {
  Impl(DriveOptions options, const DriveParts& parts)
      : state(options.state),
        core(std::move(options), parts),
        contents(core),
        folders(core),
        entries(core, folders, contents),
        sender(core) {
    core.contents = &contents;
    core.remote.SetObserver([this](RequestEvent event) {
      const Lock lock(core.mutex);
      const FileTime now = core.clock.Now();
      event == RequestEvent::kThrottled ? core.pace.Throttled(now) : core.pace.Sent(now);
    });
    core.suspect = [this](ItemNumber number) { folders.Suspect(number); };
  }

  void CheckAccount();
  void Recover();
  void FindTop();
  void Tick();
  void Probe();
  Attributes See(Item item) const;
  void NeedWritable() const;
  bool IsFixed(ItemNumber folder) const;

  StateFolder state;
  mutable Core core;
  Contents contents;
  Folders folders;
  Entries entries;
  Sender sender;
  bool probing = false;
};

// The whole. ----------------------------------------------------------------------------------

Drive::Drive(DriveOptions options, const DriveParts& parts)
    : impl_(std::make_unique<Impl>(std::move(options), parts)) {
  impl_->CheckAccount();
  impl_->core.work.OnTick([impl = impl_.get()] { impl->Tick(); });
}

Drive::~Drive() {
  StopSending();
  impl_->core.work.End();
  const Lock lock(impl_->core.mutex);
  try {
    impl_->contents.FlushAll();
  } catch (const Error&) {
    // The sizes are those of the local copies when the drive starts again.
  }
}

void Drive::Impl::CheckAccount() {
  if (core.options.account.empty()) return;  // not known without the service
  const std::string known = core.catalog.Value("account");
  if (known.empty()) return core.catalog.SetValue("account", core.options.account);
  if (known != core.options.account) {
    throw Error(Reason::kBroken, "the state folder belongs to the account " + known);
  }
}

void Drive::Start() {
  impl_->Recover();
  if (!IsKnown()) impl_->FindTop();
  impl_->core.work.WakeAt(impl_->core.clock.Now());
}

/// The last run may have ended at any moment.
void Drive::Impl::Recover() {
  const Lock lock(core.mutex);
  Change change(core);
  for (Item& item : core.catalog.Pending()) {
    if (!item.dirty || item.copy == 0) continue;
    const base::UniqueFd fd = core.copies.Open(item.copy);
    if (!fd && item.size == 0) {
      item.copy = 0;  // made, and then the power failed
    } else if (!fd) {
      item.refusal = {.reason = "the local copy is missing", .since = core.clock.Now()};
    } else if (const std::int64_t size = FileSize(fd.get()); size != item.size) {
      item.size = size;
      item.modified = core.clock.Now();
    }
    core.catalog.Put(item);
  }
  for (const Item& item : core.catalog.Removed()) {
    if (!item.IsPending()) core.catalog.Erase(item.number);
  }
  change.Commit();
  std::vector<std::int64_t> copies = core.catalog.CopiesInUse();
  std::sort(copies.begin(), copies.end());
  core.copies.RemoveOthers(copies);
  contents.LoadCacheSize();
}

void Drive::Impl::FindTop() {
  RemoteItem remote;
  try {
    remote = core.remote.Top();
  } catch (const RemoteError& failure) {
    throw Core::ErrorOf(failure);
  }
  const Lock lock(core.mutex);
  Item top = core.catalog.Get(kTop);
  top.id = remote.id;
  top.kind = remote.kind == Kind::kFixedFolder ? Kind::kFixedFolder : Kind::kFolder;
  top.modified = top.changed = core.clock.Now();
  core.catalog.Put(top);
  core.catalog.SetValue("top", "known");
}

bool Drive::IsKnown() const {
  const Lock lock(impl_->core.mutex);
  return impl_->core.catalog.Value("top") == "known";
}

void Drive::StopSending() {
  const Lock lock(impl_->core.mutex);
  impl_->core.stopping = true;
  impl_->core.work.Changed();
}

void Drive::Impl::Tick() {
  const Lock lock(core.mutex);
  if (core.stopping) return;
  Probe();
  folders.Tick();
  sender.Tick();
}

/// While the service cannot be reached, one small request now and then finds out whether it is
/// back.
void Drive::Impl::Probe() {
  if (!core.connection.offline() || probing) return;
  const FileTime now = core.clock.Now();
  if (now < core.connection.next_try()) return core.work.WakeAt(core.connection.next_try());
  probing = true;
  core.work.Submit(Lane::kAsk, [this](std::stop_token) {
    std::optional<RemoteError> failure;
    try {
      core.remote.GetSpace();
    } catch (const RemoteError& error) {
      failure = error;
    }
    const Lock relock(core.mutex);
    probing = false;
    failure ? core.Failed(*failure) : core.Answered();
    core.work.Changed();
  });
}

// Entries. ------------------------------------------------------------------------------------

bool Drive::Impl::IsFixed(ItemNumber folder) const {
  const std::optional<Item> item = core.catalog.Find(folder);
  return item && item->kind == Kind::kFixedFolder;
}

Attributes Drive::Impl::See(Item item) const {
  contents.Overlay(item);
  const bool fixed =
      item.kind == Kind::kFixedFolder || (item.kind == Kind::kFile && IsFixed(item.place.parent));
  return {.number = item.number,
          .kind = item.kind,
          .size = item.IsFolder() ? 0 : item.size,
          .modified = item.modified,
          .changed = std::max(item.changed, item.modified),
          .executable = item.executable,
          .writable = !fixed && !core.options.read_only};
}

void Drive::Impl::NeedWritable() const {
  if (core.options.read_only) throw Error(Reason::kReadOnly, "the drive is mounted for reading");
}

Attributes Drive::Lookup(ItemNumber folder, std::string_view name, std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  return impl_->See(impl_->entries.Find(lock, folder, name, std::move(stop)));
}

Attributes Drive::Get(ItemNumber number) const {
  const Lock lock(impl_->core.mutex);
  return impl_->See(impl_->core.catalog.Get(number));
}

Place Drive::PlaceOf(ItemNumber number) const {
  const Lock lock(impl_->core.mutex);
  return impl_->core.catalog.Get(number).place;
}

std::string Drive::KeptName(ItemNumber folder, std::string_view name) const {
  const Lock lock(impl_->core.mutex);
  const std::optional<Item> item = impl_->core.catalog.FindEntry(folder, name);
  return item ? item->place.name : std::string();
}

Attributes Drive::Set(ItemNumber number, const AttributeChange& change, std::stop_token stop) {
  impl_->NeedWritable();
  Core& core = impl_->core;
  Lock lock(core.mutex);
  if (change.size) {
    impl_->entries.CheckFileChangeable(core.catalog.Get(number));
    impl_->contents.Truncate(lock, number, *change.size, std::move(stop));
  }
  if (change.modified || change.executable) {
    Item item = core.catalog.Get(number);
    impl_->contents.Overlay(item);
    item.changed = core.clock.Now();
    if (change.modified) {
      item.modified = *change.modified;
      impl_->contents.SetModified(number, item.modified);
    }
    if (change.executable && !item.IsFolder()) item.executable = *change.executable;
    core.catalog.Put(item);
  }
  return impl_->See(core.catalog.Get(number));
}

std::vector<Entry> Drive::List(ItemNumber folder, std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  impl_->folders.NeedFreshListing(lock, folder, std::move(stop));
  std::vector<Entry> entries;
  for (Item& item : impl_->core.catalog.Entries(folder)) {
    std::string name = item.place.name;
    entries.push_back({.name = std::move(name), .attributes = impl_->See(std::move(item))});
  }
  return entries;
}

Attributes Drive::MakeFolder(ItemNumber folder, std::string_view name, std::stop_token stop) {
  impl_->NeedWritable();
  Lock lock(impl_->core.mutex);
  return impl_->See(impl_->entries.MakeFolder(lock, folder, name, std::move(stop)));
}

Attributes Drive::MakeFile(ItemNumber folder, std::string_view name, bool executable,
                           std::stop_token stop) {
  impl_->NeedWritable();
  Lock lock(impl_->core.mutex);
  return impl_->See(impl_->entries.MakeFile(lock, folder, name, executable, std::move(stop)));
}

void Drive::Rename(ItemNumber from_folder, std::string_view from, ItemNumber to_folder,
                   std::string_view to, bool keep, std::stop_token stop) {
  impl_->NeedWritable();
  Lock lock(impl_->core.mutex);
  impl_->entries.Rename(
      lock,
      {.from_folder = from_folder, .from = from, .to_folder = to_folder, .to = to, .keep = keep},
      std::move(stop));
}

void Drive::RemoveFile(ItemNumber folder, std::string_view name, std::stop_token stop) {
  impl_->NeedWritable();
  Lock lock(impl_->core.mutex);
  impl_->entries.RemoveFile(lock, folder, name, std::move(stop));
}

void Drive::RemoveFolder(ItemNumber folder, std::string_view name, std::stop_token stop) {
  impl_->NeedWritable();
  Lock lock(impl_->core.mutex);
  impl_->entries.RemoveFolder(lock, folder, name, std::move(stop));
}

// Content. ------------------------------------------------------------------------------------

std::shared_ptr<OpenFile> Drive::Open(ItemNumber number, OpenMode mode, std::stop_token stop) {
  Core& core = impl_->core;
  if (mode.write) impl_->NeedWritable();
  Lock lock(core.mutex);
  const Item item = core.catalog.Get(number);
  if (mode.write) impl_->entries.CheckFileChangeable(item);
  // What others have saved since the folder was listed is what is opened. Whoever empties the file
  // replaces what he saw: a version that he has not seen is a conflict, which the upload finds.
  if (item.IsSent() && !item.IsRemoved() && !item.dirty && !mode.truncate) {
    impl_->folders.NeedFreshListing(lock, item.place.parent, stop);
  }
  return impl_->contents.Open(lock, number, mode, std::move(stop));
}

std::size_t Drive::Read(OpenFile& file, std::int64_t offset, std::span<char> to,
                        std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  return impl_->contents.Read(lock, file, offset, to, std::move(stop));
}

void Drive::Write(OpenFile& file, std::int64_t offset, std::span<const char> data,
                  std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  impl_->contents.Write(lock, file, offset, data, std::move(stop));
}

void Drive::Allocate(OpenFile& file, std::int64_t offset, std::int64_t length, bool keep_size,
                     std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  impl_->contents.Allocate(lock, file, {.begin = offset, .end = offset + length}, keep_size,
                           std::move(stop));
}

void Drive::Flush(OpenFile& file) {
  const Lock lock(impl_->core.mutex);
  impl_->contents.Flush(*file.content);
}

void Drive::SyncFile(OpenFile& file) {
  Lock lock(impl_->core.mutex);
  impl_->contents.SyncData(lock, file.content);
  impl_->contents.SyncAllData(lock);
  impl_->core.catalog.SyncToDisk();
}

void Drive::SyncNames() {
  Lock lock(impl_->core.mutex);
  // No row may be on the disk before the bytes that it speaks of.
  impl_->contents.SyncAllData(lock);
  impl_->core.catalog.SyncToDisk();
}

void Drive::Close(OpenFile& file) {
  const Lock lock(impl_->core.mutex);
  impl_->contents.Close(file);
}

// Reports. ------------------------------------------------------------------------------------

Space Drive::SpaceOf(std::stop_token stop) {
  struct Answer {
    bool done = false;
    Space space;
    std::optional<RemoteError> failure;
  };
  Core& core = impl_->core;
  Lock lock(core.mutex);
  if (core.connection.offline()) throw Error(Reason::kUnreachable, "the service cannot be reached");
  const auto answer = std::make_shared<Answer>();
  core.work.Submit(Lane::kAsk, [&core, answer](std::stop_token) {
    Answer got;
    try {
      got.space = core.remote.GetSpace();
    } catch (const RemoteError& failure) {
      got.failure = failure;
    }
    got.done = true;
    const Lock relock(core.mutex);
    *answer = got;
    core.work.Changed();
  });
  core.WaitFor(lock, std::move(stop), [&] { return answer->done; });
  if (answer->failure) throw Core::ErrorOf(*answer->failure);
  return answer->space;
}

RemoteState Drive::StateOf(ItemNumber number) const {
  const Lock lock(impl_->core.mutex);
  const Item item = impl_->core.catalog.Get(number);
  const char* state = "clean";
  if (item.IsPending()) state = item.refusal.reason.empty() ? "changed" : "refused";
  if (impl_->core.busy.contains(number)) state = "sending";
  return {.id = item.id, .etag = item.etag, .state = state};
}

Status Drive::GetStatus() const {
  Core& core = impl_->core;
  const Lock lock(core.mutex);
  const PendingCount pending = core.catalog.CountPending();
  Status status;
  status.online = !core.connection.offline();
  status.signed_out = core.connection.signed_out();
  status.pending = pending.items;
  status.pending_bytes = pending.bytes;
  status.active = impl_->contents.Downloads();
  for (const auto& [number, upload] : impl_->sender.uploads()) status.active.push_back(upload);
  for (const Item& item : core.catalog.RefusedItems()) {
    status.refused.push_back({.path = core.PathOf(item.IsRemoved() ? item.base : item.place),
                              .reason = item.refusal.reason,
                              .since = item.refusal.since});
  }
  for (const ConflictRecord& conflict : core.catalog.Conflicts()) {
    const std::optional<Item> kept = core.catalog.Find(conflict.kept);
    if (!kept || kept->IsRemoved()) continue;
    status.conflicts.push_back({.path = core.PathOf(conflict.place),
                                .kept_as = core.PathOf(kept->place),
                                .since = conflict.since});
  }
  status.cache_bytes = impl_->contents.cache_bytes();
  status.cache_limit = core.options.cache_limit;
  status.known_items = core.catalog.CountItems();
  return status;
}

bool Drive::Sync(std::chrono::milliseconds time, std::stop_token stop) {
  Lock lock(impl_->core.mutex);
  return impl_->sender.Sync(lock, time, std::move(stop));
}

}  // namespace drive
