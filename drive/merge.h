// Merge: takes what the service says into the catalog.
//
// The service's side of an item (its base) always follows. The local side follows where nothing was
// changed here; where something was, both sides stay: see docs/drive.md, "Conflicts".
//
// Lives for one Change; the core's lock is held.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "drive/contents.h"
#include "drive/core.h"

namespace drive {

/// A complete listing of a folder.
struct Listing {
  ItemNumber folder = 0;
  std::vector<RemoteItem> items = {};
  Answers::Question question = 0;
  /// What the service said when it was asked for the items that the listing leaves out and that
  /// mean something here; nothing: they are gone.
  std::map<ItemNumber, std::optional<RemoteItem>> asked = {};
};

/// Whether the service has another tag only because a request of ours, of which the answer was
/// lost, has moved the item.
inline bool WasMoved(const Item& item, const RemoteItem& remote) {
  return item.tried.parent != 0 && remote.etag != item.etag && remote.name == item.tried.name &&
         remote.size == item.base_size && remote.modified == item.base_modified;
}

class Merge {
 public:
  explicit Merge(Change& change) : change_(change), core_(change.core()) {}

  /// The items that have to be asked for before the listing may be applied.
  static std::vector<Item> Missing(Core& core, const Listing& listing);

  void Apply(const Listing& listing);

  /// What the service says of a known item. Its place is taken from elsewhere.
  void Update(Item& item, const RemoteItem& remote);

  /// The service's answer about an item that a request without an answer was to move.
  void SettleTried(Item& item, const RemoteItem& remote);

  /// The service does not have the item any more.
  void Gone(Item item);

  /// Takes an unknown entry in, unless something of here stands in its place. Returns whether the
  /// entry is in the catalog afterwards.
  bool Insert(const Item& folder, const RemoteItem& remote);

  /// The local item takes a conflict copy's name, so that the service's can have this one. With
  /// `as_new`, it is a new item from then on: what the service has is not its earlier version.
  void StepAside(Item& item, bool as_new);

  /// A changed file was changed at the service, too: ours steps aside as a new file, the service's
  /// version takes its place.
  void Split(Item item, const RemoteItem& remote);

 private:
  bool IsOutdated(const Listing& listing, const std::string& id) const;
  void TakeAbsent(const Listing& listing);
  void Follow(const Item& folder, const std::vector<std::pair<Item, RemoteItem>>& known);
  void PlaceAt(Item& item, const Place& place);
  std::optional<Item> MovedBetween(ItemNumber folder, ItemNumber above) const;
  bool CanHold(ItemNumber folder, ItemNumber item);
  void MakeNew(Item& item);
  void Put(Item& item) { core_.catalog.Put(item); }

  Change& change_;
  Core& core_;
};

}  // namespace drive
