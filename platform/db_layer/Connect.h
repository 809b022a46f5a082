// A connection to a database, and what opens one.
#ifndef TANSY_DB_LAYER_CONNECT_H
#define TANSY_DB_LAYER_CONNECT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace db_layer {

inline constexpr int kSqlite = 0;
inline constexpr int kPostgresql = 1;

struct DBParam {
  int type = kSqlite;
  std::string host;
  int port = 0;
  std::string user;
  std::string password;
  std::string database;      // SQLite: path of the file, made when missing; PostgreSQL: name of the database
  int min_connections = 4;   // kept open
  int max_connections = 16;  // beyond these a caller waits
};

// A connection. Tables live in the schema `platform` on every database (an attached file in SQLite). Nothing throws but
// GetString, for want of memory.
class CConnect {
 public:
  virtual ~CConnect() = default;
  // Runs one statement that returns no rows. True when it is committed. Text that holds a NUL byte, a second statement
  // or transaction control (BEGIN, COMMIT, SAVEPOINT, ATTACH ...) is refused. There is no current row afterwards.
  virtual bool Execute(const std::string& sql) = 0;
  // Runs one query and stands on its first row. All rows are fetched before it returns: a query that fails half-way is
  // false and leaves no row, and a slow reader of the rows holds nothing up.
  virtual bool Query(const std::string& sql) = 0;
  // The code and text (one line) of the last failure on this connection; 0 and "" while there was none.
  virtual int GetLastError(std::string& text) = 0;
  virtual void MoveNext() = 0;
  // True when there is no current row.
  virtual bool IsEnd() = 0;
  // Columns of the current row. NULL, a missing column and no current row read as "" and 0. Integers are the low 32
  // bits. GetString throws std::bad_alloc: a text that came back empty instead would be taken for what is stored.
  virtual std::string GetString(const std::string& column) = 0;
  virtual std::int32_t GetInt(int index) = 0;
  virtual std::int32_t GetInt(const std::string& column) = 0;
  // False once the connection is broken for good; the pool then replaces it.
  virtual bool IsHealthy() = 0;
  // Runs statements like Execute in one transaction: all of them are committed, or none. For schemas and upgrades.
  virtual bool ExecuteAll(const std::vector<std::string>& statements) = 0;
};

// What opens connections of one kind of database. Called from any thread.
class IDriver {
 public:
  virtual ~IDriver() = default;
  // A new connection, or null with `error` filled in (one line, no password). May throw std::bad_alloc.
  virtual std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) = 0;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_CONNECT_H
