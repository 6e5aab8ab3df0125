// Database and Statement: SQLite with owners for its handles and exceptions for its errors.
//
// Not shared between threads without the owner's lock. Failures are Error: kNoSpace when the disk
// is full, otherwise kBroken.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <sqlite3.h>

namespace drive {

class Database {
 public:
  explicit Database(const std::filesystem::path& file);

  /// Statements without results.
  void Execute(const char* sql) const;
  sqlite3* handle() const noexcept { return handle_.get(); }

 private:
  struct Closer {
    void operator()(sqlite3* handle) const noexcept { sqlite3_close_v2(handle); }
  };
  std::unique_ptr<sqlite3, Closer> handle_;
};

/// One prepared statement, used again and again: Bind all, then Step through the rows. Reset ends
/// a use, whatever rows are left.
class Statement {
 public:
  Statement(Database& database, const char* sql);

  Statement& Bind(int index, std::int64_t value);
  /// The text must live until Reset.
  Statement& Bind(int index, std::string_view text);
  /// True: a row is there.
  bool Step();
  void Reset() noexcept;
  /// Binds nothing more, runs to the end.
  void Run();

  std::int64_t Number(int column) const;
  std::string Text(int column) const;

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* handle) const noexcept { sqlite3_finalize(handle); }
  };
  sqlite3* database_;
  std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
};

/// Resets a statement at the end of a scope.
class StatementUse {
 public:
  explicit StatementUse(Statement& statement) : statement_(statement) {}
  ~StatementUse() { statement_.Reset(); }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

 private:
  Statement& statement_;
};

}  // namespace drive
