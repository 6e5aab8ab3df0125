// Catalog: every item that the drive knows, in one SQLite file.
//
// Each transaction is whole or not there after the death of the process, because SQLite's log has
// it in the system's memory; SyncToDisk makes everything before it survive the loss of power, too.
//
// Not shared between threads without the owner's lock. Throws Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "drive/item.h"
#include "drive/range_set.h"
#include "drive/sqlite.h"

namespace drive {

/// A conflict that was solved by keeping both versions.
struct ConflictRecord {
  ItemNumber kept = 0;  ///< our version
  Place place;          ///< where the service's version stands
  FileTime since{};
};

struct PendingCount {
  std::int64_t items = 0;
  std::int64_t bytes = 0;  ///< content to upload
};

class Catalog {
 public:
  explicit Catalog(const std::filesystem::path& file);

  void Begin() { Prepared("BEGIN IMMEDIATE").Run(); }
  void Commit() { Prepared("COMMIT").Run(); }
  void Rollback() noexcept;
  void SyncToDisk();

  // Items.
  std::optional<Item> Find(ItemNumber number);
  /// Throws kNotFound.
  Item Get(ItemNumber number);
  std::optional<Item> FindEntry(ItemNumber folder, std::string_view name);
  std::optional<Item> FindId(std::string_view id);
  /// What the service has, as far as known, under this name of the folder.
  std::optional<Item> FindBase(ItemNumber folder, std::string_view name);
  std::vector<Item> Entries(ItemNumber folder);
  bool HasEntries(ItemNumber folder);
  /// What the service has, as far as known, in the folder.
  std::vector<Item> BaseEntries(ItemNumber folder);
  /// Gives the item its number.
  void Add(Item& item);
  void Put(const Item& item);
  void Erase(ItemNumber number);

  std::vector<Item> Pending();
  /// The pending items for which there may be something to do at this time.
  std::vector<ItemNumber> PendingAt(FileTime now);
  /// When the next of the other pending items is due.
  std::optional<FileTime> NextPending(FileTime now);
  std::vector<Item> Removed();
  std::vector<Item> RefusedItems();
  PendingCount CountPending();
  std::int64_t CountItems();

  // Local copies.
  std::int64_t AddCopy();
  void EraseCopy(std::int64_t copy);
  void PutRanges(std::int64_t copy, const RangeSet& ranges);
  RangeSet Ranges(std::int64_t copy);
  void TouchCopy(std::int64_t copy, FileTime used);
  /// Files with a copy that has nothing unsent, the copy that was used longest ago first.
  std::vector<Item> CleanCopies();
  std::vector<std::int64_t> CopiesInUse();

  // Conflicts.
  void AddConflict(const ConflictRecord& conflict);
  std::vector<ConflictRecord> Conflicts();

  // Values that belong to the whole.
  std::string Value(std::string_view key);
  void SetValue(std::string_view key, std::string_view value);

 private:
  Statement& Prepared(const char* sql);
  /// The item of the number that the statement finds, if it finds one.
  std::optional<Item> One(Statement& statement);
  std::vector<Item> All(Statement& statement);
  void Keep(const Item& item);
  void WriteAll(Statement& statement, const Item& item);

  Database database_;
  std::map<const char*, Statement> statements_;  ///< by the address of their constant text
  /// Items as they stand in the file, so that those in use are neither read nor decoded again.
  std::unordered_map<ItemNumber, Item> kept_;
};

}  // namespace drive
