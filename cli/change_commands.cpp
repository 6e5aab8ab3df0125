#include "cli/change_commands.h"

#include "host/text.h"

namespace cli {
namespace {

/// Where `source` goes when the person named `target`: into that folder, or to that very path.
RemotePlace MovePlace(const RemoteDrive& drive, const RemoteItem& source,
                      const std::string& target) {
  RemotePlace place = drive.Locate(target);
  const bool itself = place.item && place.item->item.id == source.item.id;
  if (!place.item || itself || !place.item->item.folder) return place;
  return drive.Inside(*place.item, source.item.name);
}

void CheckMove(const RemoteItem& source, const RemotePlace& place) {
  CheckChangeable(source);
  CheckWritable(place.folder);
  if (place.item && place.item->item.id != source.item.id) {
    throw host::Failure(host::FailureKind::kConflict,
                        host::Quoted(place.item->path) + " already exists",
                        "delete it first, or choose another name");
  }
  CheckNewName(place.name);
  if (!source.item.folder) RemoteDrive::CheckPlaceForFile(place);
  if (source.item.folder &&
      (place.folder.path + "/").starts_with(JoinRemotePath(source.path, ""))) {
    throw host::Failure(
        host::FailureKind::kFailed,
        host::Quoted(source.path) + " cannot be moved into " + host::Quoted(place.folder.path));
  }
}

}  // namespace

void MakeFolder(const Options& options, const RemoteDrive& drive) {
  if (!options.parents) {
    const RemotePlace place = drive.Locate(options.remote);
    if (place.item)
      throw host::Failure(host::FailureKind::kConflict,
                          host::Quoted(place.item->path) + " already exists");
    drive.MakeFolder(place.folder, place.name);
    return;
  }
  RemoteItem folder = drive.Find("/");
  bool made = false;
  for (const std::string& name : SplitRemotePath(options.remote)) {
    std::vector<host::Item> entries;
    if (!made) entries = drive.List(folder);
    const host::Item* entry = FindEntry(entries, name);
    if (entry == nullptr) {
      folder = drive.MakeFolder(folder, name);
      made = true;
      continue;
    }
    folder = {JoinRemotePath(folder.path, entry->name), folder.item.id, *entry};
    if (!folder.item.folder) {
      throw host::Failure(host::FailureKind::kFailed,
                          host::Quoted(folder.path) + " is a file, not a folder");
    }
  }
}

void MoveItem(const Options& options, const RemoteDrive& drive) {
  const RemoteItem source = drive.Find(options.remote);
  const RemotePlace place = MovePlace(drive, source, options.target);
  CheckMove(source, place);
  const bool same_folder = place.folder.item.id == source.parent_id;
  if (same_folder && place.name == source.item.name) return;
  const host::ItemClient& items = drive.items();
  if (same_folder) {
    items.Rename(source.item, place.name, source.path);
  } else {
    items.Move(source.item,
               {place.folder.item.id, place.name, JoinRemotePath(place.folder.path, place.name)},
               source.path);
  }
}

void RemoveItem(const Options& options, const RemoteDrive& drive) {
  const RemoteItem item = drive.Find(options.remote);
  CheckChangeable(item);
  if (item.item.folder && !options.recursive) {
    throw host::Failure(host::FailureKind::kFailed, host::Quoted(item.path) + " is a folder",
                        "-r deletes a folder and everything in it");
  }
  drive.items().Delete(item.item, item.path);
}

}  // namespace cli
