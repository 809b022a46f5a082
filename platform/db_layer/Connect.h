// A connection to a database, and the driver that opens connections.
#ifndef TANSY_DB_LAYER_CONNECT_H
#define TANSY_DB_LAYER_CONNECT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace db_layer {

inline constexpr int kSqlite = 0;
inline constexpr int kPostgresql = 1;

// What the low 8 bits of a failure's code mean on every database. Other codes are the database's own.
inline constexpr int kErrorBits = 0xFF;
inline constexpr int kErrorBusy = 5;         // somebody holds a lock, or the server cannot be reached now
inline constexpr int kErrorMemory = 7;       // out of memory
inline constexpr int kErrorReadOnly = 8;     // the database takes no writes
inline constexpr int kErrorFull = 13;        // the disk is full
inline constexpr int kErrorConstraint = 19;  // a key that exists, a check, or a trigger that refused
inline constexpr int kErrorMisuse = 21;      // the statement is not one that may be run here

struct DBParam {
  int type = kSqlite;
  std::string host;
  int port = 0;
  std::string user;
  std::string password;
  // SQLite: path of the file, made when missing. PostgreSQL: name of the database, perhaps with parameters of the
  // connection behind it, as in a URL ("tansy?sslmode=verify-full"); host, port, user and password may be missing then.
  std::string database;
  int min_connections = 4;   // this many are kept open
  int max_connections = 16;  // when this many are in use, a caller waits
};

// One row while a query shows it. Columns are counted from 0, in the order in which they were asked for. NULL and a
// missing column read as "" and 0, integers are the low 32 bits. A text lasts until the row has been looked at.
class IRow {
 public:
  virtual ~IRow() = default;
  virtual std::string_view GetText(std::size_t column) const = 0;
  virtual std::int32_t GetInt(std::size_t column) const = 0;
};
using RowVisitor = std::function<void(const IRow& row)>;

// What has become of statements, with the code and the text (one line) of a failure.
struct WriteResult {
  bool succeeded = false;
  int code = 0;
  const std::string& error;
};
// Is told once. It must be quick, because other writers wait for the thread that calls it, and it must not throw.
using WriteDone = std::function<void(const WriteResult& result)>;

// A connection. Tables live in the schema `platform` on every database (an attached file in SQLite). Only GetString
// throws, and only std::bad_alloc.
class CConnect {
 public:
  virtual ~CConnect() = default;
  // Runs one statement that returns no rows. Returns true when it is committed. Text that holds a NUL byte, a second
  // statement or transaction control (BEGIN, COMMIT, SAVEPOINT, ATTACH ...) is refused. There is no current row
  // afterwards.
  virtual bool Execute(const std::string& sql) = 0;
  // Runs one query and stands on its first row. All rows are fetched before it returns: a query that fails half-way
  // returns false and leaves no row, and a slow reader of the rows delays nobody.
  virtual bool Query(const std::string& sql) = 0;
  // Gives the code and text (one line) of the last failure on this connection; 0 and "" when there was none.
  virtual int GetLastError(std::string& text) = 0;
  virtual void MoveNext() = 0;
  // Returns true when there is no current row.
  virtual bool IsEnd() = 0;
  // These read columns of the current row. NULL, a missing column and no current row read as "" and 0. Integers are the
  // low 32 bits. GetString throws std::bad_alloc, because an empty text instead would be taken for what is stored.
  virtual std::string GetString(const std::string& column) = 0;
  virtual std::int32_t GetInt(int index) = 0;
  virtual std::int32_t GetInt(const std::string& column) = 0;
  // Returns false once the connection is broken for good; the pool then replaces it.
  virtual bool IsHealthy() = 0;
  // Runs statements like Execute in one transaction: all of them are committed, or none. It is meant for schemas and
  // upgrades.
  virtual bool ExecuteAll(const std::vector<std::string>& statements) = 0;
  // Does the same, but may return before the statements are committed, so that one thread can have many writes under
  // way. `done` is called once: before this returns, or later, also on another thread and after this connection was
  // given back. Throws nothing but std::bad_alloc; `done` will not be called then. A driver that has no better way
  // waits.
  virtual void ExecuteLater(std::vector<std::string> statements, WriteDone done);
  // Runs one query that only reads, and shows these columns of its rows one by one without keeping them, for results
  // that are too large to be held. Whoever looks must not use the connection, and should be quick: the database cannot
  // give up what it had before the query. Returns false when the query fails, perhaps after rows have been shown; a
  // std::bad_alloc of whoever looks is such a failure. There is no current row afterwards.
  virtual bool ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look) = 0;
};

// Opens connections of one kind of database. Threads: any.
class IDriver {
 public:
  virtual ~IDriver() = default;
  // Opens a new connection; returns null with `error` filled in (one line, no password) on failure. May throw
  // std::bad_alloc.
  virtual std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) = 0;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_CONNECT_H
