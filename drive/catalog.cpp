#include "drive/catalog.h"

#include <algorithm>

#include "drive/error.h"
#include "drive/names.h"

namespace drive {
namespace {

constexpr std::int64_t kFormat = 1;
constexpr std::size_t kMostKept = 1024;
constexpr std::int64_t kAnyTime = 1;

// `parent` 0 means removed here, `base_parent` 0 not at the service. `key` is what names are
// compared by. `pending` is 0 for items that are not, kAnyTime, or the due time of a file that only
// rests: so that thousands of files that rest cost nothing.
constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS items (
  number INTEGER PRIMARY KEY AUTOINCREMENT,
  kind INTEGER NOT NULL, parent INTEGER NOT NULL, name TEXT NOT NULL, key TEXT NOT NULL,
  size INTEGER NOT NULL, modified INTEGER NOT NULL, changed INTEGER NOT NULL,
  executable INTEGER NOT NULL,
  id TEXT NOT NULL, base_parent INTEGER NOT NULL, base_name TEXT NOT NULL, base_key TEXT NOT NULL,
  tried_parent INTEGER NOT NULL, tried_name TEXT NOT NULL,
  etag TEXT NOT NULL, base_size INTEGER NOT NULL, base_modified INTEGER NOT NULL,
  copy INTEGER NOT NULL, copy_etag TEXT NOT NULL, sent TEXT NOT NULL, dirty INTEGER NOT NULL, due INTEGER NOT NULL,
  listed INTEGER NOT NULL,
  reason TEXT NOT NULL, since INTEGER NOT NULL, retry INTEGER NOT NULL, attempts INTEGER NOT NULL,
  pending INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS entries ON items (parent, key) WHERE parent != 0;
CREATE UNIQUE INDEX IF NOT EXISTS ids ON items (id) WHERE id != '';
CREATE INDEX IF NOT EXISTS base_entries ON items (base_parent, base_key) WHERE base_parent != 0;
CREATE INDEX IF NOT EXISTS pending_at ON items (pending) WHERE pending;
CREATE INDEX IF NOT EXISTS removed ON items (number) WHERE parent = 0;
CREATE INDEX IF NOT EXISTS copies_of ON items (copy) WHERE copy != 0;
CREATE TABLE IF NOT EXISTS copies (
  number INTEGER PRIMARY KEY AUTOINCREMENT, ranges TEXT NOT NULL, used INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS conflicts (
  kept INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL, since INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS settings (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
)";

#define COLUMNS                                                                                  \
  "number, kind, parent, name, size, modified, changed, executable, id, base_parent, "           \
  "base_name, tried_parent, tried_name, etag, base_size, base_modified, copy, copy_etag, sent, " \
  "dirty, due, listed, "                                                                         \
  "reason, since, retry, attempts"

FileTime ToTime(std::int64_t nanoseconds) { return FileTime(FileTime::duration(nanoseconds)); }
std::int64_t ToNumber(FileTime time) { return time.time_since_epoch().count(); }

Item ReadItem(const Statement& row) {
  Item item;
  int column = 0;
  const auto number = [&] { return row.Number(column++); };
  const auto text = [&] { return row.Text(column++); };
  item.number = number();
  item.kind = static_cast<Kind>(number());
  item.place.parent = number();
  item.place.name = text();
  item.size = number();
  item.modified = ToTime(number());
  item.changed = ToTime(number());
  item.executable = number() != 0;
  item.id = text();
  item.base.parent = number();
  item.base.name = text();
  item.tried.parent = number();
  item.tried.name = text();
  item.etag = text();
  item.base_size = number();
  item.base_modified = ToTime(number());
  item.copy = number();
  item.copy_etag = text();
  item.sent = text();
  item.dirty = number() != 0;
  item.due = ToTime(number());
  item.listed = ToTime(number());
  item.refusal.reason = text();
  item.refusal.since = ToTime(number());
  item.refusal.retry = ToTime(number());
  item.refusal.attempts = static_cast<int>(number());
  return item;
}

class Binder {
 public:
  explicit Binder(Statement& statement) : statement_(statement) {}

  Binder& operator<<(std::int64_t value) { return Next(value); }
  Binder& operator<<(FileTime time) { return Next(ToNumber(time)); }
  /// The text must live until the statement is reset.
  Binder& operator<<(const std::string& text) { return Next(std::string_view(text)); }

 private:
  template <class Value>
  Binder& Next(Value value) {
    statement_.Bind(++index_, value);
    return *this;
  }

  Statement& statement_;
  int index_ = 0;
};

std::int64_t PendingColumn(const Item& item) {
  if (!item.IsPending()) return 0;
  return item.OnlyRests() ? std::max(ToNumber(item.due), kAnyTime) : kAnyTime;
}

// The columns in the order in which they are bound.
#define STATE                                                                              \
  "kind, size, modified, changed, executable, tried_parent, tried_name, etag, base_size, " \
  "base_modified, copy_etag, "                                                             \
  "sent, dirty, due, listed, reason, since, retry, attempts, pending"
#define STATE_VALUES "?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?"
#define PLACES "parent, name, key, id, base_parent, base_name, base_key, copy"
#define PLACES_VALUES "?,?,?,?,?,?,?,?"

void BindState(Binder& to, const Item& item) {
  to << static_cast<std::int64_t>(item.kind) << item.size << item.modified << item.changed
     << item.executable << item.tried.parent << item.tried.name << item.etag << item.base_size
     << item.base_modified << item.copy_etag << item.sent << item.dirty << item.due << item.listed
     << item.refusal.reason << item.refusal.since << item.refusal.retry << item.refusal.attempts
     << PendingColumn(item);
}

void BindPlaces(Binder& to, const Item& item, const std::string& key, const std::string& base_key) {
  to << item.place.parent << item.place.name << key << item.id << item.base.parent << item.base.name
     << base_key << item.copy;
}

/// Whether the indexes of places stay as they are when `after` takes the place of `before`.
bool SamePlaces(const Item& before, const Item& after) {
  return before.place == after.place && before.base == after.base && before.id == after.id &&
         before.copy == after.copy;
}

}  // namespace

Catalog::Catalog(const std::filesystem::path& file) : database_(file) {
  // With NORMAL, a commit goes to the log without waiting for the disk; SyncToDisk waits.
  database_.Execute("PRAGMA journal_mode=WAL");
  database_.Execute("PRAGMA synchronous=NORMAL");
  database_.Execute("PRAGMA locking_mode=EXCLUSIVE");
  // A checkpoint waits for the disk, so it is worth more of them at a time: here 32 MiB.
  database_.Execute("PRAGMA wal_autocheckpoint=8192");
  Statement version(database_, "PRAGMA user_version");
  version.Step();
  const std::int64_t format = version.Number(0);
  version.Reset();
  if (format > kFormat) {
    throw Error(Reason::kBroken, "the state folder was written by a newer version");
  }
  database_.Execute(kSchema);
  database_.Execute("PRAGMA user_version=1");
  database_.Execute(
      "INSERT OR IGNORE INTO items VALUES "
      "(1,1,1,'','',0,0,0,0,'',1,'','',0,'','',0,0,0,'','',0,0,0,'',0,0,0,0)");
}

void Catalog::Rollback() noexcept {
  // Fails when a failed statement has ended the transaction already.
  sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  kept_.clear();
}

void Catalog::SyncToDisk() {
  database_.Execute("PRAGMA synchronous=FULL");
  // A commit syncs the log with all that is in it, as long as it writes something.
  SetValue("synced", "1");
  Prepared("UPDATE settings SET value = value + 1 WHERE key = 'synced'").Run();
  database_.Execute("PRAGMA synchronous=NORMAL");
}

Statement& Catalog::Prepared(const char* sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  return statements_.emplace(sql, Statement(database_, sql)).first->second;
}

std::optional<Item> Catalog::One(Statement& statement) {
  const StatementUse use(statement);
  if (!statement.Step()) return std::nullopt;
  return Find(statement.Number(0));
}

void Catalog::Keep(const Item& item) {
  if (kept_.size() >= kMostKept) kept_.clear();
  kept_[item.number] = item;
}

std::vector<Item> Catalog::All(Statement& statement) {
  const StatementUse use(statement);
  std::vector<Item> items;
  while (statement.Step()) items.push_back(ReadItem(statement));
  return items;
}

std::optional<Item> Catalog::Find(ItemNumber number) {
  if (const auto kept = kept_.find(number); kept != kept_.end()) return kept->second;
  Statement& statement = Prepared("SELECT " COLUMNS " FROM items WHERE number = ?");
  const StatementUse use(statement);
  if (!statement.Bind(1, number).Step()) return std::nullopt;
  Item item = ReadItem(statement);
  Keep(item);
  return item;
}

Item Catalog::Get(ItemNumber number) {
  if (std::optional<Item> item = Find(number)) return *std::move(item);
  throw Error(Reason::kNotFound, "the item is gone");
}

std::optional<Item> Catalog::FindEntry(ItemNumber folder, std::string_view name) {
  if (folder == 0) return std::nullopt;
  const std::string key = NameKey(name);
  return One(Prepared("SELECT number FROM items WHERE parent = ? AND key = ? AND parent != 0 "
                      "AND number != 1")
                 .Bind(1, folder)
                 .Bind(2, key));
}

std::optional<Item> Catalog::FindId(std::string_view id) {
  if (id.empty()) return std::nullopt;
  return One(Prepared("SELECT number FROM items WHERE id = ? AND id != ''").Bind(1, id));
}

std::optional<Item> Catalog::FindBase(ItemNumber folder, std::string_view name) {
  if (folder == 0) return std::nullopt;
  const std::string key = NameKey(name);
  return One(Prepared("SELECT number FROM items WHERE base_parent = ? AND base_key = ? "
                      "AND base_parent != 0 AND number != 1")
                 .Bind(1, folder)
                 .Bind(2, key));
}

std::vector<Item> Catalog::Entries(ItemNumber folder) {
  return All(
      Prepared("SELECT " COLUMNS " FROM items WHERE parent = ? AND parent != 0 AND number != 1")
          .Bind(1, folder));
}

bool Catalog::HasEntries(ItemNumber folder) {
  Statement& statement =
      Prepared("SELECT 1 FROM items WHERE parent = ? AND parent != 0 AND number != 1 LIMIT 1");
  const StatementUse use(statement);
  return statement.Bind(1, folder).Step();
}

std::vector<Item> Catalog::BaseEntries(ItemNumber folder) {
  return All(Prepared("SELECT " COLUMNS
                      " FROM items WHERE base_parent = ? AND base_parent != 0 AND number != 1")
                 .Bind(1, folder));
}

void Catalog::Add(Item& item) {
  WriteAll(Prepared("INSERT INTO items (" STATE ", " PLACES ") VALUES (" STATE_VALUES
                    "," PLACES_VALUES ")"),
           item);
  item.number = sqlite3_last_insert_rowid(database_.handle());
  Keep(item);
}

void Catalog::Put(const Item& item) {
  const auto kept = kept_.find(item.number);
  if (kept != kept_.end() && SamePlaces(kept->second, item)) {
    Statement& statement =
        Prepared("UPDATE items SET (" STATE ") = (" STATE_VALUES ") WHERE number = ?");
    const StatementUse use(statement);
    Binder to(statement);
    BindState(to, item);
    to << item.number;
    statement.Step();
    kept->second = item;
    return;
  }
  WriteAll(Prepared("UPDATE items SET (" STATE ", " PLACES ") = (" STATE_VALUES "," PLACES_VALUES
                    ") WHERE number = ?"),
           item);
  if (sqlite3_changes(database_.handle()) != 0) Keep(item);
}

/// An item without a number has no last value to bind.
void Catalog::WriteAll(Statement& statement, const Item& item) {
  const StatementUse use(statement);
  const std::string key = NameKey(item.place.name);
  const std::string base_key = NameKey(item.base.name);
  Binder to(statement);
  BindState(to, item);
  BindPlaces(to, item, key, base_key);
  if (item.number != 0) to << item.number;
  statement.Step();
}

void Catalog::Erase(ItemNumber number) {
  kept_.erase(number);
  Prepared("DELETE FROM items WHERE number = ?").Bind(1, number).Run();
  Prepared("DELETE FROM conflicts WHERE kept = ?").Bind(1, number).Run();
}

std::vector<Item> Catalog::Pending() {
  return All(Prepared("SELECT " COLUMNS " FROM items WHERE pending ORDER BY number"));
}

std::vector<ItemNumber> Catalog::PendingAt(FileTime now) {
  Statement& statement =
      Prepared("SELECT number FROM items WHERE pending AND pending <= ? ORDER BY number");
  const StatementUse use(statement);
  statement.Bind(1, std::max(ToNumber(now), kAnyTime));
  std::vector<ItemNumber> numbers;
  while (statement.Step()) numbers.push_back(statement.Number(0));
  return numbers;
}

std::optional<FileTime> Catalog::NextPending(FileTime now) {
  Statement& statement =
      Prepared("SELECT pending FROM items WHERE pending AND pending > ? ORDER BY pending LIMIT 1");
  const StatementUse use(statement);
  statement.Bind(1, std::max(ToNumber(now), kAnyTime));
  if (!statement.Step()) return std::nullopt;
  return ToTime(statement.Number(0));
}

std::vector<Item> Catalog::Removed() {
  return All(Prepared("SELECT " COLUMNS " FROM items WHERE parent = 0"));
}

std::vector<Item> Catalog::RefusedItems() {
  return All(Prepared("SELECT " COLUMNS " FROM items WHERE pending AND reason != ''"));
}

PendingCount Catalog::CountPending() {
  Statement& statement = Prepared(
      "SELECT count(*), ifnull(sum(size * dirty * (parent != 0)), 0) FROM items WHERE pending");
  const StatementUse use(statement);
  statement.Step();
  return {.items = statement.Number(0), .bytes = statement.Number(1)};
}

std::int64_t Catalog::CountItems() {
  Statement& statement = Prepared("SELECT count(*) - 1 FROM items WHERE parent != 0");
  const StatementUse use(statement);
  statement.Step();
  return statement.Number(0);
}

std::int64_t Catalog::AddCopy() {
  Prepared("INSERT INTO copies VALUES (NULL, '', 0)").Run();
  return sqlite3_last_insert_rowid(database_.handle());
}

void Catalog::EraseCopy(std::int64_t copy) {
  Prepared("DELETE FROM copies WHERE number = ?").Bind(1, copy).Run();
}

void Catalog::PutRanges(std::int64_t copy, const RangeSet& ranges) {
  const std::string text = ranges.ToText();
  Prepared("UPDATE copies SET ranges = ? WHERE number = ?").Bind(1, text).Bind(2, copy).Run();
}

RangeSet Catalog::Ranges(std::int64_t copy) {
  Statement& statement = Prepared("SELECT ranges FROM copies WHERE number = ?");
  const StatementUse use(statement);
  if (!statement.Bind(1, copy).Step()) return {};
  return RangeSet::FromText(statement.Text(0));
}

void Catalog::TouchCopy(std::int64_t copy, FileTime used) {
  Prepared("UPDATE copies SET used = ? WHERE number = ?")
      .Bind(1, ToNumber(used))
      .Bind(2, copy)
      .Run();
}

std::vector<Item> Catalog::CleanCopies() {
  return All(Prepared("SELECT " COLUMNS
                      " FROM items WHERE copy != 0 AND NOT dirty AND id != '' ORDER BY "
                      "(SELECT used FROM copies WHERE copies.number = items.copy)"));
}

std::vector<std::int64_t> Catalog::CopiesInUse() {
  Statement& statement = Prepared("SELECT copy FROM items WHERE copy != 0");
  const StatementUse use(statement);
  std::vector<std::int64_t> copies;
  while (statement.Step()) copies.push_back(statement.Number(0));
  return copies;
}

void Catalog::AddConflict(const ConflictRecord& conflict) {
  Prepared("INSERT OR REPLACE INTO conflicts VALUES (?, ?, ?, ?)")
      .Bind(1, conflict.kept)
      .Bind(2, conflict.place.parent)
      .Bind(3, conflict.place.name)
      .Bind(4, ToNumber(conflict.since))
      .Run();
}

std::vector<ConflictRecord> Catalog::Conflicts() {
  Statement& statement = Prepared("SELECT kept, parent, name, since FROM conflicts");
  const StatementUse use(statement);
  std::vector<ConflictRecord> conflicts;
  while (statement.Step()) {
    conflicts.push_back({.kept = statement.Number(0),
                         .place = {.parent = statement.Number(1), .name = statement.Text(2)},
                         .since = ToTime(statement.Number(3))});
  }
  return conflicts;
}

std::string Catalog::Value(std::string_view key) {
  Statement& statement = Prepared("SELECT value FROM settings WHERE key = ?");
  const StatementUse use(statement);
  return statement.Bind(1, key).Step() ? statement.Text(0) : std::string();
}

void Catalog::SetValue(std::string_view key, std::string_view value) {
  Prepared("INSERT OR REPLACE INTO settings VALUES (?, ?)").Bind(1, key).Bind(2, value).Run();
}

}  // namespace drive
