#include "drive/merge.h"

#include <algorithm>
#include <set>
#include <utility>

#include "drive/names.h"

namespace drive {
namespace {

bool IsBusy(const Core& core, const Item& item) { return core.busy.contains(item.number); }

/// Whether something of the item is only here: then the service is asked before it is dropped.
bool MeansSomething(Core& core, const Item& item) {
  if (item.IsRemoved()) return false;
  return item.IsPending() || item.copy != 0 || item.executable ||
         core.contents->IsOpen(item.number) || (item.IsFolder() && item.listed > FileTime{});
}

}  // namespace

std::vector<Item> Merge::Missing(Core& core, const Listing& listing) {
  std::set<std::string_view> ids;
  for (const RemoteItem& item : listing.items) ids.insert(item.id);
  std::vector<Item> missing;
  for (Item& item : core.catalog.BaseEntries(listing.folder)) {
    if (!item.IsSent() || ids.contains(item.id) || !MeansSomething(core, item)) continue;
    if (IsBusy(core, item) || core.answers.ToldSince(item.id, listing.question)) continue;
    if (item.kind != Kind::kFixedFolder) missing.push_back(std::move(item));
  }
  return missing;
}

void Merge::Apply(const Listing& listing) {
  std::optional<Item> folder = core_.catalog.Find(listing.folder);
  if (!folder || folder->IsRemoved()) return;
  TakeAbsent(listing);
  std::vector<std::pair<Item, RemoteItem>> known;
  std::vector<const RemoteItem*> unknown;
  for (const RemoteItem& remote : listing.items) {
    if (IsOutdated(listing, remote.id) || !CanBeShown(remote.name)) continue;
    std::optional<Item> item = core_.catalog.FindId(remote.id);
    if (!item) {
      unknown.push_back(&remote);
    } else if (!IsBusy(core_, *item)) {
      known.emplace_back(*std::move(item), remote);
    }
  }
  Follow(*folder, known);
  for (const RemoteItem* remote : unknown) Insert(*folder, *remote);

  folder = core_.catalog.Find(listing.folder);
  if (!folder) return;
  folder->listed = core_.clock.Now();
  Put(*folder);
}

bool Merge::IsOutdated(const Listing& listing, const std::string& id) const {
  return core_.answers.ToldSince(id, listing.question);
}

/// The items that the listing leaves out.
void Merge::TakeAbsent(const Listing& listing) {
  std::set<std::string_view> ids;
  for (const RemoteItem& remote : listing.items) ids.insert(remote.id);
  for (Item& item : core_.catalog.BaseEntries(listing.folder)) {
    if (!item.IsSent() || ids.contains(item.id)) continue;
    if (IsBusy(core_, item) || IsOutdated(listing, item.id)) continue;
    const auto asked = listing.asked.find(item.number);
    if (asked == listing.asked.end()) {
      if (!MeansSomething(core_, item)) Gone(std::move(item));
    } else if (asked->second) {
      Update(item, *asked->second);
      Put(item);
    } else {
      Gone(std::move(item));
    }
  }
}

/// Of the folders from `folder` up to `above`, the first that was moved here.
std::optional<Item> Merge::MovedBetween(ItemNumber folder, ItemNumber above) const {
  while (folder != above) {
    std::optional<Item> item = core_.catalog.Find(folder);
    if (!item || item->number == kTop || item->IsRemoved() || item->IsMoved()) return item;
    folder = item->place.parent;
  }
  return std::nullopt;
}

/// Sees to it that the item may be placed in the folder. What was moved here into something that
/// was moved into it elsewhere goes back to where the service has it. False: what is known of the
/// folder's own place is too old.
bool Merge::CanHold(ItemNumber folder, ItemNumber item) {
  for (;;) {
    ItemNumber above = folder;
    while (above != kTop && above != 0 && above != item) {
      const std::optional<Item> parent = core_.catalog.Find(above);
      above = parent ? parent->place.parent : 0;
    }
    if (above != item) return true;
    std::optional<Item> moved = MovedBetween(folder, item);
    if (!moved || !moved->IsMoved()) return false;
    const Place old = moved->place;
    PlaceAt(*moved, moved->base);
    Put(*moved);
    change_.EntryGone(old, moved->number);
    change_.EntryChanged(moved->place);
  }
}

/// Entries that the listing has and that are known: their names may have been exchanged, so all
/// that get another name leave theirs before the first takes its new one.
void Merge::Follow(const Item& folder, const std::vector<std::pair<Item, RemoteItem>>& known) {
  struct Renamed {
    ItemNumber number;
    Place to;
  };
  std::vector<Renamed> renamed;
  for (const auto& [before, remote] : known) {
    std::optional<Item> item = core_.catalog.Find(before.number);
    if (!item) continue;
    const Place place{.parent = folder.number, .name = remote.name};
    // In a folder that is put together by the module two entries may have one name.
    const bool fixed = folder.kind == Kind::kFixedFolder;
    if (item->base != place && !(fixed && item->base.parent == folder.number)) {
      const bool tried = item->tried.parent != 0;
      const bool follows = !item->IsRemoved() && !tried && item->place == item->base;
      if (follows && item->IsFolder() && !CanHold(folder.number, item->number)) continue;
      if (item->tried == place) SettleTried(*item, remote);
      item->base = place;
      if (follows) {
        change_.EntryGone(item->place, item->number);
        item->place = {.parent = folder.number, .name = '\x01' + std::to_string(item->number)};
        renamed.push_back({.number = item->number, .to = place});
      }
    }
    Update(*item, remote);
    Put(*item);
  }
  for (const Renamed& step : renamed) {
    Item item = core_.catalog.Get(step.number);
    PlaceAt(item, step.to);
    Put(item);
    change_.EntryChanged(item.place);
  }
}

/// Gives the item its place; whoever stands there steps aside.
void Merge::PlaceAt(Item& item, const Place& place) {
  std::optional<Item> other = core_.catalog.FindEntry(place.parent, place.name);
  if (other && other->number != item.number) {
    // Something clean that the service has elsewhere by now will be found there.
    if (!other->IsPending() && !core_.contents->IsOpen(other->number) && !other->IsFolder()) {
      Gone(*std::move(other));
    } else {
      StepAside(*other, false);
    }
  }
  item.place = place;
}

void Merge::Update(Item& item, const RemoteItem& remote) {
  if (IsVersion(remote, item.etag, item.base_size, item.base_modified)) {
    if (item.etag.empty()) item.etag = remote.etag;
    return;
  }
  // What was removed here keeps the version that it had then: a newer one comes back.
  if (item.IsRemoved()) return;
  const bool same_content = item.base_size == remote.size && item.base_modified == remote.modified;
  item.etag = remote.etag;
  item.base_size = remote.size;
  item.base_modified = remote.modified;
  if (item.IsFolder()) {
    item.modified = remote.modified;
    return;
  }
  if (item.dirty) return;  // the upload finds the conflict
  if (!same_content) {
    item.size = remote.size;
    item.modified = remote.modified;
    item.changed = core_.clock.Now();
    item.executable = false;
  }
  core_.contents->Drop(change_, item);
}

void Merge::SettleTried(Item& item, const RemoteItem& remote) {
  if (WasMoved(item, remote)) {
    item.base = item.tried;
    core_.contents->Retag(change_, item, remote.etag);
  }
  item.tried = {};
}

/// The item becomes a new one, which the service has yet to get.
void Merge::MakeNew(Item& item) {
  item.id.clear();
  item.base = item.tried = {};
  item.etag.clear();
  item.copy_etag.clear();
  item.sent.clear();
  item.refusal = {};
  if (item.IsFolder()) item.listed = core_.clock.Now();
}

void Merge::Gone(Item item) {
  if (item.IsFolder()) {
    for (Item& child : core_.catalog.BaseEntries(item.number)) {
      if (!IsBusy(core_, child)) Gone(std::move(child));
    }
  }
  // A file without a change of its content has nothing to be made anew from.
  const bool stays = !item.IsRemoved() && (item.dirty || core_.catalog.HasEntries(item.number) ||
                                           (item.IsFolder() && IsBusy(core_, item)));
  if (stays) {
    MakeNew(item);
    Put(item);
    return;
  }
  core_.contents->Forget(change_, item);
  core_.catalog.Erase(item.number);
  change_.EntryGone(item.place, item.number);
}

bool Merge::Insert(const Item& folder, const RemoteItem& remote) {
  if (!CanBeShown(remote.name)) return false;
  // It may be what a request of ours made without an answer: that is found out first.
  const std::optional<Item> tried = core_.catalog.FindBase(folder.number, remote.name);
  if (tried && tried->IsUncertain() && tried->place != tried->base) return false;
  std::string name = remote.name;
  std::optional<Item> there = core_.catalog.FindEntry(folder.number, name);
  if (folder.kind == Kind::kFixedFolder) {
    for (int count = 2; there; ++count) {
      name = remote.name + " (" + std::to_string(count) + ")";
      there = core_.catalog.FindEntry(folder.number, name);
    }
  }
  if (there) {
    const bool one_folder = there->kind == Kind::kFolder && remote.kind == Kind::kFolder;
    if (there->IsSent() || !one_folder || IsBusy(core_, *there)) return false;
    // Made here and elsewhere: it is one folder.
    there->id = remote.id;
    there->etag = remote.etag;
    there->base = {.parent = folder.number, .name = remote.name};
    there->base_modified = remote.modified;
    there->listed = {};
    Put(*there);
    return true;
  }
  Item item;
  item.kind = remote.kind;
  item.place = item.base = {.parent = folder.number, .name = name};
  item.size = item.base_size = remote.size;
  item.modified = item.base_modified = item.changed = remote.modified;
  item.id = remote.id;
  item.etag = remote.etag;
  core_.catalog.Add(item);
  change_.EntryChanged(item.place);
  return true;
}

void Merge::StepAside(Item& item, bool as_new) {
  const Place old = item.place;
  item.place = core_.FreeConflictPlace(old.parent, old.name);
  item.refusal = {};
  if (as_new) MakeNew(item);
  Put(item);
  core_.catalog.AddConflict({.kept = item.number, .place = old, .since = core_.clock.Now()});
  change_.EntryGone(old, item.number);
  change_.EntryChanged(item.place);
}

void Merge::Split(Item item, const RemoteItem& remote) {
  Item theirs;
  theirs.kind = Kind::kFile;
  theirs.place = item.place;
  theirs.base = item.base;
  theirs.size = theirs.base_size = remote.size;
  theirs.modified = theirs.base_modified = theirs.changed = remote.modified;
  theirs.id = item.id;
  theirs.etag = remote.etag;
  StepAside(item, true);
  core_.catalog.Add(theirs);
  change_.EntryChanged(theirs.place);
}

}  // namespace drive
