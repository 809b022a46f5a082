// links: db_layer SQLite::SQLite3
// Statements whose values are taken out before they are prepared: they do what they do as they stand.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "Require.h"
#include "db_layer/SqliteHandle.h"

namespace {

using db_layer::CRowBuffer;
using db_layer::CSqliteHandle;
using db_layer::SqlError;

class CSevens final : public db_layer::ISequenceSource {
 public:
  bool NextValue(const std::string&, std::int64_t& value, SqlError&) override {
    value = 7;
    return true;
  }
};

void RunOwn(CSqliteHandle& handle, const char* sql) {
  SqlError error;
  Require(handle.RunOwn(sql, error));
}

// With what statements meet: an index on some rows only, a trigger, types, conditions, a unique column.
std::unique_ptr<CSqliteHandle> Open() {
  static CSevens sevens;
  const std::string path = "FuzzSqlTemplate.db";
  for (const char* end : {"", "-wal", "-shm"}) {
    std::filesystem::remove(path + end);
  }
  auto handle = std::make_unique<CSqliteHandle>();
  SqlError error;
  Require(handle->Open(path, {false, 5000}, sevens, error));
  for (const char* sql : {
           "CREATE TABLE platform.t (a INTEGER PRIMARY KEY, b TEXT UNIQUE, c INTEGER NOT NULL DEFAULT 0, d)",
           "CREATE TABLE platform.u (n INTEGER, x TEXT CHECK (x <> 'no')) STRICT",
           "CREATE INDEX platform.some ON t (d) WHERE c = 5",
           "CREATE TRIGGER platform.noted AFTER UPDATE OF d ON t WHEN NEW.c = 1 "
           "BEGIN INSERT INTO u VALUES (NEW.a, typeof(NEW.d)); END",
           "INSERT INTO platform.t VALUES (1, 'one', 1, 1), (2, 'two', 5, '2'), (3, 'it''s', 5, NULL), (-4, '', 4, "
           "x'00')",
           "INSERT INTO platform.u VALUES (1, 'x'), (2, 'y')",
       }) {
    RunOwn(*handle, sql);
  }
  return handle;
}

// The outcome, and everything that is there afterwards. What is done is undone.
std::string Outcome(CSqliteHandle& handle, const std::string& sql, CRowBuffer* rows) {
  RunOwn(handle, "BEGIN IMMEDIATE");
  SqlError error;
  const bool succeeded = handle.Run(sql, rows, error);
  std::string outcome = succeeded ? "done\n" : std::to_string(error.code) + " " + error.text + "\n";
  for (const char* all : {"SELECT quote(a) || quote(b) || quote(c) || quote(d) AS row FROM platform.t ORDER BY a",
                          "SELECT quote(n) || quote(x) AS row FROM platform.u ORDER BY rowid",
                          "SELECT quote(sql) AS row FROM platform.sqlite_schema ORDER BY rowid"}) {
    CRowBuffer content;
    Require(handle.RunOwn(all, &content, error) || handle.IsInTransaction());
    for (; !content.IsEnd(); content.MoveNext()) {
      outcome += content.GetString("row") + "\n";
    }
  }
  if (handle.IsInTransaction()) {
    RunOwn(handle, "ROLLBACK");
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One connection for all inputs, so that statements are kept and meet the values of others.
  static const std::unique_ptr<CSqliteHandle> handle = Open();
  const std::string sql(reinterpret_cast<const char*>(data), size);
  // A statement whose rows are asked for runs as it stands.
  CRowBuffer rows;
  Require(Outcome(*handle, sql, nullptr) == Outcome(*handle, sql, &rows));
  return 0;
}
