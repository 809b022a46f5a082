// The host's database library: parameters are registered under a module name, connections come from a pool.
// Threads: every free function may be called from any thread; a connection belongs to one thread at a time. Nothing
// throws.
//
// The schema `platform` is a real schema in PostgreSQL. In SQLite it is the attached database file, so that
// "INSERT INTO platform.local_bucket ..." is the same text on both. Nothing but `platform` can be written to.
//
// Sequences are taken with "SELECT nextval('platform.local_bucket_id_seq')" on both. SQLite keeps them in a table that
// the owner of the schema creates, with one row for each sequence:
//
//   CREATE TABLE platform.sequences (
//     name TEXT NOT NULL PRIMARY KEY,
//     next_value INTEGER NOT NULL CHECK (next_value >= 1)
//   );
//   INSERT INTO platform.sequences (name, next_value) VALUES ('platform.local_bucket_id_seq', 1);
//
// `name` is exactly what nextval is given. Values are reserved 64 at a time, and a reservation is committed before its
// first value is used: a value is never given twice, and a process that ends leaves a gap of up to 64.
//
// SQLite commits in groups: statements that several threads execute at the same time share one transaction and one wait
// for the disk, each of them still succeeding or failing by itself.
#ifndef TANSY_DB_LAYER_DB_LAYER_H
#define TANSY_DB_LAYER_DB_LAYER_H

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

// A connection. Tables live in the schema `platform` on every database (an attached file in SQLite).
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
  // bits.
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
  // A new connection, or null with `error` filled in (one line, no password).
  virtual std::unique_ptr<CConnect> Open(const DBParam& param, std::string& error) = 0;
};

// Replaces the driver of a type (tests: a database that fails); null restores the built-in one. Pools that exist keep
// the driver that they were registered with.
void SetDriver(int type, std::shared_ptr<IDriver> driver);
// The driver that is built in for a type, for wrappers around it. Never null: an unknown type, and a type that was not
// built in, have a driver whose Open fails and says so.
std::shared_ptr<IDriver> BuiltInDriver(int type);

// Registers a module's database: opens the pool's first connections. False when the database does not accept; may be
// called again. Registering a module once more replaces its pool.
bool Module_Register(const DBParam& param, const std::string& module);
// Why the last Module_Register, DBLayer_ResetParam or DBLayer_ApplyConn of this module failed, one line, no password.
// Empty when it succeeded.
std::string LastRegisterError(const std::string& module);
// A connection of the module's pool, waiting up to 30 s, first come first served, when all are taken. Null on failure.
// Every connection goes back through DBLayer_FreeConn.
CConnect* DBLayer_ApplyConn(const std::string& module);
// Null and connections that are not out are ignored.
void DBLayer_FreeConn(CConnect* connection);
// New parameters for every registered module: connections in use stay as they are until they are given back. False when
// the new database does not accept at once; the new parameters count all the same and are tried again by each
// DBLayer_ApplyConn.
bool DBLayer_ResetParam(const DBParam& param);
// Closes the module's pool once its connections are back (waiting up to 30 s for them; later ones are closed as they
// come); what was committed is then wholly in the database file.
void Module_Unregister(const std::string& module);

// How SQLite commits: true (the default) waits for stable storage, false leaves it with the operating system. Read when
// a file is opened that this process has not got open. Returns what was set before.
bool SetSqliteFullDurability(bool full);
// How long a statement waits while another process holds SQLite's file locked. Default 5000 ms. Read at the same time.
// Returns what was set before.
int SetSqliteBusyTimeout(int milliseconds);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_DB_LAYER_H
