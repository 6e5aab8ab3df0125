// Entries: the operations on names. Each is one change of the catalog; the service hears of it
// later.
//
// Threads: everything needs the core's lock, which operations release while they wait for a
// listing.
#pragma once

#include <stop_token>
#include <string_view>

#include "drive/contents.h"
#include "drive/core.h"
#include "drive/folders.h"

namespace drive {

struct RenameRequest {
  ItemNumber from_folder = 0;
  std::string_view from;
  ItemNumber to_folder = 0;
  std::string_view to;
  bool keep = false;  ///< what stands at the new place must not be replaced
};

class Entries {
 public:
  Entries(Core& core, Folders& folders, Contents& contents)
      : core_(core), folders_(folders), contents_(contents) {}

  Item Find(Lock& lock, ItemNumber folder, std::string_view name, std::stop_token stop);
  Item MakeFolder(Lock& lock, ItemNumber folder, std::string_view name, std::stop_token stop);
  Item MakeFile(Lock& lock, ItemNumber folder, std::string_view name, bool executable,
                std::stop_token stop);
  void Rename(Lock& lock, const RenameRequest& request, std::stop_token stop);
  void RemoveFile(Lock& lock, ItemNumber folder, std::string_view name, std::stop_token stop);
  void RemoveFolder(Lock& lock, ItemNumber folder, std::string_view name, std::stop_token stop);

  /// Throws kDenied when what stands in the folder cannot be changed.
  void CheckChangeable(ItemNumber folder) const;
  /// The same for the content of a file: one that was shared by itself has no folder to upload to.
  void CheckFileChangeable(const Item& file) const;

 private:
  Item MakeItem(Lock& lock, Item item, std::stop_token stop);
  void CheckPlace(const Place& place) const;
  void CheckMove(const Item& source, const Place& to) const;
  ItemNumber DriveOf(ItemNumber folder) const;
  void NeedEmpty(Lock& lock, const Item& folder, std::stop_token stop);
  void Remove(Change& change, Item item);
  void Replace(Change& change, Item& source, Item target);
  void PassIdentity(Change& change, Item& from, Item& to);
  bool DropIfUnused(Change& change, const Item& item);

  Core& core_;
  Folders& folders_;
  Contents& contents_;
};

}  // namespace drive
