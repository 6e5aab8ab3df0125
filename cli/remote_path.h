// Remote paths: people name items by paths, the module knows only ids.
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

/// The names in `path`, which may begin with "/"; "." and empty names are dropped, and ".." removes
/// the name before it.
std::vector<std::string> SplitRemotePath(std::string_view path);

/// Whether `path` is written as a folder: it ends with a slash, or its last name is "." or "..".
bool MeansFolder(std::string_view path);

/// "/a" + "b" is "/a/b".
std::string JoinRemotePath(const std::string& folder, const std::string& name);

/// The entry with exactly this name, else an entry whose name differs only in case, as the service
/// compares names. Null if there is none.
const host::Item* FindEntry(const std::vector<host::Item>& entries, const std::string& name);

/// Follows the names from `top`. Throws a kNotFound Failure that names the missing one.
RemoteItem ResolvePath(const RemoteItem& top, const std::vector<std::string>& names,
                       const Lister& list);

/// By name: without regard to case first, then byte by byte.
void SortByName(std::vector<host::Item>& entries);

/// Throws a kFailed Failure for a folder that the module synthesised: nothing can be added to it.
void CheckWritable(const RemoteItem& folder);

/// Throws a kFailed Failure for an item that cannot be renamed, moved or deleted: the drives and
/// the synthesised folders.
void CheckChangeable(const RemoteItem& item);

/// Throws a kRefused Failure for a name that the service does not accept.
void CheckNewName(const std::string& name);

}  // namespace cli
