#include "drive/sqlite.h"

#include "drive/error.h"

namespace drive {
namespace {

[[noreturn]] void Fail(sqlite3* database) {
  const int code = sqlite3_errcode(database);
  const std::string what = std::string("the catalog: ") + sqlite3_errmsg(database);
  throw Error((code & 0xFF) == SQLITE_FULL ? Reason::kNoSpace : Reason::kBroken, what);
}

}  // namespace

Database::Database(const std::filesystem::path& file) {
  sqlite3* opened = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(file.c_str(), &opened, flags, nullptr);
  handle_.reset(opened);
  if (opened == nullptr) throw Error(Reason::kBroken, "the catalog: no memory");
  if (result != SQLITE_OK) Fail(opened);
  // Otherwise a statement that uses a partial index is compiled anew for each value bound to it.
  sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_QPSG, 1, nullptr);
}

void Database::Execute(const char* sql) const {
  if (sqlite3_exec(handle(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail(handle());
}

Statement::Statement(Database& database, const char* sql) : database_(database.handle()) {
  sqlite3_stmt* handle = nullptr;
  const int result =
      sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
  handle_.reset(handle);
  if (result != SQLITE_OK) Fail(database_);
}

Statement& Statement::Bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(handle_.get(), index, value) != SQLITE_OK) Fail(database_);
  return *this;
}

Statement& Statement::Bind(int index, std::string_view text) {
  const char* data = text.data() == nullptr ? "" : text.data();
  if (sqlite3_bind_text64(handle_.get(), index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8) !=
      SQLITE_OK) {
    Fail(database_);
  }
  return *this;
}

bool Statement::Step() {
  const int result = sqlite3_step(handle_.get());
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) Fail(database_);
  return false;
}

void Statement::Reset() noexcept {
  sqlite3_reset(handle_.get());
  sqlite3_clear_bindings(handle_.get());
}

void Statement::Run() {
  const StatementUse use(*this);
  while (Step()) {
  }
}

std::int64_t Statement::Number(int column) const {
  return sqlite3_column_int64(handle_.get(), column);
}

std::string Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle_.get(), column));
  const int size = sqlite3_column_bytes(handle_.get(), column);
  return text == nullptr ? std::string() : std::string(text, static_cast<std::size_t>(size));
}

}  // namespace drive
