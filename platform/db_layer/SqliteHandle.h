// One open SQLite connection: an empty database in memory with the file attached as `platform`.
#ifndef TANSY_DB_LAYER_SQLITE_HANDLE_H
#define TANSY_DB_LAYER_SQLITE_HANDLE_H

#include <cstdint>
#include <string>
#include <vector>

#include "db_layer/Connect.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SqlError.h"
#include "db_layer/SqlTemplate.h"
#include "db_layer/SqliteStatements.h"

struct sqlite3;

namespace db_layer {

struct SqliteOptions {
  bool full_durability = true;
  int busy_timeout_ms = 5000;
};

// Gives the values of the SQL function nextval on one connection.
class ISequenceSource {
 public:
  virtual ~ISequenceSource() = default;
  virtual bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) = 0;
};

// Threads: one at a time. The handle cannot be moved, because SQLite keeps its address.
class CSqliteHandle {
 public:
  CSqliteHandle() = default;
  ~CSqliteHandle();
  CSqliteHandle(const CSqliteHandle&) = delete;
  CSqliteHandle& operator=(const CSqliteHandle&) = delete;

  // Opens or makes the file and sets the connection up. `sequences` must outlive the handle.
  bool Open(const std::string& path, const SqliteOptions& options, ISequenceSource& sequences, SqlError& error);
  // Sets up what only the connection that writes needs: a large cache, and a log that others copy into the database.
  bool PrepareToWrite(SqlError& error);
  // Copies the write-ahead log into the database without waiting for anybody. `left` is the number of pages that could
  // not be copied yet.
  bool Checkpoint(int& left, SqlError& error);
  // Lets the next checkpoint copy the whole log again. This is needed after a failure, because SQLite flushes the
  // database only when nothing is left to copy, and counts what it copied before that as done: when that flush fails,
  // the system forgets those pages, and no later flush would write them. Nobody else may copy the log meanwhile.
  bool CopyAllAgain();
  // Gives the pages in the write-ahead log after the last commit of this connection, once it is prepared to write.
  int LogPages() const { return log_pages_; }
  void Close();
  bool IsOpen() const { return db_ != nullptr; }

  // Runs one statement of a caller and keeps its rows when `rows` is given. It refuses NUL bytes, a second statement,
  // transaction control, attaching, and writing anywhere but to `platform`.
  bool Run(const std::string& sql, CRowBuffer* rows, SqlError& error);
  // Works like Run for a statement that only reads. A statement that would write is not run: `writes` is then true and
  // the result false, without an error.
  bool RunIfReading(const std::string& sql, CRowBuffer& rows, bool& writes, SqlError& error);
  // Works like Run for a statement that only reads, and refuses all others. Shows these columns of its rows one by one.
  bool ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look,
                SqlError& error);
  // Runs a statement of this library's own, without those checks.
  bool RunOwn(const char* sql, SqlError& error);
  bool RunOwn(const char* sql, CRowBuffer* rows, SqlError& error);

  bool IsInTransaction() const;
  // Returns true when the path leads to another file by now, so that what is written would be lost.
  bool HasMoved() const;

 private:
  static int Authorize(void* handle, int action, const char* first, const char* second, const char* database,
                       const char* trigger);
  bool Attach(const std::string& path, SqlError& error);
  bool Configure(const SqliteOptions& options, SqlError& error);
  bool IsAcceptable(const std::string& sql, SqlError& error);
  StatementPtr Prepare(const std::string& sql, SqlError& error);
  CSqliteStatements::CLoan Borrow(CSqliteStatements& statements, const std::string& sql, SqlError& error);
  bool RunTemplate(const SqlTemplate& shape, SqlError& error, bool& has_run);
  bool RunBorrowed(CSqliteStatements::CLoan& loan, CRowBuffer* rows, SqlError& error);
  bool IsLast(const char* tail, SqlError& error);
  bool Step(sqlite3_stmt* statement, CRowBuffer* rows, SqlError& error);
  bool Fail(SqlError& error);

  sqlite3* db_ = nullptr;
  // These are kept apart, because a caller must not run statements that were prepared without the checks.
  CSqliteStatements own_statements_;
  CSqliteStatements callers_statements_;
  int log_pages_ = 0;
  bool guarded_ = false;           // while a caller's statement is prepared, or run, when SQLite may prepare it again
  const char* refusal_ = nullptr;  // the reason why Authorize refused
};

// Returns true when the error makes the connection doubtful (damaged file, failing disk, file gone), so that a new one
// is better.
bool IsBroken(const SqlError& error);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_HANDLE_H
