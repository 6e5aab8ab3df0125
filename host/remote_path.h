// Remote paths: how a person names items that the module knows by ids only.
//
// Pure functions over a lister; callable from any thread that may call the lister.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "onedrive4b/records.h"

namespace host {

/// Kind bits of a record's `attr`.
inline constexpr std::uint32_t kFolderBit = 2;
inline constexpr std::uint32_t kSynthesisedBit = 0x40;
/// Id of the user's own drive, which the module shows as "My Drive" or as the top.
inline constexpr const char* kDriveId = "root";

inline bool IsFolder(const _FS_FILE_V1& record) { return (record.attr & kFolderBit) != 0; }

/// An item and the path that leads to it.
struct RemoteItem {
  std::string path;       ///< absolute, with the names as the service writes them
  std::string parent_id;  ///< of the folder it is in; empty for the top
  _FS_FILE_V2 record;
};

/// Entries of the folder with this id; throws Failure. The path is for its messages.
using Lister =
    std::function<std::vector<_FS_FILE_V2>(const std::string& id, const std::string& path)>;

/// The names in `path`, which may begin with "/" or not; "." and empty ones are dropped, ".." takes
/// the one before it away.
std::vector<std::string> SplitRemotePath(std::string_view path);

/// "/a" + "b" is "/a/b".
std::string JoinRemotePath(const std::string& folder, const std::string& name);

/// The entry that `name` means: the one spelled so, else one that differs in case only, as the
/// service compares names. Null when there is none.
const _FS_FILE_V2* FindEntry(const std::vector<_FS_FILE_V2>& entries, const std::string& name);

/// Follows the names from `top`. Throws a kNotFound Failure that names the missing one.
RemoteItem ResolvePath(const RemoteItem& top, const std::vector<std::string>& names,
                       const Lister& list);

/// By name: without regard to case first, then byte by byte.
void SortByName(std::vector<_FS_FILE_V2>& entries);

/// Throws a kFailed Failure for a folder that the module made up, to which nothing can be added.
void CheckWritable(const RemoteItem& folder);

/// Throws a kFailed Failure for an item that is no one's to rename, move or delete: the drives and
/// the folders that the module made up.
void CheckChangeable(const RemoteItem& item);

/// Throws a kRefused Failure for a name that the service does not accept.
void CheckNewName(const std::string& name);

}  // namespace host
