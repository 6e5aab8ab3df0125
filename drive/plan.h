// Plan: which request an item's changes need next, and whether it may go out now.
//
// A request may go out when the service can carry it out as things stand there: the folder exists,
// the name is free, a folder that is to be removed holds nothing that is still needed. Names that
// wait for each other in a circle are freed through a name of our own.
//
// Needs the core's lock.
#pragma once

#include <optional>
#include <string>

#include "drive/contents.h"
#include "drive/core.h"

namespace drive {

enum class StepKind {
  kMakeFolder,
  kUpload,
  kRelocate,
  kDelete,
  kFind,  ///< find out whether the service made the item that it gave no answer about
};

struct Step {
  StepKind kind = StepKind::kUpload;
  Item item;
  Place to;  ///< where the service is to have the item
};

struct Readiness {
  std::optional<Step> step = {};
  /// When it may be ready, if time alone makes it so.
  std::optional<FileTime> at = {};
};

class Plan {
 public:
  Plan(Core& core, bool urgent) : core_(core), urgent_(urgent) {}

  Readiness Of(const Item& item);

 private:
  Readiness OfRemoved(const Item& item);
  Readiness OfFile(Readiness ready, const Item& item);
  std::optional<FileTime> RestOf(const Item& item) const;
  bool CanHold(ItemNumber folder) const;
  bool IsFree(const Item& folder);
  std::optional<Item> Blocker(const Item& item, const Place& place);
  std::optional<Item> WaitsFor(const Item& item);
  Readiness Unblock(const Item& item, const Item& blocker);

  Core& core_;
  const bool urgent_;  ///< nothing rests
};

}  // namespace drive
