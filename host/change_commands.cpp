#include "host/change_commands.h"

#include "host/text.h"

namespace host {
namespace {

/// Where `source` goes when the person named `target`: into that folder, or to that very path.
RemotePlace MovePlace(const RemoteDrive& drive, const RemoteItem& source,
                      const std::string& target) {
  RemotePlace place = drive.Locate(target);
  const bool itself = place.item && place.item->record.id == source.record.id;
  if (!place.item || itself || !IsFolder(place.item->record)) return place;
  return drive.Inside(*place.item, source.record.filename);
}

void CheckMove(const RemoteItem& source, const RemotePlace& place) {
  CheckChangeable(source);
  CheckWritable(place.folder);
  if (place.item && place.item->record.id != source.record.id) {
    throw Failure(FailureKind::kConflict, Quoted(place.item->path) + " exists already",
                  "delete it first, or choose another name");
  }
  CheckNewName(place.name);
  if (IsFolder(source.record) &&
      (place.folder.path + "/").starts_with(JoinRemotePath(source.path, ""))) {
    throw Failure(FailureKind::kFailed,
                  Quoted(source.path) + " cannot be moved into " + Quoted(place.folder.path));
  }
}

}  // namespace

void MakeFolder(const Options& options, const RemoteDrive& drive) {
  if (!options.parents) {
    const RemotePlace place = drive.Locate(options.remote);
    if (place.item)
      throw Failure(FailureKind::kConflict, Quoted(place.item->path) + " exists already");
    drive.MakeFolder(place.folder, place.name);
    return;
  }
  RemoteItem folder = drive.Find("/");
  bool made = false;
  for (const std::string& name : SplitRemotePath(options.remote)) {
    std::vector<_FS_FILE_V2> entries;
    if (!made) entries = drive.List(folder.record.id, folder.path);
    const _FS_FILE_V2* entry = FindEntry(entries, name);
    if (entry == nullptr) {
      folder = drive.MakeFolder(folder, name);
      made = true;
      continue;
    }
    folder = {JoinRemotePath(folder.path, entry->filename), folder.record.id, *entry};
    if (!IsFolder(folder.record)) {
      throw Failure(FailureKind::kFailed, Quoted(folder.path) + " is a file, not a folder");
    }
  }
}

void MoveItem(const Options& options, const RemoteDrive& drive) {
  const RemoteItem source = drive.Find(options.remote);
  const RemotePlace place = MovePlace(drive, source, options.target);
  CheckMove(source, place);
  const bool same_folder = place.folder.record.id == source.parent_id;
  if (same_folder && place.name == source.record.filename) return;
  _FS_FILE_V2 record = source.record;
  record.filename = place.name;
  const std::string target = JoinRemotePath(place.folder.path, place.name);
  const char* id = source.record.id.c_str();
  if (same_folder) {
    return drive.session().Check(drive.protocol().Rename(id, target.c_str(), &record, nullptr),
                                 "renaming " + Quoted(source.path) + " to " + Quoted(place.name));
  }
  // The drive's own top is no item that a request could name as a parent.
  const std::string& folder = place.folder.record.id;
  const char* folder_id = folder == kDriveId ? "" : folder.c_str();
  const AERROR result = IsFolder(record) ? drive.protocol().MoveDir(id, folder_id, &record, nullptr)
                                         : drive.protocol().Move(id, folder_id, &record, nullptr);
  drive.session().Check(result, "moving " + Quoted(source.path) + " to " + Quoted(target));
}

void RemoveItem(const Options& options, const RemoteDrive& drive) {
  RemoteItem item = drive.Find(options.remote);
  CheckChangeable(item);
  const bool folder = IsFolder(item.record);
  if (folder && !options.recursive) {
    throw Failure(FailureKind::kFailed, Quoted(item.path) + " is a folder",
                  "delete it with all it holds with -r");
  }
  const AERROR result = folder ? drive.protocol().DeleteDirectory(&item.record, nullptr)
                               : drive.protocol().Delete(&item.record, nullptr);
  drive.session().Check(result, "deleting " + Quoted(item.path));
}

}  // namespace host
