// RemoteDrive: the drive by paths.
//
// Threads: every operation may be called from several threads at once.
// Lifetime: the client must outlive it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/remote_path.h"
#include "host/item_client.h"

namespace cli {

/// A place for an item that may not exist yet.
struct RemotePlace {
  RemoteItem folder;               ///< the folder it is in
  std::string name;                ///< as requested; empty for the drive's top
  std::optional<RemoteItem> item;  ///< the existing item
  bool means_folder = false;       ///< written as the path of a folder
};

class RemoteDrive {
 public:
  explicit RemoteDrive(const host::ItemClient& items) : items_(items) {}

  /// The same drive by ids.
  const host::ItemClient& items() const noexcept { return items_; }

  /// Entries of a folder, sorted by name. Throws Failure.
  std::vector<host::Item> List(const RemoteItem& folder) const;

  /// The item at `path`; it must be a folder if the path is written as one. Throws Failure.
  RemoteItem Find(const std::string& path) const;

  /// The place of `path`: its folder must exist, the item itself need not. An existing item must be
  /// a folder if the path is written as one. Throws Failure.
  RemotePlace Locate(const std::string& path) const;

  /// The place `name` in `folder`. Throws Failure.
  RemotePlace Inside(const RemoteItem& folder, const std::string& name) const;

  /// The current item. Throws Failure.
  host::Item Describe(const RemoteItem& item) const;

  /// The default folder for new items: the user's own drive.
  RemoteItem OwnDrive() const;

  /// Throws a kNotFound Failure if the path is written as a folder, but the command would create a
  /// file there.
  static void CheckPlaceForFile(const RemotePlace& place);

  /// Makes the folder `name`. Throws Failure.
  RemoteItem MakeFolder(const RemoteItem& parent, const std::string& name) const;

 private:
  RemoteItem Top() const;
  Lister Lists() const;

  const host::ItemClient& items_;
};

}  // namespace cli
