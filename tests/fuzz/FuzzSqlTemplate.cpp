// links: db_layer SQLite::SQLite3
// Statements whose values are taken out: run so, or as they stand, they do the same.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "db_layer/SqlTemplate.h"

namespace {

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

sqlite3* MakeDatabase() {
  constexpr const char* kSchema =
      "CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c INTEGER NOT NULL DEFAULT 0, d);"
      "INSERT INTO t VALUES (1, 'one', 1, 1), (2, 'two', 2, '2'), (3, 'it''s', 3, NULL), (-4, '', 4, x'00')";
  sqlite3* database = nullptr;
  Require(sqlite3_open(":memory:", &database) == SQLITE_OK);
  Require(sqlite3_exec(database, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK);
  return database;
}

std::string Content(sqlite3* database) {
  std::string content;
  sqlite3_stmt* rows = nullptr;
  constexpr const char* kAll = "SELECT quote(a) || quote(b) || quote(c) || quote(d) FROM t ORDER BY a";
  Require(sqlite3_prepare_v2(database, kAll, -1, &rows, nullptr) == SQLITE_OK);
  while (sqlite3_step(rows) == SQLITE_ROW) {
    content += std::string(reinterpret_cast<const char*>(sqlite3_column_text(rows, 0))) + "\n";
  }
  sqlite3_finalize(rows);
  return content;
}

// The outcome and what is in the table afterwards.
std::string RunAndUndo(sqlite3* database, const std::string& sql, const std::vector<db_layer::SqlValue>& values) {
  Require(sqlite3_exec(database, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK);
  sqlite3_stmt* statement = nullptr;
  const char* tail = nullptr;
  int result = sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, &tail);
  if (result == SQLITE_OK && std::strspn(tail, " \t\r\n;") != std::strlen(tail)) {
    result = SQLITE_MISUSE;  // more than one statement is never run
  }
  for (std::size_t i = 0; result == SQLITE_OK && i < values.size(); ++i) {
    const int index = static_cast<int>(i) + 1;
    const std::string& text = values[i].text;
    result = values[i].is_text
                 ? sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8)
                 : sqlite3_bind_int64(statement, index, values[i].number);
  }
  if (result == SQLITE_OK) {
    result = statement == nullptr ? SQLITE_DONE : sqlite3_step(statement);
  }
  sqlite3_finalize(statement);
  std::string outcome = std::to_string(result) + "\n" + Content(database);
  Require(sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr) == SQLITE_OK);
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static sqlite3* const database = MakeDatabase();
  const std::string sql(reinterpret_cast<const char*>(data), size);
  db_layer::SqlTemplate shape;
  // A statement with a NUL byte is refused before anything else.
  if (sql.find('\0') == std::string::npos && db_layer::MakeTemplate(sql, shape)) {
    Require(shape.text.find('\'') == std::string::npos);
    Require(RunAndUndo(database, sql, {}) == RunAndUndo(database, shape.text, shape.values));
  }
  return 0;
}
