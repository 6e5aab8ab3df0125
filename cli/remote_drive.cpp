#include "cli/remote_drive.h"

#include "host/text.h"

namespace cli {
namespace {

host::Failure NoFolder(const std::string& path) {
  return {host::FailureKind::kNotFound, "there is no folder " + host::Quoted(path)};
}

}  // namespace
std::vector<host::Item> RemoteDrive::List(const RemoteItem& folder) const {
  std::vector<host::Item> entries = items_.List(folder.item.id, folder.path);
  SortByName(entries);
  return entries;
}

RemoteItem RemoteDrive::Find(const std::string& path) const {
  RemoteItem item = ResolvePath(Top(), SplitRemotePath(path), Lists());
  if (MeansFolder(path) && !item.item.folder) throw NoFolder(path);
  return item;
}

RemotePlace RemoteDrive::Locate(const std::string& path) const {
  std::vector<std::string> names = SplitRemotePath(path);
  const RemoteItem top = Top();
  if (names.empty()) return {top, "", top};
  const std::string name = std::move(names.back());
  names.pop_back();
  RemotePlace place = Inside(ResolvePath(top, names, Lists()), name);
  place.means_folder = MeansFolder(path);
  if (place.means_folder && place.item && !place.item->item.folder) throw NoFolder(path);
  return place;
}

RemotePlace RemoteDrive::Inside(const RemoteItem& folder, const std::string& name) const {
  if (!folder.item.folder) {
    throw host::Failure(host::FailureKind::kNotFound,
                        host::Quoted(folder.path) + " is a file, not a folder");
  }
  RemotePlace place{folder, name, std::nullopt};
  const auto entries = List(folder);
  if (const host::Item* entry = FindEntry(entries, name)) {
    place.item = {JoinRemotePath(folder.path, entry->name), folder.item.id, *entry};
  }
  return place;
}

void RemoteDrive::CheckPlaceForFile(const RemotePlace& place) {
  if (place.means_folder && !place.item) {
    throw NoFolder(JoinRemotePath(place.folder.path, place.name));
  }
}

RemoteItem RemoteDrive::MakeFolder(const RemoteItem& parent, const std::string& name) const {
  CheckWritable(parent);
  CheckNewName(name);
  const std::string path = JoinRemotePath(parent.path, name);
  return {path, parent.item.id, items_.MakeFolder({parent.item.id, name, path})};
}

host::Item RemoteDrive::Describe(const RemoteItem& item) const {
  return items_.Describe(item.item.id, item.path);
}

RemoteItem RemoteDrive::OwnDrive() const {
  RemoteItem top = Top();
  if (top.item.id == host::kDriveId) return top;
  for (const host::Item& entry : List(top)) {
    if (entry.id == host::kDriveId) {
      return {JoinRemotePath(top.path, entry.name), top.item.id, entry};
    }
  }
  throw host::Failure(host::FailureKind::kNotFound, "the account has no drive");
}

RemoteItem RemoteDrive::Top() const { return {"/", "", items_.Top()}; }

Lister RemoteDrive::Lists() const {
  return [this](const RemoteItem& folder) { return List(folder); };
}

}  // namespace cli
