#include "cli/transfer_commands.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <sys/stat.h>

#include "cli/batch.h"
#include "host/text.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

bool IsLocalFolder(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

void MakeLocalFolder(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0777) == 0) return;
  const int error = errno;
  if (error != EEXIST || !IsLocalFolder(folder)) {
    throw host::LocalFailure("create the folder", folder.string(), error);
  }
}

/// Where `name` goes when the person asked for `local`.
fs::path LocalPlace(const std::string& local, const std::string& name) {
  fs::path place = local.empty() ? fs::path(".") : fs::path(local);
  if (!IsLocalFolder(place)) return place;
  if (name.empty()) return place;
  CheckLocalName(name);
  return place / name;
}

void DownloadFolder(const TransferContext& context, const RemoteItem& folder,
                    const fs::path& target, Batch& batch) {
  MakeLocalFolder(target);
  for (const host::Item& entry : context.drive.List(folder)) {
    batch.Try([&] {
      CheckLocalName(entry.name);
      const RemoteItem item{JoinRemotePath(folder.path, entry.name), folder.item.id, entry};
      const fs::path place = target / entry.name;
      if (entry.folder) {
        DownloadFolder(context, item, place, batch);
      } else {
        Download(context, item, place);
      }
    });
  }
}

std::vector<fs::path> LocalEntries(const fs::path& folder) {
  std::vector<fs::path> entries;
  try {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      entries.push_back(entry.path());
    }
  } catch (const fs::filesystem_error& error) {
    throw host::LocalFailure("list", folder.string(), error.code().value());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

/// The folder `name` in `parent`, made if it is missing.
RemoteItem EnsureFolder(const TransferContext& context, const RemoteItem& parent,
                        const std::string& name, const std::vector<host::Item>& entries) {
  const host::Item* entry = FindEntry(entries, name);
  if (entry == nullptr) return context.drive.MakeFolder(parent, name);
  RemoteItem item{JoinRemotePath(parent.path, entry->name), parent.item.id, *entry};
  if (!item.item.folder) {
    throw host::Failure(host::FailureKind::kFailed,
                        host::Quoted(item.path) + " is a file, not a folder");
  }
  return item;
}

void UploadInto(const TransferContext& context, const fs::path& file, const RemoteItem& folder,
                const std::string& name, const host::Item* existing) {
  if (existing != nullptr && existing->folder) {
    throw host::Failure(
        host::FailureKind::kFailed,
        host::Quoted(JoinRemotePath(folder.path, name)) + " is a folder, not a file");
  }
  UploadFile(context, file, folder, name);
}

void UploadFolder(const TransferContext& context, const fs::path& source, const RemoteItem& folder,
                  Batch& batch) {
  const std::vector<host::Item> known = context.drive.List(folder);
  for (const fs::path& entry : LocalEntries(source)) {
    batch.Try([&] {
      const std::string name = entry.filename().string();
      if (!IsLocalFolder(entry)) {
        return UploadInto(context, entry, folder, name, FindEntry(known, name));
      }
      if (fs::is_symlink(entry)) {
        throw host::Failure(
            host::FailureKind::kLocal,
            host::Quoted(entry.string()) + " is a link to a folder; such links are not followed");
      }
      UploadFolder(context, entry, EnsureFolder(context, folder, name, known), batch);
    });
  }
}

/// The last name of a local path, also of ".", ".." and "dir/".
std::string LocalName(const std::string& path) {
  std::error_code error;
  const fs::path whole = fs::canonical(path, error);
  if (error) throw host::LocalFailure("read", path, error.value());
  fs::path last = fs::path(path).filename();
  if (last.empty() || last == "." || last == "..") last = whole.filename();
  if (last.empty())
    throw host::Failure(host::FailureKind::kUsage,
                        host::Quoted(path) + " has no name to upload it as");
  return last.string();
}

/// Where an upload goes when the person named `target`: into that folder under the local name, or
/// to that very path.
RemotePlace UploadPlace(const TransferContext& context, const std::string& target,
                        const std::string& local_name) {
  const RemoteDrive& drive = context.drive;
  if (target.empty()) return drive.Inside(drive.OwnDrive(), local_name);
  RemotePlace place = drive.Locate(target);
  if (!place.item || !place.item->item.folder) return place;
  return drive.Inside(*place.item, local_name);
}

}  // namespace

void CheckLocalName(const std::string& name) {
  if (!name.empty() && name != "." && name != ".." &&
      name.find_first_of(std::string_view("/\0", 2)) == std::string::npos) {
    return;
  }
  throw host::Failure(host::FailureKind::kLocal,
                      "no local file can be named " + host::Quoted(name));
}

void Get(const TransferContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  const fs::path place = LocalPlace(context.options.local, item.item.name);
  if (!item.item.folder) {
    if (context.options.local.ends_with('/') && !IsLocalFolder(context.options.local)) {
      throw host::LocalFailure("write to the folder", context.options.local, ENOENT);
    }
    return Download(context, item, place);
  }
  if (!context.options.recursive) {
    throw host::Failure(host::FailureKind::kFailed, host::Quoted(item.path) + " is a folder",
                        "-r downloads a folder and everything in it");
  }
  Batch batch;
  DownloadFolder(context, item, place, batch);
  batch.Check("item", "transferred");
}

void Cat(const TransferContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  if (item.item.folder)
    throw host::Failure(host::FailureKind::kFailed, host::Quoted(item.path) + " is a folder");
  Print(context, item);
}

void Put(const TransferContext& context) {
  const std::string& local = context.options.local;
  const bool folder = IsLocalFolder(local);
  if (folder && !context.options.recursive) {
    throw host::Failure(host::FailureKind::kFailed, host::Quoted(local) + " is a folder",
                        "-r uploads a folder and everything in it");
  }
  const RemotePlace place = UploadPlace(context, context.options.target, LocalName(local));
  const host::Item* existing = place.item ? &place.item->item : nullptr;
  if (!folder) {
    RemoteDrive::CheckPlaceForFile(place);
    return UploadInto(context, local, place.folder, place.name, existing);
  }
  std::vector<host::Item> known;
  if (existing != nullptr) known.push_back(*existing);
  Batch batch;
  UploadFolder(context, local, EnsureFolder(context, place.folder, place.name, known), batch);
  batch.Check("item", "transferred");
}

}  // namespace cli
