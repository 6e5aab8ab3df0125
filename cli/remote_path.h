// Remote paths: how a person names items that the module knows by ids only.
//
// Pure functions over a lister; callable from any thread that may call the lister.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/item.h"

namespace cli {

/// An item and the path that leads to it.
struct RemoteItem {
  std::string path;       ///< absolute, with the names as the service writes them
  std::string parent_id;  ///< of the folder it is in; empty for the top
  host::Item item;
};

/// Entries of a folder; throws Failure.
using Lister = std::function<std::vector<host::Item>(const RemoteItem& folder)>;

/// The names in `path`, which may begin with "/" or not; "." and empty ones are dropped, ".." takes
/// the one before it away.
std::vector<std::string> SplitRemotePath(std::string_view path);

/// Whether `path` is written as that of a folder: with a slash at the end, or with "." or ".."
/// after the last one.
bool MeansFolder(std::string_view path);

/// "/a" + "b" is "/a/b".
std::string JoinRemotePath(const std::string& folder, const std::string& name);

/// The entry that `name` means: the one spelled so, else one that differs in case only, as the
/// service compares names. Null when there is none.
const host::Item* FindEntry(const std::vector<host::Item>& entries, const std::string& name);

/// Follows the names from `top`. Throws a kNotFound Failure that names the missing one.
RemoteItem ResolvePath(const RemoteItem& top, const std::vector<std::string>& names,
                       const Lister& list);

/// By name: without regard to case first, then byte by byte.
void SortByName(std::vector<host::Item>& entries);

/// Throws a kFailed Failure for a folder that the module made up, to which nothing can be added.
void CheckWritable(const RemoteItem& folder);

/// Throws a kFailed Failure for an item that nobody can rename, move or delete: the drives and
/// the folders that the module made up.
void CheckChangeable(const RemoteItem& item);

/// Throws a kRefused Failure for a name that the service does not accept.
void CheckNewName(const std::string& name);

}  // namespace cli
