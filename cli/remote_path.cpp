#include "cli/remote_path.h"

#include <algorithm>
#include <utility>

#include "base/utf8.h"
#include "host/failure.h"
#include "host/text.h"

namespace cli {

std::vector<std::string> SplitRemotePath(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (name == "..") {
      if (!names.empty()) names.pop_back();
    } else if (!name.empty() && name != ".") {
      names.emplace_back(name);
    }
  }
  return names;
}

bool MeansFolder(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return path == "." || path == "..";
  const std::string_view last = path.substr(slash + 1);
  return last.empty() || last == "." || last == "..";
}

std::string JoinRemotePath(const std::string& folder, const std::string& name) {
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

const host::Item* FindEntry(const std::vector<host::Item>& entries, const std::string& name) {
  const auto find = [&entries](auto matches) -> const host::Item* {
    const auto found = std::find_if(entries.begin(), entries.end(), matches);
    return found == entries.end() ? nullptr : &*found;
  };
  const auto* exact = find([&name](const host::Item& entry) { return entry.name == name; });
  if (exact != nullptr) return exact;
  return find([folded = base::FoldCase(name)](const host::Item& entry) {
    return base::FoldCase(entry.name) == folded;
  });
}

RemoteItem ResolvePath(const RemoteItem& top, const std::vector<std::string>& names,
                       const Lister& list) {
  RemoteItem item = top;
  for (const std::string& name : names) {
    if (!item.item.folder) {
      throw host::Failure(host::FailureKind::kNotFound,
                          host::Quoted(item.path) + " is a file, not a folder");
    }
    const std::vector<host::Item> entries = list(item);
    const host::Item* entry = FindEntry(entries, name);
    if (entry == nullptr) {
      throw host::Failure(host::FailureKind::kNotFound,
                          "there is no " + host::Quoted(name) + " in " + host::Quoted(item.path));
    }
    item = {JoinRemotePath(item.path, entry->name), item.item.id, *entry};
  }
  return item;
}

void SortByName(std::vector<host::Item>& entries) {
  std::vector<std::pair<std::string, host::Item>> keyed;
  keyed.reserve(entries.size());
  for (host::Item& entry : entries) {
    std::string folded = base::FoldCase(entry.name);
    keyed.emplace_back(std::move(folded), std::move(entry));
  }
  std::sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first, a.second.name) < std::tie(b.first, b.second.name);
  });
  std::transform(keyed.begin(), keyed.end(), entries.begin(),
                 [](auto& pair) { return std::move(pair.second); });
}

void CheckWritable(const RemoteItem& folder) {
  if (!folder.item.made_up) return;
  throw host::Failure(host::FailureKind::kFailed,
                      "items cannot be added to " + host::Quoted(folder.path),
                      "choose a folder in '/My Drive'");
}

void CheckChangeable(const RemoteItem& item) {
  if (!item.item.made_up && item.item.id != host::kDriveId) return;
  throw host::Failure(host::FailureKind::kFailed, host::Quoted(item.path) + " cannot be changed",
                      "choose an item inside it");
}

void CheckNewName(const std::string& name) {
  // The service's rules for names in OneDrive and SharePoint.
  constexpr std::string_view kForbidden = "\"*:<>?/\\|";
  const bool control = std::any_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  });
  if (name.empty() || name == "." || name == ".." || control ||
      name.find_first_of(kForbidden) != std::string::npos || name.ends_with('.') ||
      name.ends_with(' ') || name.starts_with(' ') || base::ValidUtf8(name) != name) {
    throw host::Failure(
        host::FailureKind::kRefused, "the service does not allow the name " + host::Quoted(name),
        "names must not contain \" * : < > ? / \\ | or control characters, must not begin with a "
        "blank and must not end with a blank or a dot");
  }
}

}  // namespace cli
