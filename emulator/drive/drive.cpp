#include "emulator/drive/drive.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "emulator/drive/names.h"
#include "emulator/http/service_error.h"
#include "emulator/text/random_text.h"

namespace emulator {
namespace {

/// Takes the next name off the front of a path; empty at its end.
std::string_view TakeName(std::string_view& path) {
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  const auto name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size());
  return name;
}

std::string UpperGuid() {
  std::string guid = RandomGuid();
  for (char& c : guid) {
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
  }
  return guid;
}

void RequireName(const std::string& name) {
  if (IsValidName(name)) return;
  throw InvalidRequest("The name is reserved, too long or holds characters that are not allowed.");
}

}  // namespace

std::string Item::ETag() const { return "\"{" + guid + "}," + std::to_string(version) + "\""; }

std::string Item::CTag() const {
  return "\"c:{" + guid + "}," + std::to_string(folder ? 0 : content_version) + "\"";
}

Drive::Drive(DriveOptions options)
    : options_(std::move(options)), store_([this] {
        return options_.directory.empty() ? std::filesystem::path()
                                          : options_.directory / "content";
      }()) {
  Load();
  if (!nodes_.empty()) return;
  id_ = RandomDriveId();
  Node root;
  root_id_ = root.item.id = RandomItemId();
  root.item.name = "root";
  root.item.folder = true;
  root.item.guid = UpperGuid();
  root.item.created = root.item.modified = Now();
  root.item.created_by = root.item.modified_by = options_.owner;
  MarkChanged(nodes_.emplace(root_id_, std::move(root)).first->second);
}

Drive::~Drive() = default;

bool Drive::IsEmpty() const {
  const std::lock_guard lock(mutex_);
  return nodes_.size() == 1;
}

std::string Drive::MakeFolder(std::string_view path) {
  const std::lock_guard lock(mutex_);
  return MakeFolders(path).item.id;
}

std::string Drive::WriteFile(std::string_view path, const ContentPtr& content) {
  const auto slash = path.rfind('/');
  const std::string name(path.substr(slash == std::string_view::npos ? 0 : slash + 1));
  if (!IsValidName(name))
    throw std::invalid_argument("no file name in '" + std::string(path) + "'");
  const auto kept = store_.Keep(content);
  const std::lock_guard lock(mutex_);
  Node& folder = MakeFolders(path.substr(0, path.size() - name.size()));
  const Node* there = FindChild(folder, name);
  if (there != nullptr && there->item.folder) {
    throw std::invalid_argument("'" + std::string(path) + "' is a folder");
  }
  Node& file = there != nullptr ? Get(there->item.id) : Insert(folder, name, false, Owner());
  PutContent(file, kept, Owner());
  return file.item.id;
}

std::string Drive::WriteFile(std::string_view path, std::string_view bytes) {
  return WriteFile(path, TextContent(bytes));
}

std::string Drive::AddFolder(std::string_view parent_id, const std::string& name) {
  return CreateFolder({.parent_id = std::string(parent_id), .name = name}).item.id;
}

std::string Drive::AddFile(std::string_view parent_id, const std::string& name,
                           const ContentPtr& content) {
  return StoreFile(
             {.parent_id = std::string(parent_id), .name = name, .on_conflict = OnConflict::kFail},
             content)
      .item.id;
}

std::optional<Item> Drive::FindPath(std::string_view path) const {
  const std::lock_guard lock(mutex_);
  const Node* node = FindNode(path);
  if (node == nullptr) return std::nullopt;
  return Describe(*node);
}

std::optional<Item> Drive::FindItem(std::string_view id) const {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.find(id);
  if (found == nodes_.end()) return std::nullopt;
  return Describe(found->second);
}

ContentPtr Drive::FindContent(std::string_view id) const {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.find(id);
  return found == nodes_.end() ? nullptr : found->second.content;
}

std::optional<std::string> Drive::ReadFile(std::string_view path) const {
  const auto item = FindPath(path);
  const ContentPtr content = item ? FindContent(item->id) : nullptr;
  if (!content) return std::nullopt;
  return ReadAll(*content);
}

bool Drive::Remove(std::string_view path) {
  const std::lock_guard lock(mutex_);
  const Node* node = FindNode(path);
  if (node == nullptr || node->item.IsRoot()) return false;
  const std::string id = node->item.id;
  Detach(Get(id));
  Erase(id);
  return true;
}

void Drive::Share(std::string_view id, SharedRole role) {
  const std::lock_guard lock(mutex_);
  Node& node = Get(id);
  node.item.shared = role;
  MarkChanged(node);
}

void Drive::Lock(std::string_view id) {
  const std::lock_guard lock(mutex_);
  locked_.insert(Get(id).item.id);
}

void Drive::Unlock(std::string_view id) {
  const std::lock_guard lock(mutex_);
  locked_.erase(Get(id).item.id);
}

void Drive::SetQuotaTotal(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  options_.quota = bytes;
}

Quota Drive::GetQuota() const {
  const std::lock_guard lock(mutex_);
  return {.total = options_.quota, .used = Get(root_id_).item.size};
}

void Drive::RewriteUploads(const std::string& name_ending, std::string extra) {
  const std::lock_guard lock(mutex_);
  rewrites_[FoldName(name_ending)] = std::move(extra);
}

Drive::Page Drive::Children(std::string_view folder_id, const std::string& from,
                            std::size_t limit) const {
  const std::lock_guard lock(mutex_);
  const Node& folder = Get(folder_id);
  Page page;
  for (auto it = folder.children.lower_bound(from); it != folder.children.end(); ++it) {
    if (page.items.size() == limit) {
      page.next = it->first;
      break;
    }
    page.items.push_back(Describe(Get(it->second)));
  }
  return page;
}

std::vector<Item> Drive::SharedItems() const {
  const std::lock_guard lock(mutex_);
  std::vector<Item> items;
  for (const auto& [id, node] : nodes_) {
    if (node.item.shared) items.push_back(Describe(node));
  }
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return a.name < b.name; });
  return items;
}

std::optional<SharedRole> Drive::RoleOf(std::string_view id) const {
  const std::lock_guard lock(mutex_);
  std::optional<SharedRole> role;
  for (const Node* node = &Get(id);; node = &Get(node->item.parent_id)) {
    if (node->item.shared == SharedRole::kWrite) return SharedRole::kWrite;
    if (node->item.shared) role = node->item.shared;
    if (node->item.IsRoot()) return role;
  }
}

Drive::Stored Drive::CreateFolder(const FolderRequest& request) {
  const std::lock_guard lock(mutex_);
  Node& parent = Get(request.parent_id);
  if (!parent.item.folder) throw InvalidRequest("The parent is not a folder.");
  std::string name = request.name;
  if (const Node* there = FindChild(parent, name)) {
    if (request.on_conflict == OnConflict::kFail) throw NameAlreadyExists();
    if (request.on_conflict == OnConflict::kReplace) {
      // A folder is never emptied by a replacement, and never takes the place of a file.
      if (!there->item.folder) throw NameAlreadyExists();
      return {.item = Describe(*there), .created = false};
    }
    name = FreeName(parent, name);
  }
  RequirePlace(parent, name, nullptr);
  return {.item = Describe(Insert(parent, name, true, Author(request.by))), .created = true};
}

Drive::Stored Drive::StoreFile(const FileRequest& request, const ContentPtr& content) {
  ContentPtr kept = content;
  try {
    CheckStore(request, content->Size());
    const std::string extra = ExtraFor(request.name);
    kept = store_.Keep(extra.empty() ? content : ExtendedContent(content, extra));
    if (kept != content) content->Abandon();
    return StoreKept(request, kept, !extra.empty());
  } catch (const std::exception&) {
    content->Abandon();
    kept->Abandon();
    throw;
  }
}

std::string Drive::ExtraFor(std::string_view name) const {
  const std::lock_guard lock(mutex_);
  const std::string folded = FoldName(name);
  for (const auto& [ending, extra] : rewrites_) {
    if (folded.ends_with(ending)) return extra;
  }
  return {};
}

Drive::Stored Drive::StoreKept(const FileRequest& request, const ContentPtr& kept, bool rewritten) {
  const std::lock_guard lock(mutex_);
  const Node* there = FileToReplace(request);
  Node& parent = Get(request.parent_id);
  const bool created = there == nullptr || request.on_conflict == OnConflict::kRename;
  const std::string name = created ? FreeName(parent, request.name) : there->item.name;
  if (created) RequirePlace(parent, name, nullptr);
  Node& file = created ? Insert(parent, name, false, Author(request.by)) : Get(there->item.id);
  PutContent(file, kept, Author(request.by));
  if (rewritten) ++file.item.version;
  return {.item = Describe(file), .created = created};
}

void Drive::CheckStore(const FileRequest& request, std::uint64_t size) const {
  const std::lock_guard lock(mutex_);
  const Node* there = FileToReplace(request);
  const bool replaces = there != nullptr && request.on_conflict == OnConflict::kReplace;
  const std::uint64_t freed = replaces ? there->item.size : 0;
  if (Get(root_id_).item.size - freed + size > options_.quota) throw QuotaLimitReached();
}

Item Drive::Change(const ChangeRequest& request) {
  const std::lock_guard lock(mutex_);
  Node& node = Get(request.id);
  if (node.item.IsRoot()) throw AccessDenied();
  CheckMatch(node, request.if_match);
  if (AnyLocked(node)) throw ResourceLocked();
  Node& parent = Get(request.parent_id.empty() ? node.item.parent_id : request.parent_id);
  if (!parent.item.folder || IsInside(parent.item.id, node.item.id)) {
    throw InvalidRequest("The item cannot be moved there.");
  }
  std::string name = request.name.empty() ? node.item.name : request.name;
  const Node* there = FindChild(parent, name);
  if (there == &node) there = nullptr;
  if (there != nullptr && request.on_conflict == OnConflict::kRename) {
    name = FreeName(parent, name);
    there = nullptr;
  }
  RequirePlace(parent, name, &node);
  if (there != nullptr) MakeWay(*there, node, request.on_conflict);
  MoveNode(node, parent, name);
  Touch(node, Author(request.by));
  if (request.created) node.item.created = *request.created;
  if (request.modified) node.item.modified = *request.modified;
  return Describe(node);
}

/// Removes the file that `node` is to replace.
void Drive::MakeWay(const Node& there, const Node& node, OnConflict on_conflict) {
  if (on_conflict == OnConflict::kFail || there.item.folder || node.item.folder) {
    throw NameAlreadyExists();
  }
  if (AnyLocked(there)) throw ResourceLocked();
  const std::string replaced = there.item.id;
  Detach(Get(replaced));
  Erase(replaced);
}

void Drive::Delete(std::string_view id, const std::string& if_match) {
  const std::lock_guard lock(mutex_);
  Node& node = Get(id);
  if (node.item.IsRoot()) throw AccessDenied();
  CheckMatch(node, if_match);
  if (AnyLocked(node)) throw ResourceLocked();
  const std::string own_id = node.item.id;
  Detach(node);
  Erase(own_id);
}

const Drive::Node& Drive::Get(std::string_view id) const {
  const auto found = nodes_.find(id);
  if (found == nodes_.end()) throw ItemNotFound();
  return found->second;
}

Drive::Node& Drive::Get(std::string_view id) {
  const auto found = nodes_.find(id);
  if (found == nodes_.end()) throw ItemNotFound();
  return found->second;
}

const Drive::Node* Drive::FindChild(const Node& folder, std::string_view name) const {
  const auto found = folder.children.find(FoldName(name));
  return found == folder.children.end() ? nullptr : &Get(found->second);
}

const Drive::Node* Drive::FindNode(std::string_view path) const {
  const Node* node = &Get(root_id_);
  for (auto name = TakeName(path); !name.empty(); name = TakeName(path)) {
    node = FindChild(*node, name);
    if (node == nullptr) return nullptr;
  }
  return node;
}

Item Drive::Describe(const Node& node) const {
  Item item = node.item;
  item.child_count = node.children.size();
  if (node.content) item.hash = node.content->Hash();
  if (!item.IsRoot()) item.parent_path = PathOf(Get(item.parent_id));
  return item;
}

std::string Drive::PathOf(const Node& node) const {
  std::string path;
  for (const Node* up = &node; !up->item.IsRoot(); up = &Get(up->item.parent_id)) {
    path.insert(0, "/" + up->item.name);
  }
  return path;
}

void Drive::AddSize(Node& node, std::uint64_t bytes) {
  for (Node* up = &node;; up = &Get(up->item.parent_id)) {
    up->item.size += bytes;
    if (up->item.IsRoot()) return;
  }
}

Drive::Node& Drive::Insert(Node& parent, const std::string& name, bool folder, const Identity& by) {
  Node node;
  node.item.id = RandomItemId();
  node.item.name = name;
  node.item.folder = folder;
  node.item.guid = UpperGuid();
  // The first content makes it version 1.
  node.item.version = node.item.content_version = folder ? 1 : 0;
  node.item.created = node.item.modified = Now();
  node.item.created_by = node.item.modified_by = by;
  std::string id = node.item.id;
  Node& inserted = nodes_.emplace(std::move(id), std::move(node)).first->second;
  Attach(inserted, parent);
  return inserted;
}

void Drive::Attach(Node& node, Node& parent) {
  node.item.parent_id = parent.item.id;
  parent.children[FoldName(node.item.name)] = node.item.id;
  AddSize(parent, node.item.size);
  MarkChanged(node);
}

void Drive::Detach(Node& node) {
  Node& parent = Get(node.item.parent_id);
  parent.children.erase(FoldName(node.item.name));
  AddSize(parent, 0 - node.item.size);
}

void Drive::Erase(const std::string& id) {
  const auto found = nodes_.find(id);
  for (const auto& [name, child] : found->second.children) Erase(child);
  MarkChanged(found->second);
  Discard(found->second.content);
  locked_.erase(id);
  nodes_.erase(found);
}

void Drive::Discard(const ContentPtr& content) {
  // Only files have to be there for a run that finds the index as it was.
  if (content && journal_) replaced_.push_back(content);
}

void Drive::MarkChanged(const Node& node) {
  if (journal_) changed_.insert(node.item.id);
}

void Drive::Touch(Node& node, const Identity& by) {
  ++node.item.version;
  node.item.modified = Now();
  node.item.modified_by = by;
  MarkChanged(node);
}

void Drive::PutContent(Node& file, const ContentPtr& content, const Identity& by) {
  AddSize(file, content->Size() - file.item.size);
  if (file.content != content) Discard(file.content);
  file.content = content;
  ++file.item.content_version;
  Touch(file, by);
}

Drive::Node& Drive::MakeFolders(std::string_view path) {
  Node* folder = &Get(root_id_);
  for (auto name = TakeName(path); !name.empty(); name = TakeName(path)) {
    if (!IsValidName(name)) throw std::invalid_argument("no name: '" + std::string(name) + "'");
    const Node* there = FindChild(*folder, name);
    if (there != nullptr && !there->item.folder) {
      throw std::invalid_argument("'" + std::string(name) + "' is a file");
    }
    folder = there != nullptr ? &Get(there->item.id)
                              : &Insert(*folder, std::string(name), true, Owner());
  }
  return *folder;
}

/// The node a new file of this name meets; nullptr: none. Throws when it must not be written.
const Drive::Node* Drive::FileToReplace(const FileRequest& request) const {
  const Node& parent = Get(request.parent_id);
  if (!parent.item.folder) throw InvalidRequest("The parent is not a folder.");
  const Node* there = FindChild(parent, request.name);
  if (there == nullptr) {
    RequirePlace(parent, request.name, nullptr);
    if (!request.if_match.empty()) throw ResourceModified();
    return nullptr;
  }
  if (request.on_conflict == OnConflict::kFail) throw NameAlreadyExists();
  if (request.on_conflict == OnConflict::kRename) return there;
  if (there->item.folder) throw NameAlreadyExists();
  CheckMatch(*there, request.if_match);
  if (AnyLocked(*there)) throw ResourceLocked();
  return there;
}

std::string Drive::FreeName(const Node& folder, const std::string& name) const {
  std::string free = name;
  for (int number = 1; FindChild(folder, free) != nullptr; ++number) {
    free = NumberedName(name, number);
  }
  return free;
}

void Drive::RequirePlace(const Node& parent, const std::string& name, const Node* moved) const {
  RequireName(name);
  const std::string folder = PathOf(parent);
  // A path begins with a slash, which is not counted.
  const std::size_t length = Utf16Length(folder) + Utf16Length(name);
  const bool longer = moved == nullptr || length >= Utf16Length(PathOf(*moved));
  if (!longer) return;
  if (length + (moved == nullptr ? 0 : LongestPathBelow(*moved)) > kLongestPath) {
    throw InvalidRequest("The path is too long.").WithInnerCode("pathIsTooLong");
  }
}

std::size_t Drive::LongestPathBelow(const Node& node) const {
  std::size_t longest = 0;
  for (const auto& [name, id] : node.children) {
    const Node& child = Get(id);
    longest = std::max(longest, 1 + Utf16Length(child.item.name) + LongestPathBelow(child));
  }
  return longest;
}

bool Drive::IsInside(std::string_view id, std::string_view folder_id) const {
  for (const Node* node = &Get(id); !node->item.IsRoot(); node = &Get(node->item.parent_id)) {
    if (node->item.id == folder_id) return true;
  }
  return false;
}

bool Drive::AnyLocked(const Node& node) const {
  return std::any_of(locked_.begin(), locked_.end(),
                     [&](const auto& id) { return IsInside(id, node.item.id); });
}

void Drive::CheckMatch(const Node& node, const std::string& if_match) {
  if (if_match.empty() || if_match == "*") return;
  if (if_match != node.item.ETag() && if_match != node.item.CTag()) throw ResourceModified();
}

const Identity& Drive::Author(const Identity* by) const {
  return by == nullptr ? options_.owner : *by;
}

void Drive::MoveNode(Node& node, Node& parent, const std::string& name) {
  Detach(node);
  node.item.name = name;
  Attach(node, parent);
}

}  // namespace emulator
