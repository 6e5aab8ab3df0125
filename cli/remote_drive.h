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
  std::string name;                ///< as asked for; empty for the drive's top
  std::optional<RemoteItem> item;  ///< what is there
  bool means_folder = false;       ///< written as the path of a folder
};

class RemoteDrive {
 public:
  explicit RemoteDrive(const host::ItemClient& items) : items_(items) {}

  /// The same drive by ids.
  const host::ItemClient& items() const noexcept { return items_; }

  /// Entries of a folder, sorted by name. Throws Failure.
  std::vector<host::Item> List(const RemoteItem& folder) const;

  /// The item that `path` names; a folder if that is how the path is written. Throws Failure.
  RemoteItem Find(const std::string& path) const;

  /// Where `path` is or would be: its folder must exist, the item itself need not. What is there is
  /// a folder if that is how the path is written. Throws Failure.
  RemotePlace Locate(const std::string& path) const;

  /// The place `name` in `folder`. Throws Failure.
  RemotePlace Inside(const RemoteItem& folder, const std::string& name) const;

  /// What the service says of the item now. Throws Failure.
  host::Item Describe(const RemoteItem& item) const;

  /// The folder that new things go to unless another is named: the user's own drive.
  RemoteItem OwnDrive() const;

  /// Throws a kNotFound Failure when the path was written as that of a folder, but a file would be
  /// made there.
  static void CheckPlaceForFile(const RemotePlace& place);

  /// Makes the folder `name`. Throws Failure.
  RemoteItem MakeFolder(const RemoteItem& parent, const std::string& name) const;

 private:
  RemoteItem Top() const;
  Lister Lists() const;

  const host::ItemClient& items_;
};

}  // namespace cli
