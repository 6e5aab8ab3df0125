#include "drive/plan.h"

#include <algorithm>
#include <vector>

namespace drive {
namespace {

constexpr std::chrono::seconds kRestOfNames{2};
/// A circle of names that is longer than this is solved bit by bit.
constexpr int kLongestCircle = 1000;

}  // namespace

Readiness Plan::Of(const Item& item) {
  if (!item.IsPending() || core_.busy.contains(item.number)) return {};
  if (item.refusal.retry > core_.clock.Now()) return {.at = item.refusal.retry};
  if (item.IsUncertain() && item.place != item.base) {
    return {.step = Step{.kind = StepKind::kFind, .item = item, .to = item.base}};
  }
  if (item.IsRemoved()) return OfRemoved(item);
  if (!CanHold(item.place.parent)) return {};
  if (!item.IsSent() || item.place != item.base) {
    if (const std::optional<Item> blocker = Blocker(item, item.place)) {
      return Unblock(item, *blocker);
    }
  }
  if (item.IsMoved() || item.tried.parent != 0) {
    if (const auto rest = RestOf(item)) return {.at = rest};
    return {.step = Step{.kind = StepKind::kRelocate, .item = item, .to = item.place}};
  }
  const StepKind kind = item.IsFolder() ? StepKind::kMakeFolder : StepKind::kUpload;
  Readiness ready{.step = Step{.kind = kind, .item = item, .to = item.place}};
  return item.IsFolder() ? ready : OfFile(std::move(ready), item);
}

Readiness Plan::OfFile(Readiness ready, const Item& item) {
  if (urgent_) return ready;
  FileTime due = item.due;
  if (const auto rest = core_.contents->RestUntil(item.number)) due = *rest;
  return due > core_.clock.Now() ? Readiness{.at = due} : ready;
}

Readiness Plan::OfRemoved(const Item& item) {
  const std::optional<Item> folder = core_.catalog.Find(item.base.parent);
  // It goes with the folder that it was in.
  if (folder && folder->IsRemoved() && folder->IsSent()) return {};
  if (item.IsFolder() && !IsFree(item)) return {};
  if (const auto rest = RestOf(item)) return {.at = rest};
  // Who has it open may still need bytes that only the service has.
  const bool needed = core_.contents->IsOpen(item.number) && !core_.contents->IsComplete(item);
  if (needed && !urgent_) return {};
  return {.step = Step{.kind = StepKind::kDelete, .item = item, .to = {}}};
}

/// Whether nothing that the service has in the removed folder is still needed.
bool Plan::IsFree(const Item& folder) {
  const std::vector<Item> inside = core_.catalog.BaseEntries(folder.number);
  return std::all_of(inside.begin(), inside.end(), [&](const Item& child) {
    const bool waits = !child.IsRemoved() || !child.IsSent() || core_.busy.contains(child.number);
    return !waits && (!child.IsFolder() || IsFree(child));
  });
}

/// Names rest for a moment, too: editors save by renaming and removing, and what is undone before
/// it is sent leaves the item at the service as it was. Nothing: it has rested.
std::optional<FileTime> Plan::RestOf(const Item& item) const {
  const auto rest = std::min<std::chrono::seconds>(core_.options.upload_delay, kRestOfNames);
  const FileTime due = item.changed + rest;
  const FileTime now = core_.clock.Now();
  if (urgent_ || item.IsFolder() || due <= now || item.changed > now) return std::nullopt;
  return due;
}

bool Plan::CanHold(ItemNumber folder) const {
  const std::optional<Item> item = core_.catalog.Find(folder);
  return item && (item->IsSent() || item->number == kTop) && item->kind != Kind::kFixedFolder &&
         !item->IsRemoved();
}

/// What has to change at the service before the item can have the place there.
std::optional<Item> Plan::Blocker(const Item& item, const Place& place) {
  std::optional<Item> there = core_.catalog.FindBase(place.parent, place.name);
  if (there && there->number != item.number) return there;
  if (!item.IsFolder() || !item.IsSent()) return std::nullopt;
  // A folder cannot go into one that still lies in it there.
  ItemNumber folder = place.parent;
  while (folder != kTop && folder != 0) {
    std::optional<Item> above = core_.catalog.Find(folder);
    if (!above) return std::nullopt;
    if (above->base.parent == item.number) {
      ItemNumber moved = place.parent;
      while (moved != item.number) {
        std::optional<Item> step = core_.catalog.Find(moved);
        if (!step || step->IsMoved()) return step;
        moved = step->base.parent;
      }
    }
    folder = above->base.parent;
  }
  return std::nullopt;
}

/// The next of a chain that may be a circle.
std::optional<Item> Plan::WaitsFor(const Item& item) {
  std::optional<Item> folder = core_.catalog.Find(item.place.parent);
  if (folder && !folder->IsSent() && folder->number != kTop) return folder;
  return Blocker(item, item.place);
}

Readiness Plan::Unblock(const Item& item, const Item& blocker) {
  Item at = blocker;
  for (int length = 0; length < kLongestCircle; ++length) {
    if (at.number == item.number) break;
    if (at.IsRemoved() || (at.IsSent() && !at.IsMoved())) return {};
    const std::optional<Item> next = WaitsFor(at);
    if (!next) return {};
    at = *next;
  }
  // Only the item with the smallest number opens a circle.
  if (at.number != item.number || core_.busy.contains(blocker.number)) return {};
  const std::string name = "onedrive4b-" + std::to_string(blocker.number) + ".moving";
  return {.step = Step{.kind = StepKind::kRelocate,
                       .item = blocker,
                       .to = {.parent = blocker.base.parent, .name = name}}};
}

}  // namespace drive
