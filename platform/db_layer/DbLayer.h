// The host's database library: parameters are registered under a module name, connections come from a pool.
// Threads: every free function may be called from any thread; a connection belongs to one thread at a time. Nothing
// throws: memory that runs out is a failure like others ("out of memory"), and leaves every pool as large as it was.
// SetDriver and BuiltInDriver, which no server calls while it serves, may throw std::bad_alloc.
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
// `name` is exactly what nextval is given. Values are reserved 1,024 at a time, and a reservation is committed before
// its first value is used: a value is never given twice, and a process that ends leaves a gap of up to 2,048.
//
// In PostgreSQL they are sequences of the database; values are reserved 1,024 at a time there too.
//
// Both commit in groups: statements that several threads execute at the same time share one transaction and one wait
// for the disk, each of them still succeeding or failing by itself. In PostgreSQL one connection writes, and holds an
// advisory lock meanwhile, so that no second process writes to the database, unless both share it (SharedDatabase.h);
// the others read.
//
// PostgreSQL needs the encoding SQL_ASCII, under which texts are any bytes but NUL, as in SQLite. So that a commit
// whose answer was lost can be looked up, the owner of the schema creates
//
//   CREATE TABLE platform.commit_marks (writer text PRIMARY KEY, batch bigint NOT NULL);
//
// Without the table such a statement is answered as a failure that says that it is not known.
#ifndef TANSY_DB_LAYER_DB_LAYER_H
#define TANSY_DB_LAYER_DB_LAYER_H

#include <memory>
#include <string>

#include "db_layer/Connect.h"

namespace db_layer {

// Replaces the driver of a type (tests use a database that fails); null restores the built-in driver. Pools that exist
// keep the driver with which they were registered.
void SetDriver(int type, std::shared_ptr<IDriver> driver);
// Gives the built-in driver of a type, for wrappers around it. It is never null: for an unknown type, and for a type
// that was not built in, it is a driver whose Open fails and says so.
std::shared_ptr<IDriver> BuiltInDriver(int type);

// Names a database in messages: the path of a file, or the address of a server without password and parameters.
std::string DescribeDatabase(const DBParam& param);

// Registers a module's database and opens the pool's first connections. Returns false when the database does not
// accept; it may be called again. Registering a module once more replaces its pool.
bool Module_Register(const DBParam& param, const std::string& module);
// Says in one line, without the password, why the last Module_Register, DBLayer_ResetParam or DBLayer_ApplyConn of this
// module failed. The text is empty when it succeeded.
std::string LastRegisterError(const std::string& module);
// Gives a connection of the module's pool. When all are in use it waits up to 30 s, first come first served. Returns
// null on failure. Every connection must go back through DBLayer_FreeConn.
CConnect* DBLayer_ApplyConn(const std::string& module);
// Gives a connection back. Null and connections that are not in use are ignored.
void DBLayer_FreeConn(CConnect* connection);
// Sets new parameters for every registered module; connections in use stay as they are until they are given back.
// Returns false when the new database does not accept at once; the new parameters count all the same, and each
// DBLayer_ApplyConn tries them again.
bool DBLayer_ResetParam(const DBParam& param);
// Closes the module's pool once its connections are back (waiting up to 30 s for them; later ones are closed as they
// come); what was committed is then wholly in the database file.
void Module_Unregister(const std::string& module);

// Moves a module to another database while it is in use. Module_Hold lets only the calling thread take connections of
// the module from then on, others wait; it returns true when all other connections were given back, and false, with
// nothing held, when some were not within this time. Writes of ExecuteLater may still be under way then: whatever the
// holder writes next to the same database is carried out after them. Module_Switch gives the pool the parameters of the
// other database and opens its first connections; after a failure the module has the parameters that it had before.
// Module_Release ends it. All three are called by one thread.
bool Module_Hold(const std::string& module, int milliseconds);
bool Module_Switch(const DBParam& param, const std::string& module);
void Module_Release(const std::string& module);

// Sets how SQLite commits: true (the default) waits for stable storage, false leaves it to the operating system. The
// setting is read when this process opens a file that it has not open yet. Returns the setting before.
bool SetSqliteFullDurability(bool full);
// Sets how long a statement waits while another process holds SQLite's file locked; the default is 5000 ms. The setting
// is read at the same time. Returns the setting before.
int SetSqliteBusyTimeout(int milliseconds);

// Sets how PostgreSQL commits: true (the default) waits until the server has the commit on stable storage
// (synchronous_commit as the server has it, but never off), false does not (synchronous_commit=off). The setting is
// read when this process opens a database that it has not open yet. Returns the setting before.
bool SetPostgresFullDurability(bool full);
// Sets how long a PostgreSQL server may be silent, while a connection is made or a statement runs, before the
// connection is given up; the default is 30000 ms. A statement that writes ends by itself after half of it, one that
// waits for a lock after a third. The setting is read at the same time. Returns the setting before.
int SetPostgresTimeout(int milliseconds);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_DB_LAYER_H
