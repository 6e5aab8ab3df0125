#include "host/remote_drive.h"

#include <array>

#include "host/text.h"

namespace host {
namespace {

/// Collects a listing.
class Collector final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    if (file == nullptr) return INVALID_PARAMETER;
    entries.push_back(*file);
    return SUCCESS;
  }

  std::vector<_FS_FILE_V2> entries;
};

}  // namespace

std::vector<_FS_FILE_V2> RemoteDrive::List(const std::string& id, const std::string& path) const {
  Collector collector;
  session_.Check(protocol().GetFileList(id.c_str(), &collector, nullptr),
                 "listing " + Quoted(path));
  SortByName(collector.entries);
  return std::move(collector.entries);
}

RemoteItem RemoteDrive::Find(const std::string& path) const {
  return ResolvePath(
      Top(), SplitRemotePath(path),
      [this](const std::string& id, const std::string& folder) { return List(id, folder); });
}

RemotePlace RemoteDrive::Locate(const std::string& path) const {
  std::vector<std::string> names = SplitRemotePath(path);
  const RemoteItem top = Top();
  if (names.empty()) return {top, "", top};
  const std::string name = std::move(names.back());
  names.pop_back();
  const auto list = [this](const std::string& id, const std::string& folder) {
    return List(id, folder);
  };
  RemotePlace place = Inside(ResolvePath(top, names, list), name);
  if (path.ends_with('/') && (!place.item || !IsFolder(place.item->record))) {
    throw Failure(FailureKind::kNotFound, "there is no folder " + Quoted(path));
  }
  return place;
}

RemotePlace RemoteDrive::Inside(const RemoteItem& folder, const std::string& name) const {
  if (!IsFolder(folder.record)) {
    throw Failure(FailureKind::kNotFound, Quoted(folder.path) + " is a file, not a folder");
  }
  RemotePlace place{folder, name, std::nullopt};
  const auto entries = List(folder.record.id, folder.path);
  if (const _FS_FILE_V2* entry = FindEntry(entries, name)) {
    place.item = {JoinRemotePath(folder.path, entry->filename), folder.record.id, *entry};
  }
  return place;
}

RemoteItem RemoteDrive::MakeFolder(const RemoteItem& parent, const std::string& name) const {
  CheckWritable(parent);
  CheckNewName(name);
  const std::string path = JoinRemotePath(parent.path, name);
  _FS_FILE_V2 record;
  record.filename = name;
  session_.Check(protocol().CreateDirectory(parent.record.id.c_str(), &record, nullptr),
                 "making the folder " + Quoted(path));
  return {path, parent.record.id, record};
}

_FS_FILE_V2 RemoteDrive::Describe(const RemoteItem& item) const {
  _FS_FILE_V2 record;
  session_.Check(protocol().GetFileInfo(item.record.id.c_str(), &record, nullptr),
                 "looking up " + Quoted(item.path));
  return record;
}

RemoteItem RemoteDrive::OwnDrive() const {
  RemoteItem top = Top();
  if (top.record.id == kDriveId) return top;
  for (const _FS_FILE_V2& entry : List(top.record.id, top.path)) {
    if (entry.id == kDriveId) {
      return {JoinRemotePath(top.path, entry.filename), top.record.id, entry};
    }
  }
  throw Failure(FailureKind::kNotFound, "the account has no drive of its own");
}

RemoteItem RemoteDrive::Top() const {
  std::array<char, 1024> id{};
  int length = static_cast<int>(id.size()) - 1;
  session_.Check(protocol().GetRootID(id.data(), &length), "finding the drive's top");
  RemoteItem top;
  top.path = "/";
  top.record.id = id.data();
  top.record.attr = top.record.id.empty() ? kFolderBit | kSynthesisedBit : kFolderBit;
  return top;
}

}  // namespace host
