#include "drive/entries.h"

#include <string>
#include <utility>

#include "drive/names.h"

namespace drive {

Item Entries::Find(Lock& lock, ItemNumber folder, std::string_view name, std::stop_token stop) {
  folders_.NeedListing(lock, folder, stop);
  std::optional<Item> item = core_.catalog.FindEntry(folder, name);
  if (item) {
    folders_.Refresh(core_.catalog.Get(folder));
  } else {
    // Somebody may have made it since the folder was listed.
    folders_.NeedFreshListing(lock, folder, stop);
    item = core_.catalog.FindEntry(folder, name);
  }
  if (!item) throw Error(Reason::kNotFound, "no such file or folder");
  return *std::move(item);
}

// Making. -------------------------------------------------------------------------------------

void Entries::CheckChangeable(ItemNumber folder) const {
  if (core_.catalog.Get(folder).kind == Kind::kFixedFolder) {
    throw Error(Reason::kDenied, "what is in this folder cannot be changed");
  }
}

void Entries::CheckFileChangeable(const Item& file) const {
  if (!file.IsFolder() && !file.IsRemoved()) CheckChangeable(file.place.parent);
}

void Entries::CheckPlace(const Place& place) const {
  CheckName(place.name);
  if (Utf16Length(core_.PathOf(place)) > kLongestPath) {
    throw Error(Reason::kNameTooLong, "the path would be longer than 400 characters");
  }
}

Item Entries::MakeItem(Lock& lock, Item item, std::stop_token stop) {
  const Place place = item.place;
  folders_.NeedListing(lock, place.parent, stop);
  CheckChangeable(place.parent);
  if (core_.catalog.FindEntry(place.parent, place.name)) {
    throw Error(Reason::kExists, "an entry of this name exists");
  }
  CheckPlace(place);
  item.modified = item.changed = core_.clock.Now();
  Change change(core_);
  // Most files are written to at once: then nothing more has to be recorded before.
  if (!item.IsFolder()) contents_.AddCopy(item);
  core_.catalog.Add(item);
  // A file that was removed and is made again is a new version of the same item.
  std::optional<Item> removed = core_.catalog.FindBase(place.parent, place.name);
  if (item.kind == Kind::kFile && removed && removed->kind == Kind::kFile && removed->IsRemoved() &&
      !core_.busy.contains(removed->number)) {
    PassIdentity(change, *removed, item);
    core_.catalog.Put(item);
    DropIfUnused(change, *removed);
  }
  change.Commit();
  core_.work.WakeAt(item.due);
  return item;
}

Item Entries::MakeFolder(Lock& lock, ItemNumber folder, std::string_view name,
                         std::stop_token stop) {
  Item item;
  item.kind = Kind::kFolder;
  item.place = {.parent = folder, .name = std::string(name)};
  item.listed = core_.clock.Now();  // nothing is in it
  item.due = core_.clock.Now();
  return MakeItem(lock, std::move(item), stop);
}

Item Entries::MakeFile(Lock& lock, ItemNumber folder, std::string_view name, bool executable,
                       std::stop_token stop) {
  Item item;
  item.place = {.parent = folder, .name = std::string(name)};
  item.executable = executable;
  item.dirty = true;
  item.due = core_.clock.Now() + core_.options.upload_delay;
  return MakeItem(lock, std::move(item), stop);
}

// Removing. -----------------------------------------------------------------------------------

void Entries::RemoveFile(Lock& lock, ItemNumber folder, std::string_view name,
                         std::stop_token stop) {
  Item item = Find(lock, folder, name, stop);
  CheckChangeable(folder);
  if (item.IsFolder()) throw Error(Reason::kIsFolder, "it is a folder");
  Change change(core_);
  // Saved by renaming the old version away and writing a new one: the new file is a version of the
  // old one's item.
  std::optional<Item> saved = core_.catalog.FindEntry(item.base.parent, item.base.name);
  const bool idle =
      !core_.busy.contains(item.number) && !(saved && core_.busy.contains(saved->number));
  if (item.IsMoved() && saved && idle && saved->kind == Kind::kFile && !saved->IsSent() &&
      !saved->IsUncertain()) {
    PassIdentity(change, item, *saved);
    core_.catalog.Put(*saved);
  }
  Remove(change, std::move(item));
  change.Commit();
  core_.work.WakeAt(core_.clock.Now());
}

void Entries::RemoveFolder(Lock& lock, ItemNumber folder, std::string_view name,
                           std::stop_token stop) {
  Item item = Find(lock, folder, name, stop);
  CheckChangeable(folder);
  NeedEmpty(lock, item, stop);
  item = core_.catalog.Get(item.number);
  if (item.IsRemoved()) throw Error(Reason::kNotFound, "no such folder");
  Change change(core_);
  Remove(change, std::move(item));
  change.Commit();
  core_.work.WakeAt(core_.clock.Now());
}

void Entries::NeedEmpty(Lock& lock, const Item& folder, std::stop_token stop) {
  if (!folder.IsFolder()) throw Error(Reason::kNotFolder, "it is not a folder");
  if (folder.kind == Kind::kFixedFolder) throw Error(Reason::kDenied, "the folder is fixed");
  if (!core_.catalog.HasEntries(folder.number)) {
    folders_.NeedFreshListing(lock, folder.number, stop);
  }
  if (core_.catalog.HasEntries(folder.number)) {
    throw Error(Reason::kNotEmpty, "the folder is not empty");
  }
}

/// Takes the item out of the tree. What the service has of it is removed later.
void Entries::Remove(Change& change, Item item) {
  if (item.dirty) item.etag = item.copy_etag;  // the version that was seen here
  item.place = {};
  item.changed = core_.clock.Now();
  item.refusal = {};
  // Who has it open goes on with its bytes.
  if (!contents_.IsOpen(item.number) && !core_.busy.contains(item.number)) {
    contents_.Drop(change, item);
  }
  if (!DropIfUnused(change, item)) core_.catalog.Put(item);
}

/// A removed item that the service does not have and nobody has open leaves no trace: then true.
bool Entries::DropIfUnused(Change& change, const Item& item) {
  const bool used = core_.busy.contains(item.number) || contents_.IsOpen(item.number);
  if (used || item.IsPending()) return false;
  contents_.Forget(change, item);
  core_.catalog.Erase(item.number);
  return true;
}

// Renaming. -----------------------------------------------------------------------------------

/// The entry below a fixed folder through which the folder is reached; all that has the same one
/// lies in one drive.
ItemNumber Entries::DriveOf(ItemNumber folder) const {
  Item item = core_.catalog.Get(folder);
  while (item.number != kTop) {
    const Item parent = core_.catalog.Get(item.place.parent);
    if (parent.kind == Kind::kFixedFolder) break;
    item = parent;
  }
  return item.number;
}

void Entries::CheckMove(const Item& source, const Place& to) const {
  if (source.place.parent == to.parent) return;
  if (DriveOf(source.place.parent) != DriveOf(to.parent)) {
    throw Error(Reason::kOtherDrive, "the folders are in different drives");
  }
  for (ItemNumber folder = to.parent; folder != kTop;
       folder = core_.catalog.Get(folder).place.parent) {
    if (folder == source.number) throw Error(Reason::kIntoItself, "it lies inside of itself");
  }
}

void Entries::Rename(Lock& lock, const RenameRequest& request, std::stop_token stop) {
  folders_.NeedListing(lock, request.to_folder, stop);
  const Place to{.parent = request.to_folder, .name = std::string(request.to)};
  Item source = Find(lock, request.from_folder, request.from, stop);
  if (source.place == to) return;
  CheckChangeable(request.from_folder);
  CheckChangeable(request.to_folder);
  std::optional<Item> target = core_.catalog.FindEntry(to.parent, to.name);
  if (target && target->number == source.number) target.reset();  // another case of its letters
  CheckPlace(to);
  CheckMove(source, to);
  if (target) {
    if (request.keep) throw Error(Reason::kExists, "an entry of this name exists");
    if (target->IsFolder() && !source.IsFolder()) throw Error(Reason::kIsFolder, "it is a folder");
    if (source.IsFolder()) {
      NeedEmpty(lock, *target, stop);
      // The wait may have changed both.
      source = core_.catalog.Get(source.number);
      target = core_.catalog.FindEntry(to.parent, to.name);
    }
  }
  Change change(core_);
  contents_.Overlay(source);
  if (target) Replace(change, source, *std::move(target));
  source.place = to;
  source.changed = core_.clock.Now();
  source.refusal = {};
  core_.catalog.Put(source);
  change.Commit();
  core_.work.WakeAt(core_.clock.Now());
}

/// `source` is about to come to the place of `target`. Where all its bytes are here it becomes a
/// new version of the target's item; otherwise that item is removed first.
void Entries::Replace(Change& change, Item& source, Item target) {
  const bool known = target.IsSent() || target.IsUncertain() || core_.busy.contains(target.number);
  if (source.kind == Kind::kFile && known && contents_.IsComplete(source)) {
    if (source.IsSent() || source.IsUncertain() || core_.busy.contains(source.number)) {
      Item rest;  // what the service has of the source under its old name
      rest.kind = Kind::kFile;
      core_.catalog.Add(rest);
      PassIdentity(change, source, rest);
      rest.dirty = false;
      core_.catalog.Put(rest);
    }
    PassIdentity(change, target, source);
  }
  Remove(change, std::move(target));
}

/// What the service has of `from` belongs to `to` from now on, which is to be a new version of it.
/// `from` is put, `to` is the caller's to put.
void Entries::PassIdentity(Change& change, Item& from, Item& to) {
  to.id = std::exchange(from.id, {});
  to.base = std::exchange(from.base, {});
  to.tried = std::exchange(from.tried, {});
  to.etag = from.etag;
  to.base_size = from.base_size;
  to.base_modified = from.base_modified;
  to.sent = std::exchange(from.sent, {});
  const std::string seen = from.dirty ? from.copy_etag : from.etag;
  from.etag.clear();
  core_.catalog.Put(from);
  if (to.IsRemoved()) {
    to.etag = seen;
  } else {
    contents_.MarkDirty(change, to);
    to.copy_etag = seen;
  }
  change.Then([this, from_number = from.number, to_number = to.number] {
    core_.PassAnswers(from_number, to_number);
  });
}

}  // namespace drive
