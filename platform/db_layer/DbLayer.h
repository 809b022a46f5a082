// The host's database library: parameters are registered under a module name, connections come from a pool.
// Threads: every free function may be called from any thread; a connection belongs to one thread at a time. Nothing
// throws.
#ifndef TANSY_DB_LAYER_DB_LAYER_H
#define TANSY_DB_LAYER_DB_LAYER_H

#include <cstdint>
#include <memory>
#include <string>

namespace db_layer {

inline constexpr int kSqlite = 0;
inline constexpr int kPostgresql = 1;

struct DBParam {
  int type = kSqlite;
  std::string host;
  int port = 0;
  std::string user;
  std::string password;
  std::string database;      // SQLite: path of the file; PostgreSQL: name of the database
  int min_connections = 4;   // kept open
  int max_connections = 16;  // beyond these a caller waits
};

// A connection. Tables live in the schema `platform` on every database (an attached file in SQLite).
class CConnect {
 public:
  virtual ~CConnect() = default;
  // Runs one statement that returns no rows. True when it is committed.
  virtual bool Execute(const std::string& sql) = 0;
  // Runs a query and stands on its first row.
  virtual bool Query(const std::string& sql) = 0;
  // The code and text of the last failure on this connection.
  virtual int GetLastError(std::string& text) = 0;
  virtual void MoveNext() = 0;
  // True when there is no current row.
  virtual bool IsEnd() = 0;
  // Columns of the current row. NULL, a missing column and no current row read as "" and 0. Integers are the low 32
  // bits.
  virtual std::string GetString(const std::string& column) = 0;
  virtual std::int32_t GetInt(int index) = 0;
  virtual std::int32_t GetInt(const std::string& column) = 0;
  // False once the connection is broken for good; the pool then replaces it.
  virtual bool IsHealthy() = 0;
};

// What opens connections of one kind of database. Called from any thread.
class IDriver {
 public:
  virtual ~IDriver() = default;
  // A new connection, or null with `error` filled in (one line, no password).
  virtual std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) = 0;
};

// Replaces the driver of a type (tests: a database that fails); null restores the built-in one.
void SetDriver(int type, std::shared_ptr<IDriver> driver);

// Registers a module's database: opens the pool's first connections. False when the database does not accept; may be
// called again. Registering a module once more replaces its pool.
bool Module_Register(const DBParam& param, const std::string& module);
// Why the last Module_Register or DBLayer_ApplyConn of this module failed, one line, no password.
std::string LastRegisterError(const std::string& module);
// A connection of the module's pool, waiting up to 30 s for one when all are taken. Null on failure. Every connection
// goes back through DBLayer_FreeConn.
CConnect* DBLayer_ApplyConn(const std::string& module);
void DBLayer_FreeConn(CConnect* connection);
// New parameters for every registered module: connections in use stay as they are until they are given back.
bool DBLayer_ResetParam(const DBParam& param);
// Closes the module's pool once its connections are back; what was committed is then wholly in the database file.
void Module_Unregister(const std::string& module);

// How SQLite commits: true (the default) waits for stable storage, false leaves it with the operating system. Read when
// a database is opened.
void SetSqliteFullDurability(bool full);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_DB_LAYER_H
