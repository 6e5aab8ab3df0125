// One user's drive: the tree of its items, their contents, and the rules for changing them, as the
// service's public documentation gives them.
// Threads: every function may be called from any thread; each is one step for the others.
// Lifetime: items are handed out as copies; contents are shared and outlive their items.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <json/value.h>

#include "emulator/drive/identity.h"
#include "emulator/store/content.h"
#include "emulator/store/journal.h"
#include "emulator/text/time_text.h"

namespace emulator {

enum class SharedRole { kRead, kWrite };

/// What to do when a name is taken ("@name.conflictBehavior").
enum class OnConflict { kFail, kReplace, kRename };

struct Item {
  std::string id;
  std::string parent_id;    // empty: the root
  std::string parent_path;  // names from the root, each after a slash; "" for the root's children
  std::string name;
  bool folder = false;
  std::uint64_t size = 0;  // of a folder: of all files below it
  std::size_t child_count = 0;
  std::string guid;
  int version = 1;
  int content_version = 1;
  Seconds created;
  Seconds modified;
  Identity created_by;
  Identity modified_by;
  std::string hash;  // of a file, where known: quickXorHash
  std::optional<SharedRole> shared;

  bool IsRoot() const { return parent_id.empty(); }
  std::string ETag() const;
  std::string CTag() const;
};

struct Quota {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
};

struct DriveOptions {
  Identity owner;
  std::filesystem::path directory;  // empty: in memory only
  std::uint64_t quota = std::uint64_t{1} << 40U;
};

class Drive {
 public:
  /// Reads what an earlier run left in the directory, if any. Throws std::runtime_error with a text
  /// for people when it cannot.
  explicit Drive(DriveOptions options);
  ~Drive();
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  const std::string& Id() const { return id_; }
  const Identity& Owner() const { return options_.owner; }
  std::string RootId() const { return root_id_; }
  /// Whether nothing but the root is there.
  bool IsEmpty() const;

  // For building a tree. Paths are names after slashes, "/Documents/Plan.txt"; "/" is the root.
  // They throw std::invalid_argument for a path that cannot be.

  /// Makes missing folders on the way; one that is there stays. Returns its id.
  std::string MakeFolder(std::string_view path);
  /// Replaces a file that is there; makes missing folders. Returns its id.
  std::string WriteFile(std::string_view path, const ContentPtr& content);
  std::string WriteFile(std::string_view path, std::string_view bytes);
  /// The parent must be there and the name free (ServiceError otherwise). Returns the new id.
  std::string AddFolder(std::string_view parent_id, const std::string& name);
  std::string AddFile(std::string_view parent_id, const std::string& name,
                      const ContentPtr& content);

  std::optional<Item> FindPath(std::string_view path) const;
  std::optional<Item> FindItem(std::string_view id) const;
  /// A file's content; nullptr when there is no such file.
  ContentPtr FindContent(std::string_view id) const;
  /// The bytes of the file at that path; nullopt when there is none.
  std::optional<std::string> ReadFile(std::string_view path) const;
  /// Whether there was something to remove. Locks do not protect from this one.
  bool Remove(std::string_view path);

  /// Opens the item, with all below it, to the other users of the service.
  void Share(std::string_view id, SharedRole role = SharedRole::kRead);
  /// As if someone had it open: changes are refused (423).
  void Lock(std::string_view id);
  void Unlock(std::string_view id);
  void SetQuotaTotal(std::uint64_t bytes);
  Quota GetQuota() const;
  /// Whatever is uploaded from now on under a name with this ending is stored with `extra` after it
  /// and one version further, as the service does to some documents. An empty `extra` ends it.
  void RewriteUploads(const std::string& name_ending, std::string extra);

  // What the service does. All throw ServiceError.

  struct Page {
    std::vector<Item> items;
    std::string next;  // to go on from; empty: that was the last page
  };
  /// In the order of names; `from` is empty or the `next` of an earlier page.
  Page Children(std::string_view folder_id, const std::string& from, std::size_t limit) const;
  /// By name.
  std::vector<Item> SharedItems() const;
  /// The role given to others, by the item itself or a folder above it.
  std::optional<SharedRole> RoleOf(std::string_view id) const;

  struct FolderRequest {
    std::string parent_id;
    std::string name;
    OnConflict on_conflict = OnConflict::kFail;
    const Identity* by = nullptr;  // nullptr: the owner
  };
  struct FileRequest {
    std::string parent_id;
    std::string name;
    OnConflict on_conflict = OnConflict::kReplace;
    std::string if_match{};  // eTag or cTag of a file to be replaced, or empty
    const Identity* by = nullptr;
  };
  struct ChangeRequest {
    std::string id;
    std::string name{};       // empty: as it is
    std::string parent_id{};  // empty: where it is
    OnConflict on_conflict = OnConflict::kFail;
    std::optional<Seconds> created{};
    std::optional<Seconds> modified{};
    std::string if_match{};
    const Identity* by = nullptr;
  };
  struct Stored {
    Item item;
    bool created = false;
  };
  Stored CreateFolder(const FolderRequest& request);
  Stored StoreFile(const FileRequest& request, const ContentPtr& content);
  /// Throws what StoreFile would for a file of this size, and changes nothing.
  void CheckStore(const FileRequest& request, std::uint64_t size) const;
  Item Change(const ChangeRequest& request);
  void Delete(std::string_view id, const std::string& if_match);

  const ContentStore& Store() const { return store_; }

  /// Adds to the index what changed since the last time. Throws std::runtime_error.
  void Save();

 private:
  struct Node {
    Item item;
    ContentPtr content;
    std::map<std::string, std::string> children;  // by folded name: the order of listings
  };
  using Nodes = std::map<std::string, Node, std::less<>>;

  std::string ExtraFor(std::string_view name) const;
  Stored StoreKept(const FileRequest& request, const ContentPtr& kept, bool rewritten);

  // Those below are called with mutex_ held.
  const Node& Get(std::string_view id) const;
  Node& Get(std::string_view id);
  const Node* FindNode(std::string_view path) const;
  const Node* FindChild(const Node& folder, std::string_view name) const;
  Item Describe(const Node& node) const;
  /// To the item and all folders above it, modulo 2^64: adding 0 - n takes n away.
  void AddSize(Node& node, std::uint64_t bytes);
  Node& Insert(Node& parent, const std::string& name, bool folder, const Identity& by);
  void Attach(Node& node, Node& parent);
  void Detach(Node& node);
  /// With all below it; it is detached.
  void Erase(const std::string& id);
  void Discard(const ContentPtr& content);
  void MarkChanged(const Node& node);
  void Touch(Node& node, const Identity& by);
  void PutContent(Node& file, const ContentPtr& content, const Identity& by);
  Node& MakeFolders(std::string_view path);
  const Node* FileToReplace(const FileRequest& request) const;
  std::string FreeName(const Node& folder, const std::string& name) const;
  /// Throws when an item cannot stand there. `moved`: with all below it; nullptr: a new item.
  void RequirePlace(const Node& parent, const std::string& name, const Node* moved) const;
  std::string PathOf(const Node& node) const;
  std::size_t LongestPathBelow(const Node& node) const;
  bool IsInside(std::string_view id, std::string_view folder_id) const;
  bool AnyLocked(const Node& node) const;
  static void CheckMatch(const Node& node, const std::string& if_match);
  const Identity& Author(const Identity* by) const;
  void MakeWay(const Node& there, const Node& node, OnConflict on_conflict);
  void MoveNode(Node& node, Node& parent, const std::string& name);

  void Load();
  void LoadRecords(const std::vector<std::string>& records);
  void DropOrphans() const;
  static Json::Value Entry(const Node& node);
  Json::Value Changes(const std::set<std::string>& ids) const;
  Json::Value WholeIndex() const;

  DriveOptions options_;
  ContentStore store_;
  std::string id_;
  std::string root_id_;
  mutable std::mutex mutex_;
  Nodes nodes_;
  std::set<std::string> locked_;                 // ids
  std::map<std::string, std::string> rewrites_;  // folded name ending -> bytes appended
  std::set<std::string> changed_;                // ids of items to be saved: changed, new or gone
  std::vector<ContentPtr> replaced_;             // no item has them, but the saved index still does

  std::mutex save_mutex_;           // taken before mutex_: the newest changes are written last
  std::optional<Journal> journal_;  // with a directory
  std::size_t appended_ = 0;        // items in records after the first
};

}  // namespace emulator
